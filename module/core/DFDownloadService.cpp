#include "module/core/DFDownloadService.h"

#include <chrono>

namespace {

// Forwards the manager's notifications to one observer of the service.
class Relay : public DFDownloadManagerDelegate {
 public:
  explicit Relay(std::weak_ptr<platform::DownloadServiceObserver> observer) : observer_(std::move(observer)) {}
  void downloadOperationAdded(DFDownloadManager& m, const Record& r) override { relay(platform::DownloadEvent::Added, m, r); }
  void downloadOperationRemoved(DFDownloadManager& m, const Record& r) override { relay(platform::DownloadEvent::Removed, m, r); }
  void downloadOperationChanged(DFDownloadManager& m, const Record& r) override { relay(platform::DownloadEvent::Changed, m, r); }
  void downloadOperationStarted(DFDownloadManager& m, const Record& r) override { relay(platform::DownloadEvent::Started, m, r); }
  void downloadOperationCompleted(DFDownloadManager& m, const Record& r) override { relay(platform::DownloadEvent::Completed, m, r); }
  void downloadOperationStopped(DFDownloadManager& m, const Record& r) override { relay(platform::DownloadEvent::Stopped, m, r); }

 private:
  void relay(platform::DownloadEvent event, DFDownloadManager& manager, const Record& record) {
    if (auto observer = observer_.lock()) observer->downloadServiceEvent(event, DFDownloadService::itemOf(manager, record));
  }
  std::weak_ptr<platform::DownloadServiceObserver> observer_;
};

// The relays live as long as their observer: each is kept alive by a holder
// that the observer's expiry makes collectable.
std::vector<std::pair<std::weak_ptr<platform::DownloadServiceObserver>, std::shared_ptr<Relay>>>& relays() {
  static std::vector<std::pair<std::weak_ptr<platform::DownloadServiceObserver>, std::shared_ptr<Relay>>> all;
  return all;
}

struct DFDownloadServiceLoadHook {
  DFDownloadServiceLoadHook() {
    platform::DownloadService::setSharedInstance(std::make_shared<DFDownloadService>());
  }
} gDFDownloadServiceLoadHook;

}  // namespace

std::shared_ptr<DFDownloadService> DFDownloadService::sharedInstance() {
  return std::dynamic_pointer_cast<DFDownloadService>(platform::DownloadService::sharedInstance());
}

platform::DownloadItem DFDownloadService::itemOf(DFDownloadManager& manager, const DFDownloadManager::Record& record) {
  platform::DownloadItem item;
  item.uniqueId = record->uniqueId();
  item.url = record->url().absoluteString();
  item.filename = record->filename();
  item.outputFilename = record->outputFilename();
  item.size = record->size();
  item.position = record->position();
  item.actualPosition = record->actualPosition();
  item.priority = record->priority();
  item.active = record->active();
  item.inProgress = manager.downloadOperationInProgress(record);
  item.partialDownloading = record->partialDownloading();
  if (record->retryDate())
    item.retryDate = std::chrono::duration<double>(record->retryDate()->time_since_epoch()).count();
  item.lastError = manager.lastErrorOfDownloadOperation(record);
  return item;
}

DFDownloadManager::Record DFDownloadService::find(const std::string& uniqueId) {
  for (const auto& record : DFDownloadManager::sharedInstance()->downloadOperations())
    if (record->uniqueId() == uniqueId) return record;
  return nullptr;
}

std::vector<platform::DownloadItem> DFDownloadService::downloads() {
  auto manager = DFDownloadManager::sharedInstance();
  std::vector<platform::DownloadItem> items;
  for (const auto& record : manager->downloadOperations()) items.push_back(itemOf(*manager, record));
  return items;
}

void DFDownloadService::addDownload(const platform::URL& url, std::optional<std::vector<std::string>> permittedMIMETypes,
                                    AddCompletion completion) {
  std::optional<DFDownloadOperationInfoLoader::MIMETypes> types;
  if (permittedMIMETypes) types = DFDownloadOperationInfoLoader::MIMETypes(permittedMIMETypes->begin(), permittedMIMETypes->end());
  DFDownloadManager::sharedInstance()->downloadFileWithURL(
      url, std::move(types),
      [completion = std::move(completion)](const DFDownloadManager::Record& record, const std::optional<std::string>& message) {
        if (!completion) return;
        std::optional<platform::DownloadItem> item;
        if (record) item = itemOf(*DFDownloadManager::sharedInstance(), record);
        completion(item, message);
      });
}

bool DFDownloadService::setActive(const std::string& uniqueId, bool active) {
  auto record = find(uniqueId);
  if (record) DFDownloadManager::sharedInstance()->setActive(active, record);
  return record != nullptr;
}

bool DFDownloadService::removeDownload(const std::string& uniqueId) {
  auto record = find(uniqueId);
  if (record) DFDownloadManager::sharedInstance()->removeDownloadOperation(record);
  return record != nullptr;
}

platform::DownloadSettings DFDownloadService::settings() {
  auto manager = DFDownloadManager::sharedInstance();
  return {manager->downloadsPermitted(), manager->useCellularData(), manager->maxActiveDownloadCount()};
}

void DFDownloadService::setSettings(const platform::DownloadSettings& settings) {
  auto manager = DFDownloadManager::sharedInstance();
  if (settings.downloadsPermitted != manager->downloadsPermitted()) manager->setDownloadsPermitted(settings.downloadsPermitted);
  if (settings.useCellularData != manager->useCellularData()) manager->setUseCellularData(settings.useCellularData);
  if (settings.maxActiveDownloadCount != manager->maxActiveDownloadCount())
    manager->setMaxActiveDownloadCount(settings.maxActiveDownloadCount);
}

void DFDownloadService::addObserver(const std::shared_ptr<platform::DownloadServiceObserver>& observer) {
  auto& all = relays();
  std::erase_if(all, [](const auto& entry) { return entry.first.expired(); });
  auto relay = std::make_shared<Relay>(observer);
  all.emplace_back(observer, relay);
  DFDownloadManager::sharedInstance()->addDelegate(relay);
}
