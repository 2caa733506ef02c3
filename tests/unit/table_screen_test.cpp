// The host's table screens and their updates to the browser.
#include <gtest/gtest.h>

#include "module/platform/ui/Appearance.h"
#include "module/platform/Localization.h"
#include "module/platform/ui/Formatting.h"
#include "module/platform/ui/TableScreenController.h"
#include "shelfkit/kits/ui/ScreenSession.h"
#include "tests/support/TestHost.h"

using namespace std::chrono_literals;

namespace {

class NumberCell : public platform::TableViewCell {
 public:
  NumberCell() : TableViewCell(0, "Number"), label(std::make_shared<platform::Label>()) {
    contentView()->addFillWidthSubviews({label});
  }
  std::shared_ptr<platform::Label> label;
};

// Rows 0..n-1, each showing its number.
class NumbersController : public platform::TableScreenController {
 public:
  explicit NumbersController(int64_t rows) : TableScreenController({0}), rows_(rows) {}
  void viewDidLoad() override {
    tableView().setAllowsMultipleSelection(true);
    tableView().registerClass("Number", [](int64_t, const std::string&) { return std::make_shared<NumberCell>(); });
  }
  int64_t numberOfRowsInSection(int64_t) override { return rows_; }
  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t row, int64_t) override {
    auto cell = std::static_pointer_cast<NumberCell>(dequeueCellWithIdentifier("Number"));
    cell->label->setText(std::to_string(row));
    return cell;
  }
  void insert(int64_t at) {
    ++rows_;
    insertRows({at}, 0);
  }
  void remove(std::vector<int64_t> rows) {
    rows_ -= static_cast<int64_t>(rows.size());
    deleteRows(rows, 0);
  }
  int64_t rows_;
};

std::vector<int64_t> selectedRows(const platform::TableScreenController& controller) {
  std::vector<int64_t> rows;
  for (const auto& path : controller.indexPathsForSelectedRows()) rows.push_back(path.row);
  return rows;
}

