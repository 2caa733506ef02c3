// The module's screens: the downloads list, its row cell, the settings page
// and the registration with the host.
#include <gtest/gtest.h>

#include "module/core/DFDownloadManager.h"
#include "module/core/DFLocalizedString.h"
#include "module/platform/Localization.h"
#include "module/platform/RecentItems.h"
#include "module/platform/UserDefaults.h"
#include "module/platform/ui/AlertDialog.h"
#include "module/platform/ui/Registries.h"
#include "module/ui/DFDownloadOperationTableViewCell.h"
#include "module/ui/DFDownloaderController.h"
#include "module/ui/DFRecentItemsSource.h"
#include "module/ui/DFSettingsController.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

namespace {

// Dialogs wait for the test to answer them.
class HeldDialogs : public platform::AlertDialog {
 public:
  void present(const Request& request, std::function<void(bool, const std::string&)> answered) override {
    requests.push_back(request);
    pending = std::move(answered);
  }
  void answer(bool ok, const std::string& text = "") {
    auto answered = std::move(pending);
    answered(ok, text);
  }
  std::vector<Request> requests;
  std::function<void(bool, const std::string&)> pending;
};

class DownloadsScreenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = DFDownloadManager::init();
    manager_->setDownloadsPermitted(false);  // the rows stay queued
    DFDownloadManager::setSharedInstanceForTesting(manager_);
    platform::AlertDialog::setPresenter(dialogs_);
  }
  void TearDown() override {
    platform::AlertDialog::setPresenter(nullptr);
    DFDownloadManager::setSharedInstanceForTesting(nullptr);
  }

  DFDownloadManager::Record queue(const std::string& name) {
    server_.setRoute("/" + name, {.size = 1000});
    DFDownloadManager::Record added;
    manager_->downloadFileWithURL(*platform::URL::URLWithString(server_.url("/" + name)),
                                  [&](const DFDownloadManager::Record& r, const std::optional<std::string>&) { added = r; });
    EXPECT_TRUE(host_.runUntil([&] { return added != nullptr; }));
    return added;
  }
  std::shared_ptr<DFDownloaderController> openScreen() {
    auto screen = std::make_shared<DFDownloaderController>();
    screen->loadView();
    return screen;
  }
  static std::vector<std::string> names(const DFDownloaderController& screen) {
    std::vector<std::string> found;
    for (const auto& op : screen.downloadOperations()) found.push_back(op->filename().value_or(""));
    return found;
  }

  TestHost host_;
  TestHttpServer server_;
  std::shared_ptr<DFDownloadManager> manager_;
  std::shared_ptr<HeldDialogs> dialogs_ = std::make_shared<HeldDialogs>();
};

// Enabled states of start, stop, remove, select all, deselect all, enter URL.
std::vector<bool> buttons(DFDownloaderController& screen) {
  return {screen.startButton().isEnabled(),     screen.stopButton().isEnabled(),
          screen.removeButton().isEnabled(),    screen.selectAllButton().isEnabled(),
          screen.deselectAllButton().isEnabled(), screen.enterUrlButton().isEnabled()};
}

