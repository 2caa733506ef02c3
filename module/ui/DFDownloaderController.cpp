#include "module/ui/DFDownloaderController.h"

#include <algorithm>

#include "module/core/DFDownloadManager.h"
#include "module/core/DFLocalizedString.h"
#include "module/platform/Presenters.h"
#include "module/platform/ui/AlertDialog.h"
#include "module/platform/ui/Appearance.h"
#include "module/platform/ui/Formatting.h"
#include "module/ui/DFBundle.h"
#include "module/ui/DFDownloadOperationTableViewCell.h"

DFDownloaderController::DFDownloaderController() : TableScreenController({0}, kStylePlain) {
  setTitle(DFLocalizedString("Downloads"));
  _selectedDownloadOperations = {};
}

std::shared_ptr<platform::BarButtonItem> DFDownloaderController::createButtonWithImageName(const std::string& imageName,
                                                                                          Action action) {
  platform::Image image =
      platform::AppearanceKit::imageWithName(imageName, 20.0, DFModuleBundle(), platform::Color::blueColor());
  std::weak_ptr<TableScreenController> weak = weak_from_this();
  return std::make_shared<platform::BarButtonItem>(image, platform::BarButtonItem::kStylePlain,
                                                   [weak, action](platform::BarButtonItem& sender) {
                                                     if (auto self = weak.lock())
                                                       (static_cast<DFDownloaderController&>(*self).*action)(sender);
                                                   });
}

void DFDownloaderController::viewDidLoad() {
  DCHECK_ON_MAIN();
  TableScreenController::viewDidLoad();
  setToolbarHidden(false);
  tableView().setAllowsMultipleSelection(true);
  tableView().setTableFooterView(std::make_shared<platform::View>());
  tableView().registerClass(DFDownloadOperationTableViewCell::kReuseIdentifier,
                            [](int64_t style, const std::string& identifier) {
                              return DFDownloadOperationTableViewCell::initWithStyle(style, identifier);
                            });

  _startButton = createButtonWithImageName("DFStart", &DFDownloaderController::startButtonTapped);
  _stopButton = createButtonWithImageName("DFStop", &DFDownloaderController::stopButtonTapped);
  _removeButton = createButtonWithImageName("DFRemove", &DFDownloaderController::removeButtonTapped);
  _selectAllButton = createButtonWithImageName("DFSelect", &DFDownloaderController::selectAllButtonTapped);
  _deselectAllButton = createButtonWithImageName("DFDeselect", &DFDownloaderController::deselectAllButtonTapped);
  _enterUrlButton = createButtonWithImageName("DFEnterUrl", &DFDownloaderController::enterUrlButtonTapped);
  auto space = [] { return platform::BarButtonItem::flexibleSpace(); };
  setToolbarItems({_enterUrlButton, space(), _startButton, space(), _stopButton, space(), _removeButton, space(),
                   _selectAllButton, space(), _deselectAllButton});

  auto manager = DFDownloadManager::sharedInstance();
  manager->addDelegate(std::dynamic_pointer_cast<DFDownloadManagerDelegate>(shared_from_this()));
  _downloadOperations = manager->downloadOperations();
  updateButtonsState();
}

void DFDownloaderController::processSelectedDownloadOperations(const std::function<void(const Record&)>& block) {
  std::vector<Record> selected;
  for (const auto& path : indexPathsForSelectedRows())
    selected.push_back(_downloadOperations.at(static_cast<size_t>(path.getRow())));
  for (const auto& downloadOperation : selected) block(downloadOperation);
  deselectAll();
}

void DFDownloaderController::startButtonTapped(platform::BarButtonItem&) {
  processSelectedDownloadOperations(
      [](const Record& op) { DFDownloadManager::sharedInstance()->setActive(true, op); });
}

void DFDownloaderController::stopButtonTapped(platform::BarButtonItem&) {
  processSelectedDownloadOperations(
      [](const Record& op) { DFDownloadManager::sharedInstance()->setActive(false, op); });
}

void DFDownloaderController::removeButtonTapped(platform::BarButtonItem&) {
  std::weak_ptr<TableScreenController> weak = weak_from_this();
  platform::AlertDialog::showConfirmDialogWithTitle(
      std::nullopt, DFLocalizedString("Are you sure you want to delete selected items?"), DFLocalizedString("Delete"),
      [weak](bool confirmed) {
        auto self = std::static_pointer_cast<DFDownloaderController>(weak.lock());
        if (!confirmed || !self) return;
        self->processSelectedDownloadOperations(
            [](const Record& op) { DFDownloadManager::sharedInstance()->removeDownloadOperation(op); });
      });
}