TEST(TableScreen, SelectionShiftsWithInsertionsAndDeletionsAndPatchesCarryRowChangesBeforeNewCells) {
  TestHost host;
  auto controller = std::make_shared<NumbersController>(10);
  controller->loadView();
  auto snapshot = controller->snapshot();
  EXPECT_EQ(snapshot["sections"][0]["heights"], nlohmann::json::parse("[[44.0, 10]]"));
  EXPECT_EQ(snapshot["sections"][0]["cells"].size(), 10u);
  for (int64_t row : {5, 2, 7}) controller->selectCellAtRow(row, 0);

  struct Step {
    const char* what;
    std::function<void()> change;
    std::vector<int64_t> selected;
  } steps[] = {
      {"insert above all", [&] { controller->insert(0); }, {6, 3, 8}},
      {"insert between", [&] { controller->insert(5); }, {7, 3, 9}},
      {"insert below all", [&] { controller->insert(11); }, {7, 3, 9}},
      {"delete a selected row", [&] { controller->remove({3}); }, {6, 8}},
      {"delete rows above and between", [&] { controller->remove({0, 7}); }, {5, 6}},
      {"select another", [&] { controller->selectCellAtRow(0, 0); }, {5, 6, 0}},
      {"deselect", [&] { controller->deselectCellAtRow(5, 0); }, {6, 0}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    step.change();
    EXPECT_EQ(selectedRows(*controller), step.selected);
  }
  EXPECT_EQ(controller->rowCount(0), 10);

  // A patch carries the row changes, then the cells of the new rows, then the selection.
  controller->takePatchOps();
  controller->insert(10);
  controller->selectCellAtRow(10, 0);
  auto ops = controller->takePatchOps();
  ASSERT_EQ(ops.size(), 3u) << ops.dump();
  EXPECT_EQ(ops[0], nlohmann::json::parse(R"({"op": "insertRows", "section": 0, "rows": [10], "heights": [44.0]})"));
  EXPECT_EQ(ops[1]["op"], "cells");
  EXPECT_EQ(ops[1]["cells"][0]["row"], 10);
  EXPECT_EQ(ops[2], nlohmann::json::parse(R"({"op": "selection", "rows": [[0, 6], [0, 0], [0, 10]], "keys": []})"));
  EXPECT_FALSE(controller->hasPendingChanges());
}

TEST(TableScreen, CellsAreMadeForVisibleRowsOnlyAndReused) {
  TestHost host;
  auto controller = std::make_shared<NumbersController>(10000);
  controller->loadView();
  const int64_t firstScreen = controller->cellsCreated();
  EXPECT_GT(firstScreen, 0);
  EXPECT_LT(firstScreen, 30) << "only the first rows have cells before the browser reports its viewport";

  controller->setVisibleRows(0, 5000, 5012);
  EXPECT_EQ(controller->cellAtRow(0, 0), nullptr);
  ASSERT_NE(controller->cellAtRow(5000, 0), nullptr);
  EXPECT_EQ(std::static_pointer_cast<NumberCell>(controller->cellAtRow(5012, 0))->label->text(), "5012");
  EXPECT_EQ(controller->cellsCreated(), firstScreen) << "cells that scrolled out are reused";

  // Scrolling through the whole table never makes more cells than a screen holds.
  for (int64_t first = 0; first < 10000; first += 7) controller->setVisibleRows(0, first, first + 12);
  EXPECT_LE(controller->cellsCreated(), firstScreen);

  // A client cannot ask for thousands of cells at once.
  controller->setVisibleRows(0, 0, 9999);
  EXPECT_LT(controller->cellsCreated(), 250);
  EXPECT_EQ(controller->cellAtRow(9999, 0), nullptr);
}

class Tab {
 public:
  Tab() : session(std::make_shared<shelfkit::ScreenSession>([this](std::string m) { messages.push_back(nlohmann::json::parse(m)); })) {}
  std::vector<nlohmann::json> patches() const {
    std::vector<nlohmann::json> found;
    for (const auto& m : messages)
      if (m["t"] == "patch") found.push_back(m);
    return found;
  }
  std::vector<nlohmann::json> messages;
  std::shared_ptr<shelfkit::ScreenSession> session;
};

TEST(ScreenSession, ChangesAreCoalescedAndThrottledAndHiddenCellsSendNothing) {
  TestHost host;
  Tab tab;
  auto controller = std::make_shared<NumbersController>(100);
  tab.session->setRoot(controller);
  ASSERT_EQ(tab.messages.size(), 1u);
  EXPECT_EQ(tab.messages[0]["t"], "screen");

  // Many changes in one turn make one patch with the latest value.
  auto cell = std::static_pointer_cast<NumberCell>(controller->cellAtRow(1, 0));
  for (int i = 0; i < 1000; ++i) cell->label->setText("value " + std::to_string(i));
  host.loop().runFor(250ms);
  auto patches = tab.patches();
  ASSERT_EQ(patches.size(), 1u);
  EXPECT_EQ(patches[0]["ops"], nlohmann::json::array({{{"op", "props"}, {"id", cell->label->viewId()},
                                                         {"props", {{"text", "value 999"}}}}}));

  // A cell that is not on screen sends nothing until it is shown again.
  std::vector<std::shared_ptr<platform::TableViewCell>> firstCells;
  for (int64_t row = 0; controller->cellAtRow(row, 0); ++row) firstCells.push_back(controller->cellAtRow(row, 0));
  tab.session->handle({{"t", "viewport"}, {"section", 0}, {"first", 50}, {"last", 60}});
  host.loop().runFor(250ms);
  std::shared_ptr<NumberCell> hidden;
  for (const auto& candidate : firstCells) {
    bool shown = false;
    for (int64_t row = 40; row < 70; ++row) shown = shown || controller->cellAtRow(row, 0) == candidate;
    if (!shown) hidden = std::static_pointer_cast<NumberCell>(candidate);
  }
  ASSERT_TRUE(hidden) << "more cells were made than the new rows needed";
  const size_t before = tab.patches().size();
  hidden->label->setText("hidden change");
  host.loop().runFor(250ms);
  EXPECT_EQ(tab.patches().size(), before);

  // Steady changes of a shown cell are sent at most ten times a second.
  auto shown = std::static_pointer_cast<NumberCell>(controller->cellAtRow(55, 0));
  int changes = 0;
  auto timer = platform::scheduledTimer(5ms, [&] { shown->label->setText(std::to_string(++changes)); });
  const auto start = std::chrono::steady_clock::now();
  host.loop().runFor(1000ms);
  timer->invalidate();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  host.loop().runFor(250ms);
  const auto allowed = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() / 100 + 2;
  EXPECT_GT(changes, 20);
  EXPECT_LE(static_cast<int64_t>(tab.patches().size() - before), allowed);
  // The last value always arrives.
  EXPECT_EQ(tab.patches().back()["ops"].back()["props"]["text"], std::to_string(changes));
}

// A toolbar button, a switch in row 0 and a stepper (1 to 10) in row 1.
class Controls : public platform::TableScreenController {
 public:
  Controls() : TableScreenController({0}) {}
  void viewDidLoad() override {
    button = std::make_shared<platform::BarButtonItem>(platform::Image{}, 0, [this](platform::BarButtonItem&) { ++taps; });
    setToolbarItems({button});
    setToolbarHidden(false);
  }
  int64_t numberOfRowsInSection(int64_t) override { return 2; }
  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t row, int64_t) override {
    if (row == 0) {
      auto cell = dequeueSwitchCell();
      cell->setSwitchValueChanged([this](platform::Switch& s) { switched = s.isOn(); });
      return cell;
    }
    auto cell = dequeueStepperCell();
    cell->stepper().setMinimumValue(1);
    cell->stepper().setMaximumValue(10);
    cell->setStepperValueChanged([this](platform::Stepper& s, platform::Label&) { stepped = s.value(); });
    return cell;
  }
  std::shared_ptr<platform::BarButtonItem> button;
  int taps = 0;
  bool switched = false;
  double stepped = 0;
};