TEST_F(DownloadsScreenTest, ButtonsFollowTheSelectionAndActOnIt) {
  auto empty = openScreen();
  EXPECT_EQ(buttons(*empty), (std::vector<bool>{false, false, false, false, false, true}));

  auto a = queue("a.zip"), b = queue("b.zip");
  manager_->setActive(false, b);
  auto screen = openScreen();
  screen->userSelectRow(0, 0, true);
  auto c = queue("c.zip");
  EXPECT_EQ(names(*screen), (std::vector<std::string>{"a.zip", "b.zip", "c.zip"})) << "added rows join the bottom";
  EXPECT_EQ(screen->rowCount(0), 3);
  ASSERT_EQ(screen->indexPathsForSelectedRows().size(), 1u) << "an addition keeps the selection";
  EXPECT_EQ(screen->indexPathsForSelectedRows()[0].row, 0);
  // Selected rows, and the buttons they enable.
  const std::pair<std::vector<int64_t>, std::vector<bool>> cases[] = {
      {{}, {false, false, false, true, false, true}},
      {{0}, {false, true, true, true, true, true}},       // one active: stop
      {{1}, {true, false, true, true, true, true}},       // one inactive: start
      {{0, 1}, {true, true, true, true, true, true}},     // both kinds: both
      {{0, 1, 2}, {true, true, true, false, true, true}}, // every row: no select all
  };
  for (const auto& [selected, enabled] : cases) {
    SCOPED_TRACE(::testing::PrintToString(selected));
    for (const auto& path : screen->indexPathsForSelectedRows()) screen->userSelectRow(path.row, 0, false);
    for (int64_t row : selected) screen->userSelectRow(row, 0, true);
    EXPECT_EQ(buttons(*screen), enabled);
  }
  screen->deselectAllButton().tap();
  EXPECT_TRUE(screen->indexPathsForSelectedRows().empty());

  // Start and stop act on the selected rows, then clear the selection.
  manager_->setActive(false, a);
  screen->selectAllButton().tap();
  EXPECT_EQ(screen->indexPathsForSelectedRows().size(), 3u);
  screen->startButton().tap();
  EXPECT_TRUE(a->active() && b->active() && c->active());
  EXPECT_TRUE(screen->indexPathsForSelectedRows().empty());
  screen->userSelectRow(2, 0, true);
  screen->stopButton().tap();
  EXPECT_TRUE(a->active() && b->active());
  EXPECT_FALSE(c->active());
  EXPECT_EQ(buttons(*screen), (std::vector<bool>{false, false, false, true, false, true}));
}

TEST_F(DownloadsScreenTest, RemoveAsksFirstDeletesOnlyWhenConfirmedAndASelectionComesBackForWhatIsLeft) {
  auto a = queue("a.zip"), b = queue("b.zip"), c = queue("c.zip"), d = queue("d.zip");
  auto screen = openScreen();
  screen->userSelectRow(1, 0, true);
  screen->userSelectRow(3, 0, true);
  EXPECT_EQ(screen->snapshot()["selectionKeys"], (nlohmann::json{b->uniqueId(), d->uniqueId()}));
  const auto selectedButtons = buttons(*screen);

  screen->removeButton().tap();
  ASSERT_EQ(dialogs_->requests.size(), 1u);
  const auto& confirm = dialogs_->requests[0];
  EXPECT_EQ(std::tuple(confirm.title, confirm.text, confirm.okButtonTitle),
            std::tuple(std::nullopt, "Are you sure you want to delete selected items?", "Delete"));
  dialogs_->answer(false);
  EXPECT_EQ(names(*screen).size(), 4u);
  EXPECT_EQ(screen->indexPathsForSelectedRows().size(), 2u) << "a declined confirmation keeps the selection";

  screen->removeButton().tap();
  dialogs_->answer(true);
  EXPECT_EQ(names(*screen), (std::vector<std::string>{"a.zip", "c.zip"}));
  EXPECT_EQ(manager_->downloadOperations().size(), 2u);
  EXPECT_EQ(screen->rowCount(0), 2);
  EXPECT_TRUE(screen->indexPathsForSelectedRows().empty());

  // A confirmation that completes after the screen is gone does nothing.
  screen->selectAllButton().tap();
  screen->removeButton().tap();
  screen.reset();
  dialogs_->answer(true);
  EXPECT_EQ(manager_->downloadOperations().size(), 2u);

  // A new screen, as after a restart, restores what is still there; a name it
  // never had selects nothing.
  auto after = openScreen();
  after->restoreSelection({b->uniqueId(), "not-a-download", c->uniqueId()});
  ASSERT_EQ(after->indexPathsForSelectedRows().size(), 1u);
  EXPECT_EQ(after->downloadOperations().at(after->indexPathsForSelectedRows()[0].row), c);
  EXPECT_EQ(buttons(*after), selectedButtons) << "restored as taps would, so the toolbar follows";
  // Only into an empty selection: what the user selected since stays.
  after->restoreSelection({a->uniqueId()});
  EXPECT_EQ(after->indexPathsForSelectedRows().size(), 1u);
}

