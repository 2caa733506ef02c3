// The downloads screen: every download of the manager, one row each, with a
// toolbar to enter an address and to start, stop, remove, select and deselect
// the selected rows. Keeps its own copy of the queue, in step through the
// manager's Added and Removed notifications.
// REQUIRES: main thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "module/core/DFDownloadManagerDelegate.h"
#include "module/core/DFDownloadOperation.h"
#include "module/platform/ui/BarButtonItem.h"
#include "module/platform/ui/TableScreenController.h"

class DFDownloaderController : public platform::TableScreenController, public DFDownloadManagerDelegate {
 public:
  using Action = void (DFDownloaderController::*)(platform::BarButtonItem& sender);

  DFDownloaderController();

  std::shared_ptr<platform::BarButtonItem> createButtonWithImageName(const std::string& imageName, Action action);
  void viewDidLoad() override;
  void processSelectedDownloadOperations(const std::function<void(const Record&)>& block);

  void startButtonTapped(platform::BarButtonItem& sender);
  void stopButtonTapped(platform::BarButtonItem& sender);
  void removeButtonTapped(platform::BarButtonItem& sender);
  void selectAllButtonTapped(platform::BarButtonItem& sender);
  void deselectAllButtonTapped(platform::BarButtonItem& sender);
  void enterUrlButtonTapped(platform::BarButtonItem& sender);
  // The completion of the enter-URL dialog.
  void downloadURLString(const std::string& string);

  void deselectAll();
  void updateButtonsState();

  double heightForRow(int64_t row, int64_t section) override;
  int64_t numberOfRowsInSection(int64_t section) override;
  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t row, int64_t section) override;
  void cellSelectedAtRow(int64_t row, int64_t section) override;
  void cellDeselectedAtRow(int64_t row, int64_t section) override;
  // A row's download by its unique id, so that a selection outlives a restart.
  std::optional<std::string> modelIdentifierForRow(int64_t row, int64_t section) override;
  std::optional<platform::IndexPath> indexPathForModelIdentifier(const std::string& identifier) override;

  void downloadOperationAdded(DFDownloadManager& manager, const Record& downloadOperation) override;
  void downloadOperationRemoved(DFDownloadManager& manager, const Record& downloadOperation) override;

  // For tests.
  const std::vector<Record>& downloadOperations() const { return _downloadOperations; }
  platform::BarButtonItem& startButton() { return *_startButton; }
  platform::BarButtonItem& stopButton() { return *_stopButton; }
  platform::BarButtonItem& removeButton() { return *_removeButton; }
  platform::BarButtonItem& selectAllButton() { return *_selectAllButton; }
  platform::BarButtonItem& deselectAllButton() { return *_deselectAllButton; }
  platform::BarButtonItem& enterUrlButton() { return *_enterUrlButton; }

 private:
  std::vector<Record> _downloadOperations;
  std::shared_ptr<platform::BarButtonItem> _startButton;
  std::shared_ptr<platform::BarButtonItem> _stopButton;
  std::shared_ptr<platform::BarButtonItem> _removeButton;
  std::shared_ptr<platform::BarButtonItem> _selectAllButton;
  std::shared_ptr<platform::BarButtonItem> _deselectAllButton;
  std::shared_ptr<platform::BarButtonItem> _enterUrlButton;
  std::vector<Record> _selectedDownloadOperations;  // made by init, used nowhere else
};