void DFDownloaderController::selectAllButtonTapped(platform::BarButtonItem&) {
  for (int64_t row = 0; row < static_cast<int64_t>(_downloadOperations.size()); ++row) selectCellAtRow(row, 0);
  updateButtonsState();
}

void DFDownloaderController::deselectAllButtonTapped(platform::BarButtonItem&) { deselectAll(); }

void DFDownloaderController::enterUrlButtonTapped(platform::BarButtonItem&) {
  std::weak_ptr<TableScreenController> weak = weak_from_this();
  platform::AlertDialog::showInputStringDialogWithTitle(
      DFLocalizedString("Enter URL"), std::nullopt, std::nullopt, DFLocalizedString("OK"),
      platform::AlertDialog::kReturnKeyDone, false,
      [weak](const std::string& string) {
        if (auto self = std::static_pointer_cast<DFDownloaderController>(weak.lock())) self->downloadURLString(string);
      },
      nullptr);
}

void DFDownloaderController::downloadURLString(const std::string& string) {
  auto url = platform::URLWithUnsafeString(string);
  if (!url) {
    platform::ProgressOverlay::showAlert(DFLocalizedString("Incorrect URL"));
    return;
  }
  DFDownloadManager::sharedInstance()->downloadFileWithURL(*url, nullptr);
}

void DFDownloaderController::deselectAll() {
  for (const auto& path : indexPathsForSelectedRows()) deselectCellAtRow(path.getRow(), 0);
  updateButtonsState();
}

void DFDownloaderController::updateButtonsState() {
  DCHECK_ON_MAIN();
  const auto selected = indexPathsForSelectedRows();
  _startButton->setEnabled(false);
  _stopButton->setEnabled(false);
  for (const auto& path : selected) {
    if (_downloadOperations.at(static_cast<size_t>(path.getRow()))->active())
      _stopButton->setEnabled(true);
    else
      _startButton->setEnabled(true);
  }
  _removeButton->setEnabled(!selected.empty());
  _selectAllButton->setEnabled(selected.size() != _downloadOperations.size());
  _deselectAllButton->setEnabled(!selected.empty());
}

double DFDownloaderController::heightForRow(int64_t, int64_t) { return 60.0; }

int64_t DFDownloaderController::numberOfRowsInSection(int64_t) {
  return static_cast<int64_t>(_downloadOperations.size());
}

std::shared_ptr<platform::TableViewCell> DFDownloaderController::createCellForRow(int64_t row, int64_t) {
  const Record& op = _downloadOperations.at(static_cast<size_t>(row));
  auto cell = std::dynamic_pointer_cast<DFDownloadOperationTableViewCell>(
      dequeueCellWithIdentifier(DFDownloadOperationTableViewCell::kReuseIdentifier));
  if (cell) cell->setDownloadOperation(op);
  return cell;
}

void DFDownloaderController::cellSelectedAtRow(int64_t, int64_t) { updateButtonsState(); }

void DFDownloaderController::cellDeselectedAtRow(int64_t, int64_t) { updateButtonsState(); }

std::optional<std::string> DFDownloaderController::modelIdentifierForRow(int64_t row, int64_t) {
  if (row < 0 || static_cast<size_t>(row) >= _downloadOperations.size()) return std::nullopt;
  return _downloadOperations[static_cast<size_t>(row)]->uniqueId();
}

std::optional<platform::IndexPath> DFDownloaderController::indexPathForModelIdentifier(const std::string& identifier) {
  for (size_t row = 0; row < _downloadOperations.size(); ++row)
    if (_downloadOperations[row]->uniqueId() == identifier) return platform::IndexPath{static_cast<int64_t>(row), 0};
  return std::nullopt;
}

void DFDownloaderController::downloadOperationAdded(DFDownloadManager&, const Record& downloadOperation) {
  const auto n = static_cast<int64_t>(_downloadOperations.size());
  _downloadOperations.push_back(downloadOperation);
  insertRows({n}, 0);
  updateButtonsState();
}

void DFDownloaderController::downloadOperationRemoved(DFDownloadManager&, const Record& downloadOperation) {
  const auto found = std::find(_downloadOperations.begin(), _downloadOperations.end(), downloadOperation);
  if (found == _downloadOperations.end()) return;  // never shown here: nothing to delete
  const auto i = static_cast<int64_t>(found - _downloadOperations.begin());
  _downloadOperations.erase(found);
  deleteRows({i}, 0);
  updateButtonsState();
}