TEST(ScreenSession, MalformedMessagesChangeNothingAndWellFormedOnesReachTheirViews) {
  TestHost host;
  Tab tab;
  auto controller = std::make_shared<Controls>();
  tab.session->setRoot(controller);
  const auto button = controller->button->viewId();
  const auto toggle = std::static_pointer_cast<platform::SwitchCell>(controller->cellAtRow(0, 0))->switchView().viewId();
  const auto stepper = std::static_pointer_cast<platform::StepperCell>(controller->cellAtRow(1, 0))->stepper().viewId();
  using nlohmann::json;
  const json messages[] = {
      // Wrong kinds of "t" and of "selected" also go through the bridge in host_test.
      json::array({"select", 0, 0, true}), {{"t", "select"}, {"row", 0.5}, {"section", 0}, {"selected", true}},
      {{"t", "select"}, {"row", 1e300}, {"section", 0}, {"selected", true}},
      {{"t", "select"}, {"section", 0}, {"selected", true}},
      {{"t", "tap"}, {"id", std::to_string(button)}}, {{"t", "tap"}, {"id", -1.0 * button}}, {{"t", "tap"}},
      {{"t", "switch"}, {"id", toggle}, {"on", "yes"}}, {{"t", "switch"}, {"id", toggle}, {"on", 1}},
      {{"t", "switch"}, {"id", toggle}},
      {{"t", "stepper"}, {"id", stepper}, {"value", "7"}}, {{"t", "stepper"}, {"id", stepper}, {"value", nullptr}},
      {{"t", "stepper"}, {"id", stepper}, {"value", true}},
      {{"t", "restoreSelection"}, {"keys", "a"}}, {{"t", "restoreSelection"}, {"keys", json::array({1, nullptr})}},
      {{"t", "restoreSelection"}, {"keys", json::object({{"a", 1}})}}, {{"t", "restoreSelection"}},
      // Ranges at the ends of the integers: no overflow, no thousands of cells.
      {{"t", "viewport"}, {"section", 0}, {"first", INT64_MAX}, {"last", INT64_MAX}},
      {{"t", "viewport"}, {"section", 0}, {"first", INT64_MIN}, {"last", UINT64_MAX}},
      {{"t", "viewport"}, {"section", 0}, {"first", -1e300}, {"last", 1e300}},
  };
  for (const auto& message : messages) {
    SCOPED_TRACE(message.dump());
    EXPECT_NO_THROW(tab.session->handle(message));
  }
  EXPECT_EQ(controller->taps, 0);
  EXPECT_FALSE(controller->switched);
  EXPECT_EQ(controller->stepped, 0);
  EXPECT_TRUE(controller->indexPathsForSelectedRows().empty());

  // Well-formed messages work, with numbers as a browser sends them.
  tab.session->handle({{"t", "viewport"}, {"section", 0}, {"first", 0.0}, {"last", 10.0}});
  ASSERT_TRUE(controller->cellAtRow(1, 0));
  tab.session->handle({{"t", "select"}, {"row", 1.0}, {"section", 0}, {"selected", true}});
  EXPECT_EQ(selectedRows(*controller), std::vector<int64_t>{1});
  const auto shown = std::static_pointer_cast<platform::StepperCell>(controller->cellAtRow(1, 0))->stepper().viewId();
  tab.session->handle({{"t", "stepper"}, {"id", static_cast<double>(shown)}, {"value", 4.0}});
  EXPECT_EQ(controller->stepped, 4);
  tab.session->handle({{"t", "stepper"}, {"id", shown}, {"value", 42}});
  EXPECT_EQ(controller->stepped, 10) << "the stepper keeps to its range whatever the browser sends";
  const auto shownToggle = std::static_pointer_cast<platform::SwitchCell>(controller->cellAtRow(0, 0))->switchView().viewId();
  tab.session->handle({{"t", "switch"}, {"id", shownToggle}, {"on", true}});
  EXPECT_TRUE(controller->switched);
  tab.session->handle({{"t", "tap"}, {"id", button}});
  EXPECT_EQ(controller->taps, 1);
  controller->button->setEnabled(false);
  tab.session->handle({{"t", "tap"}, {"id", button}});
  EXPECT_EQ(controller->taps, 1) << "a disabled button does nothing";
}

