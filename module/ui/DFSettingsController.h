// The module's settings page: downloads permitted, cellular data, and the
// number of downloads that run at once. Keeps no state: each control reads
// the manager when its row is made and writes straight back.
// REQUIRES: main thread.
#pragma once

#include "module/platform/ui/TableScreenController.h"

class DFSettingsController : public platform::TableScreenController {
 public:
  DFSettingsController();
  void viewDidLoad() override;
  int64_t numberOfRowsInSection(int64_t section) override;
  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t row, int64_t section) override;
};
