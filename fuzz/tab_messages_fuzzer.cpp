// Frames of any bytes from a browser tab, through the web bridge and the tab's
// screen session, as the server thread hands them over. None may end the
// process or throw; the tab stays open (an input never fills its inbox); every
// message sent back is a JSON object naming its type; and once the tab closes,
// every dialog, alert and tip it left open has had its completion run.
//
// The input is a list of frames separated by '\n'. "@0" to "@9" in a frame
// stand for the ids of the views the tab was last shown (their numbers change
// from run to run), so taps, switches and steppers reach real views.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz/FuzzCheck.h"
#include "module/platform/Presenters.h"
#include "module/platform/ui/AlertDialog.h"
#include "module/platform/ui/BarButtonItem.h"
#include "module/platform/ui/Registries.h"
#include "module/platform/ui/TableScreenController.h"
#include "module/platform/ui/TableViewCell.h"
#include "shelf/host/WebBridge.h"
#include "shelfkit/runtime/MainLoop.h"

namespace {

constexpr uint64_t kTabId = 1;
constexpr size_t kFramesPerTurn = 64;  // well under the inbox's limit

// Dialogs, alerts and tips shown and not yet completed; 0 once the tab is gone.
int gOpen = 0;

// A screen with everything a tab can act on: 40 selectable rows, a switch, a
// stepper, and toolbar buttons that show a dialog, an alert, a tip and the
// progress message, or push another screen.
class Playground : public platform::TableScreenController {
 public:
  Playground() : TableScreenController({0}) {}

  void viewDidLoad() override {
    tableView().setAllowsMultipleSelection(true);
    tableView().registerClass("Plain", [](int64_t, const std::string&) {
      auto cell = std::make_shared<platform::TableViewCell>(0, "Plain");
      cell->contentView()->addFillWidthSubviews({std::make_shared<platform::Label>()});
      return cell;
    });
    auto button = [](platform::BarButtonItem::Action action) {
      return std::make_shared<platform::BarButtonItem>(platform::Image{}, 0, std::move(action));
    };
    setToolbarItems({
        button([](platform::BarButtonItem&) {
          ++gOpen;
          platform::AlertDialog::showConfirmDialogWithTitle("Remove?", std::nullopt, "Remove", [](bool) { --gOpen; });
        }),
        button([](platform::BarButtonItem&) {
          ++gOpen;
          platform::AlertDialog::showInputStringDialogWithTitle(
              "Name", std::nullopt, "name", "OK", platform::AlertDialog::kReturnKeyDone, false,
              [](const std::string&) { --gOpen; }, [] { --gOpen; });
        }),
        button([](platform::BarButtonItem&) {
          ++gOpen;
          platform::ProgressOverlay::showAlert(std::string("Done"), [] { --gOpen; });
        }),
        button([](platform::BarButtonItem&) {
          ++gOpen;
          platform::TipsPresenter::showTip("A tip", [] { --gOpen; });
        }),
        button([](platform::BarButtonItem&) { platform::ProgressOverlay::showMessage("Checking URL...", [] {}); }),
        button([this](platform::BarButtonItem&) {
          if (rows_ == 0) return;
          --rows_;
          deleteRows({0}, 0);
        }),
        platform::BarButtonItem::flexibleSpace(),
    });
  }

  int64_t numberOfRowsInSection(int64_t) override { return rows_; }

  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t row, int64_t) override {
    if (row == 0) {
      auto cell = dequeueSwitchCell();
      cell->setSwitchValueChanged([this](platform::Switch& s) { setTitle(s.isOn() ? "on" : "off"); });
      return cell;
    }
    if (row == 1) {
      auto cell = dequeueStepperCell();
      cell->stepper().setMinimumValue(1);
      cell->stepper().setMaximumValue(10);
      cell->setStepperValueChanged([](platform::Stepper& s, platform::Label& label) { label.setText(std::to_string(s.value())); });
      return cell;
    }
    return dequeueCellWithIdentifier("Plain");
  }

 private:
  int64_t rows_ = 40;
};

// The tab: checks what it is sent and remembers the view ids it was shown.
class Tab : public shelf::WebSocketConnection {
 public:
  uint64_t id() const override { return kTabId; }

  void send(std::string text) override {
    const auto message = nlohmann::json::parse(text, nullptr, false);
    CHECK(message.is_object() && message.contains("t") && message["t"].is_string());
    if (message["t"] == "screen") views.clear();
    collectViews(message);
  }

  void close(shelf::CloseReason) override { closed = true; }

  void collectViews(const nlohmann::json& node) {
    if (node.is_object() && node.contains("kind") && node.contains("id") && node["id"].is_number_unsigned())
      views.push_back(node["id"].get<uint64_t>());
    if (node.is_structured())
      for (const auto& child : node) collectViews(child);
  }

  std::vector<uint64_t> views;
  bool closed = false;
};

// "@d" becomes the id of the d-th view shown (counted from the end), or 0.
std::string withViewIds(std::string_view frame, const std::vector<uint64_t>& views) {
  std::string out;
  for (size_t i = 0; i < frame.size(); ++i) {
    if (frame[i] == '@' && i + 1 < frame.size() && frame[i + 1] >= '0' && frame[i + 1] <= '9') {
      const size_t back = static_cast<size_t>(frame[++i] - '0');
      out += std::to_string(back < views.size() ? views[views.size() - 1 - back] : 0);
    } else {
      out += frame[i];
    }
  }
  return out;
}

void runReady(shelfkit::MainLoop& loop) {
  loop.context().restart();
  while (loop.context().poll() > 0) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  auto menu = platform::SideMenuRegistry::sharedInstance();
  menu->addMenuItem(std::make_shared<platform::SideMenuEntry>(
      "Playground", "Playground", "org.shelf.fuzz", platform::ControllerClass::of<Playground>("Playground"), 0, 1));
  menu->addMenuItem(std::make_shared<platform::SideMenuEntry>(
      "Second", "Second", "org.shelf.fuzz", platform::ControllerClass::of<Playground>("Playground"), 0, 0));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::MainLoop::install(loop);
  gOpen = 0;
  {
    auto bridge = shelf::WebBridge::create();
    bridge->installPresenters();
    auto tab = std::make_shared<Tab>();
    bridge->opened(tab);
    runReady(*loop);

    const std::string_view input(reinterpret_cast<const char*>(data), size);
    size_t frames = 0;
    for (size_t start = 0; start <= input.size();) {
      const size_t end = std::min(input.find('\n', start), input.size());
      bridge->message(kTabId, withViewIds(input.substr(start, end - start), tab->views));
      start = end + 1;
      if (++frames % kFramesPerTurn == 0) runReady(*loop);
    }
    runReady(*loop);
    if (auto session = bridge->activeSession()) session->flush();
    CHECK(!tab->closed);

    bridge->closed(kTabId);
    runReady(*loop);
    CHECK(bridge->tabCount() == 0);
    CHECK(gOpen == 0);
    platform::AlertDialog::setPresenter(nullptr);
    platform::ProgressOverlay::setPresenter(nullptr);
    platform::TipsPresenter::setPresenter(nullptr);
  }
  shelfkit::MainLoop::install(nullptr);
  return 0;
}