TEST(Formatting, FileSizesInEnglishAndInTheHostsLanguage) {
  platform::bindTextDomain("shelf", SHELF_HOST_LOCALE_DIR);
  // Language (empty: English), bytes, the plain and the fixed-precision form.
  const std::tuple<const char*, int64_t, const char*, const char*> cases[] = {
      // Small sizes in English are also in the downloads row cell's table (downloads_ui_test).
      {"", 0, "0 bytes", "0 bytes"},       {"", 999999, "1 MB", "1.00 MB"}, {"", 5000000000LL, "5 GB", "5.00 GB"},
      {"de", 0, "0 Byte", "0 Byte"},       {"de", 1, "1 Byte", "1 Byte"},   {"de", 1536, "1,5 KB", "1,54 KB"},
      {"de", 123456789, "123 MB", "123,46 MB"},
      {"", 1536, "1.5 KB", "1.54 KB"},  // and back
  };
  for (const auto& [language, bytes, plain, fixed] : cases) {
    SCOPED_TRACE(std::string(language) + " " + std::to_string(bytes));
    platform::setPreferredLanguage(language);
    EXPECT_EQ(platform::fileSizeString(bytes), plain);
    EXPECT_EQ(platform::fileSizeString(bytes, true), fixed);
  }
}

TEST(Formatting, URLsFromTypedText) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://example.com/a.zip", "http://example.com/a.zip"},
      {"  https://example.com/a b.zip \n", "https://example.com/a%20b.zip"},
      {"example.com/files/x.zip", "http://example.com/files/x.zip"},
      {"http://example.com/ü?q=\"1\"", "http://example.com/%C3%BC?q=%221%22"},
      {"http://example.com/100%", "http://example.com/100%25"},
      {"http://example.com/%41", "http://example.com/%41"},
      // Rejected.
      {"", ""}, {"   ", ""}, {"http://", ""}, {"file:///etc/passwd", ""}, {"ftp://example.com/a", ""},
      {"javascript:alert(1)", ""},
  };
  for (const auto& [typed, expected] : cases) {
    SCOPED_TRACE(typed);
    auto url = platform::URLWithUnsafeString(typed);
    EXPECT_EQ(url ? url->absoluteString() : "", expected);
  }
}

}  // namespace