TEST_F(DownloadsScreenTest, EnteredTextGoesToTheManagerOrShowsIncorrectURL) {
  auto screen = openScreen();
  screen->enterUrlButton().tap();
  ASSERT_EQ(dialogs_->requests.size(), 1u);
  const auto& entry = dialogs_->requests[0];
  EXPECT_EQ(std::tuple(entry.kind, entry.title, entry.okButtonTitle),
            std::tuple(platform::AlertDialog::Request::Kind::Input, "Enter URL", "OK"));
  dialogs_->answer(true, "http://");
  EXPECT_EQ(host_.overlay().events.back(), "alert: Incorrect URL");
  EXPECT_TRUE(manager_->infoLoadersForTesting().empty());

  server_.setRoute("/typed.zip", {.size = 1000});
  screen->enterUrlButton().tap();
  dialogs_->answer(true, "  " + server_.url("/typed.zip") + " ");
  ASSERT_TRUE(host_.runUntil([&] { return screen->rowCount(0) == 1; }));
  EXPECT_EQ(names(*screen), std::vector<std::string>{"typed.zip"});
}

TEST_F(DownloadsScreenTest, RowCellShowsTheStatusProgressTextAndBar) {
  server_.setRoute("/slow.zip", {.size = 4 << 20, .stallAtByte = 1 << 20});
  auto op = queue("slow.zip");
  auto cell = DFDownloadOperationTableViewCell::initWithStyle(0, DFDownloadOperationTableViewCell::kReuseIdentifier);
  cell->setDownloadOperation(op);
  EXPECT_EQ(cell->filenameLabel().text(), "slow.zip");
  EXPECT_EQ(cell->urlLabel().text(), server_.url("/slow.zip"));
  EXPECT_EQ(cell->statusLabel().text(), "queued") << "active, but no transfer runs (downloads are not permitted)";
  // The bar keeps to the bottom of the row, across its width.
  EXPECT_EQ(cell->progressView().node()["props"]["abs"],
            nlohmann::json::parse(R"({"left": 0.0, "right": 0.0, "height": 2.0, "bottom": 1.0})"));
  manager_->setDownloadsPermitted(true);
  ASSERT_TRUE(host_.runUntil([&] { return cell->statusLabel().text() == "downloading"; }));
  manager_->setDownloadsPermitted(false);
  ASSERT_TRUE(host_.runUntil([&] { return cell->statusLabel().text() == "queued"; }));
  manager_->setActive(false, op);
  EXPECT_EQ(cell->statusLabel().text(), "stopped");

  // Size, position, the text and the bar's value they show.
  const std::tuple<int64_t, int64_t, const char*, double> cases[] = {
      {0, 0, "0 bytes / ?", 1.0},
      {0, 2500, "2.5 KB / ?", 1.0},
      {1000, 999, "999 bytes / 1.00 KB (99%)", static_cast<double>(999.0f / 1000.0f)},
      {3, 1, "1 byte / 3 bytes (33%)", static_cast<double>(1.0f / 3.0f)},
      {100, 150, "150 bytes / 100 bytes (150%)", 1.5},
  };
  for (const auto& [size, position, text, bar] : cases) {
    SCOPED_TRACE(text);
    op->setSize(size);
    op->setActualPosition(position);
    cell->updateInfo();
    EXPECT_EQ(cell->progressLabel().text(), text);
    EXPECT_DOUBLE_EQ(cell->progressView().progress(), bar);
  }
  // Only the cell's own operation refreshes it, not one with equal fields.
  auto other = queue("b.zip");
  other->setSize(op->size());
  other->setActualPosition(op->actualPosition());
  op->setActualPosition(50);
  manager_->updateDownloadOperation(other);
  EXPECT_EQ(cell->progressLabel().text(), "150 bytes / 100 bytes (150%)");
  manager_->updateDownloadOperation(op);
  EXPECT_EQ(cell->progressLabel().text(), "50 bytes / 100 bytes (50%)");
}

