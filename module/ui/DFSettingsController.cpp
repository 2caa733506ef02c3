#include "module/ui/DFSettingsController.h"

#include <cstdio>

#include "module/core/DFDownloadManager.h"
#include "module/core/DFLocalizedString.h"

DFSettingsController::DFSettingsController() : TableScreenController({0}) {
  // The rows act on the switches and the stepper, not on selection.
  tableView().setAllowsSelection(false);
}

void DFSettingsController::viewDidLoad() {
  TableScreenController::viewDidLoad();
  setTitle(DFLocalizedString("Downloads"));
}

int64_t DFSettingsController::numberOfRowsInSection(int64_t) {
  return DFDownloadManager::sharedInstance()->downloadsPermitted() ? 3 : 1;
}

std::shared_ptr<platform::TableViewCell> DFSettingsController::createCellForRow(int64_t row, int64_t) {
  DCHECK_ON_MAIN();
  auto manager = DFDownloadManager::sharedInstance();
  std::weak_ptr<TableScreenController> weak = weak_from_this();
  switch (row) {
    case 0: {
      auto cell = dequeueSwitchCell();
      cell->textLabel().setText(DFLocalizedString("Downloads Permitted"));
      cell->switchView().setOn(manager->downloadsPermitted());
      cell->setSwitchValueChanged([weak](platform::Switch& view) {
        auto self = weak.lock();
        if (!self) return;
        // The setter runs first, so the row count already answers the new shape.
        DFDownloadManager::sharedInstance()->setDownloadsPermitted(view.isOn());
        if (view.isOn())
          self->insertRows({1, 2}, 0);
        else
          self->deleteRows({1, 2}, 0);
      });
      return cell;
    }
    case 1: {
      auto cell = dequeueSwitchCell();
      cell->textLabel().setText(DFLocalizedString("Use Cellular Data"));
      cell->switchView().setOn(manager->useCellularData());
      cell->setSwitchValueChanged([weak](platform::Switch& view) {
        if (!weak.lock()) return;
        DFDownloadManager::sharedInstance()->setUseCellularData(view.isOn());
      });
      return cell;
    }
    case 2: {
      auto cell = dequeueStepperCell();
      cell->textLabel().setText(DFLocalizedString("Active Downloads Count"));
      cell->stepper().setMinimumValue(1.0);
      cell->stepper().setMaximumValue(10.0);
      cell->stepper().setValue(static_cast<double>(manager->maxActiveDownloadCount()));
      cell->setStepperValueChanged([weak](platform::Stepper& stepper, platform::Label& label) {
        if (!weak.lock()) return;
        char text[32];
        std::snprintf(text, sizeof text, "%d", static_cast<int32_t>(stepper.value()));
        label.setText(text);
        DFDownloadManager::sharedInstance()->setMaxActiveDownloadCount(static_cast<int64_t>(stepper.value()));
      });
      // Shows the current value at once (and stores it).
      cell->stepperValueChanged()(cell->stepper(), cell->stepperLabel());
      return cell;
    }
    default:
      return nullptr;
  }
}
