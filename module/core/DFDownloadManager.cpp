#include "module/core/DFDownloadManager.h"

#include <algorithm>
#include <mutex>
#include <unordered_set>

#include "module/platform/FileManager.h"
#include "module/platform/Log.h"
#include "module/platform/UserDefaults.h"

namespace {

constexpr auto kSharedInstanceDelay = std::chrono::seconds(10);
constexpr auto kRetryTimerInterval = std::chrono::seconds(30);
constexpr const char* kDatabaseName = "DFDownloadManager";
constexpr const char* kTmpDirectoryName = "DownloaderTmpFiles";
constexpr std::size_t kDecodeThreads = 2;  // a large saved queue is decoded on two cores

}  // namespace

void DFDownloadManager::load() {
  platform::dispatchAfterMain(kSharedInstanceDelay, [] { sharedInstance(); });
}

namespace {

std::once_flag gSharedOnce;
std::shared_ptr<DFDownloadManager>* gShared = nullptr;  // never destroyed: lives as long as the process

}  // namespace

std::shared_ptr<DFDownloadManager> DFDownloadManager::sharedInstance() {
  std::call_once(gSharedOnce, [] { gShared = new std::shared_ptr<DFDownloadManager>(init()); });
  return *gShared;
}

void DFDownloadManager::setSharedInstanceForTesting(std::shared_ptr<DFDownloadManager> manager) {
  std::call_once(gSharedOnce, [] { gShared = new std::shared_ptr<DFDownloadManager>(); });
  *gShared = std::move(manager);
}

std::string DFDownloadManager::tmpFilePathForFilename(const std::string& filename) {
  auto files = platform::FileManager::defaultManager();
  std::string directory = files->libraryDirectory() + "/" + kTmpDirectoryName;
  files->createDirectoryAtPath(directory);
  return directory + "/" + filename;
}

DFDownloadManager::DFDownloadManager(Passkey) {}

DFDownloadManager::~DFDownloadManager() = default;

std::shared_ptr<DFDownloadManager> DFDownloadManager::init() {
  DCHECK_ON_MAIN();
  auto manager = std::make_shared<DFDownloadManager>(Passkey{});
  manager->_database = platform::RecordDatabase::initWithName(kDatabaseName, 0);
  if (manager->_database) {
    const auto stored = manager->_database->itemData();
    auto decoded = platform::RecordDatabase::decodeItems<DFDownloadOperation>(stored, kDecodeThreads);
    // One listing of the temporary folder serves the placement markers and the clean-up.
    const std::string directory = tmpFilePathForFilename("");
    const auto listed = platform::FileManager::defaultManager()->contentsOfDirectoryAtPath(directory);
    const std::unordered_set<std::string> names(listed.begin(), listed.end());
    manager->_downloadOperations.reserve(decoded.size());
    for (auto& [uniqueId, record] : decoded) {
      record->setStoredArchiveVersion(record->archiveVersion());
      if (names.count(uniqueId + kPlacementMarkerSuffix) && manager->finishInterruptedPlacement(record)) continue;
      manager->_downloadOperations.push_back(std::move(record));
    }
    std::sort(manager->_downloadOperations.begin(), manager->_downloadOperations.end(),
              [](const Record& a, const Record& b) { return a->priority() < b->priority(); });
    std::vector<std::string> undecodable;
    for (const auto& entry : stored)
      if (!decoded.count(entry.first)) undecodable.push_back(entry.first);
    manager->removeStrayTemporaryFiles(directory, listed, undecodable);
  } else {
    // Without the database nothing tells which temporary files are wanted: all are kept.
    platform::log("download manager: no record database; the queue will not be kept");
  }

  if (auto monitor = platform::NetworkMonitor::sharedInstance()) monitor->addDelegate(manager);
  manager->updateDownloads();
  std::weak_ptr<DFDownloadManager> weak = manager;
  manager->_retryTimer = platform::scheduledTimer(kRetryTimerInterval, [weak] {
    if (auto self = weak.lock()) self->retryTimerFired();
  });
  return manager;
}