TEST_F(DownloadsScreenTest, SettingsPageFollowsItsSwitchesAndKeepsTheCountWithinOneToTen) {
  manager_->setMaxActiveDownloadCount(4);
  auto page = std::make_shared<DFSettingsController>();
  page->loadView();
  EXPECT_EQ(page->rowCount(0), 1);
  auto permitted = std::static_pointer_cast<platform::SwitchCell>(page->cellAtRow(0, 0));
  EXPECT_EQ(permitted->textLabel().text(), "Downloads Permitted");
  EXPECT_FALSE(permitted->switchView().isOn());

  permitted->switchView().userSetOn(true);
  EXPECT_TRUE(manager_->downloadsPermitted());
  EXPECT_EQ(page->rowCount(0), 3);
  auto cellular = std::static_pointer_cast<platform::SwitchCell>(page->cellAtRow(1, 0));
  EXPECT_EQ(cellular->textLabel().text(), "Use Cellular Data");
  cellular->switchView().userSetOn(false);
  EXPECT_FALSE(manager_->useCellularData());
  auto stepper = std::static_pointer_cast<platform::StepperCell>(page->cellAtRow(2, 0));
  EXPECT_EQ(stepper->textLabel().text(), "Active Downloads Count");
  EXPECT_EQ(stepper->stepperLabel().text(), "4") << "shown without any action";
  for (int press = 0; press < 12; ++press) stepper->stepper().userSetValue(stepper->stepper().value() + 1);
  EXPECT_EQ(stepper->stepperLabel().text(), "10");
  EXPECT_EQ(manager_->maxActiveDownloadCount(), 10);
  for (int press = 0; press < 12; ++press) stepper->stepper().userSetValue(stepper->stepper().value() - 1);
  EXPECT_EQ(stepper->stepperLabel().text(), "1");
  EXPECT_EQ(manager_->maxActiveDownloadCount(), 1);

  permitted->switchView().userSetOn(false);
  EXPECT_FALSE(manager_->downloadsPermitted());
  EXPECT_EQ(page->rowCount(0), 1);
  EXPECT_EQ(page->cellAtRow(1, 0), nullptr);
  EXPECT_EQ(page->createCellForRow(3, 0), nullptr);

  // With no stored count a page shows the default, and stores it explicitly.
  auto defaults = platform::UserDefaults::standardUserDefaults();
  defaults->removeObjectForKey(DFDownloadManager::kMaxActiveDownloadCountPreference);
  manager_->setDownloadsPermitted(true);
  page = std::make_shared<DFSettingsController>();
  page->loadView();
  EXPECT_EQ(std::static_pointer_cast<platform::StepperCell>(page->cellAtRow(2, 0))->stepperLabel().text(), "3");
  auto stored = defaults->objectForKey(DFDownloadManager::kMaxActiveDownloadCountPreference);
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, 3);
}

TEST(Registration, LoadingTheModuleRegistersOneEntryEachWithItsImagesAndTexts) {
  std::vector<std::shared_ptr<platform::SideMenuEntry>> downloads;
  for (const auto& entry : platform::SideMenuRegistry::sharedInstance()->menuItems())
    if (entry->title() == "Downloads") downloads.push_back(entry);
  ASSERT_EQ(downloads.size(), 1u);
  const auto& menu = *downloads[0];
  EXPECT_EQ(std::tuple(menu.priority(), menu.iconName(), menu.accessibilityLabel(), menu.presentationStyle(),
                       menu.controllerClass().name),
            std::tuple(40, "DFDownloadsMenuItem", "Downloader", 0, "DFDownloaderController"));
  auto settings = platform::SettingsRegistry::sharedInstance()->settingItems();
  ASSERT_EQ(settings.size(), 1u);
  EXPECT_EQ(std::tuple(settings[0]->title(), settings[0]->priority(), settings[0]->controllerClass().name),
            std::tuple("Downloads", 6, "DFSettingsController"));
  auto sources = platform::RecentItemsRegistry::sharedInstance()->sources();
  EXPECT_EQ(sources, decltype(sources){DFRecentItemsSource::sharedInstance()});

  // The images the screens use are in the module's bundle.
  auto bundle = platform::Bundle::bundleWithIdentifier(menu.iconBundle());
  ASSERT_TRUE(bundle);
  for (const char* image : {"DFStart", "DFStop", "DFRemove", "DFSelect", "DFDeselect", "DFEnterUrl",
                            "DFDownloadsMenuItem", "DFRecentItems"})
    EXPECT_TRUE(std::filesystem::is_regular_file(bundle->pathForImage(image))) << image;

  // Its texts follow the chosen language, with English as the fallback.
  platform::setPreferredLanguage("de");
  EXPECT_EQ(DFLocalizedString("Enter URL"), "URL eingeben");
  EXPECT_EQ(DFRecentItemsSource::sharedInstance()->title(), "Zuletzt heruntergeladen");
  EXPECT_EQ(DFRecentItemsSource::sharedInstance()->accessibilityLabel(), "Recently Downloaded");
  platform::setPreferredLanguage("fr");  // no catalogue: English
  EXPECT_EQ(DFLocalizedString("Enter URL"), "Enter URL");
  platform::setPreferredLanguage("");
}

}  // namespace