void DFDownloadManager::removeStrayTemporaryFiles(const std::string& directory, const std::vector<std::string>& listed,
                                                  const std::vector<std::string>& undecodableIds) {
  // What an ended process left behind: files of records that are gone, and
  // half-written markers. The files of queued records stay, and so do those of
  // stored records that cannot be read now (a later version may read them).
  std::unordered_set<std::string> kept;
  kept.reserve(_downloadOperations.size() + 2 * undecodableIds.size());
  for (const auto& record : _downloadOperations) kept.insert(record->uniqueId());
  for (const auto& uniqueId : undecodableIds) {
    platform::log("download manager: keeping the temporary files of undecodable record " + uniqueId);
    kept.insert(uniqueId);
    kept.insert(uniqueId + kPlacementMarkerSuffix);
  }
  auto files = platform::FileManager::defaultManager();
  for (const auto& name : listed)
    if (!kept.count(name)) files->removeItemAtPath(directory + name);
}

void DFDownloadManager::addDelegate(const std::shared_ptr<DFDownloadManagerDelegate>& delegate) {
  DCHECK_ON_MAIN();
  _delegates.addObject(delegate);
}

void DFDownloadManager::removeDelegate(const DFDownloadManagerDelegate* delegate) {
  DCHECK_ON_MAIN();
  _delegates.removeObject(delegate);
}

std::vector<DFDownloadManager::Record> DFDownloadManager::downloadOperations() const {
  DCHECK_ON_MAIN();
  return _downloadOperations;
}

bool DFDownloadManager::downloadsInProgress() const {
  DCHECK_ON_MAIN();
  return !_downloadOperationDataLoaders.empty();
}

bool DFDownloadManager::downloadOperationInProgress(const Record& downloadOperation) const {
  DCHECK_ON_MAIN();
  return std::any_of(_downloadOperationDataLoaders.begin(), _downloadOperationDataLoaders.end(),
                     [&](const auto& loader) { return loader->downloadOperation() == downloadOperation; });
}

void DFDownloadManager::storeDownloadOperation(const Record& downloadOperation) {
  if (!_database) return;
  // The version is read first: a change made while the archive is written counts as unsaved.
  downloadOperation->setStoredArchiveVersion(downloadOperation->archiveVersion());
  _database->updateItemWithUniqueId(downloadOperation->uniqueId(), *downloadOperation);
}

void DFDownloadManager::updateDownloadOperation(const Record& downloadOperation) {
  DCHECK_ON_MAIN();
  // Progress that moves no stored field (a playlist's growing file) leaves the
  // stored archive as it is: writing the same bytes again per packet is waste.
  if (downloadOperation->storedArchiveVersion() != downloadOperation->archiveVersion())
    storeDownloadOperation(downloadOperation);
  notifyDelegates([&](DFDownloadManagerDelegate& d) { d.downloadOperationChanged(*this, downloadOperation); });
}

int64_t DFDownloadManager::maxActiveDownloadCount() const {
  auto defaults = platform::UserDefaults::standardUserDefaults();
  return defaults->integerForKey(kMaxActiveDownloadCountPreference).value_or(3);
}

bool DFDownloadManager::useCellularData() const {
  auto defaults = platform::UserDefaults::standardUserDefaults();
  return defaults->boolForKey(kUseCellularDataPreference).value_or(true);
}

bool DFDownloadManager::downloadsPermitted() const {
  auto defaults = platform::UserDefaults::standardUserDefaults();
  return defaults->boolForKey(kDownloadsPermittedPreference).value_or(true);
}

void DFDownloadManager::setMaxActiveDownloadCount(int64_t count) {
  DCHECK_ON_MAIN();
  auto defaults = platform::UserDefaults::standardUserDefaults();
  defaults->setInteger(count, kMaxActiveDownloadCountPreference);
  defaults->synchronize();
  updateDownloads();
}

void DFDownloadManager::setUseCellularData(bool use) {
  DCHECK_ON_MAIN();
  auto defaults = platform::UserDefaults::standardUserDefaults();
  defaults->setBool(use, kUseCellularDataPreference);
  defaults->synchronize();
  updateDownloads();
}

void DFDownloadManager::setDownloadsPermitted(bool permitted) {
  DCHECK_ON_MAIN();
  auto defaults = platform::UserDefaults::standardUserDefaults();
  defaults->setBool(permitted, kDownloadsPermittedPreference);
  defaults->synchronize();
  updateDownloads();
}

void DFDownloadManager::networkManagerInternetConnectionStatusChanged(platform::NetworkMonitor&) {
  DCHECK_ON_MAIN();
  updateDownloads();
}
