// The manager's scheduler: which transfers run, starting and stopping them,
// the retry timer, and the relay of loader reports.
#include <algorithm>

#include "module/core/DFDownloadManager.h"
#include "module/platform/Clock.h"
#include "module/transfer/DFDownloadOperationBasicDataLoader.h"
#include "module/transfer/DFDownloadOperationPlayListDataLoader.h"

namespace {

bool waitingToRetry(const DFDownloadOperation& record) {
  return record.retryDate() && platform::timeIntervalSinceNow(*record.retryDate()) > 0;
}

DFDownloadManager::DataLoaderFactory& dataLoaderFactoryForTesting() {
  static DFDownloadManager::DataLoaderFactory factory;
  return factory;
}

}  // namespace

void DFDownloadManager::setDataLoaderFactoryForTesting(DataLoaderFactory factory) {
  dataLoaderFactoryForTesting() = std::move(factory);
}

std::vector<std::shared_ptr<DFDownloadOperationInfoLoader>> DFDownloadManager::infoLoadersForTesting() const {
  std::vector<std::shared_ptr<DFDownloadOperationInfoLoader>> loaders;
  for (const auto& [holder, block] : _downloadOperationInfoLoaders)
    loaders.push_back(holder.valueAs<DFDownloadOperationInfoLoader>());
  return loaders;
}

void DFDownloadManager::updateDownloads() {
  DCHECK_ON_MAIN();
  auto monitor = platform::NetworkMonitor::sharedInstance();
  const bool internet = monitor && monitor->internetAvailable();
  const bool open = downloadsPermitted() && internet && (useCellularData() || monitor->internetViaWiFiAvailable());
  if (!open) {
    while (!_downloadOperationDataLoaders.empty())
      stopDataLoadingForDownloadOperation(_downloadOperationDataLoaders.front()->downloadOperation());
    return;
  }

  std::vector<Record> weeded;
  for (const auto& loader : _downloadOperationDataLoaders) {
    const Record& record = loader->downloadOperation();
    if (!record->active() || waitingToRetry(*record)) weeded.push_back(record);
  }
  for (const auto& record : weeded) stopDataLoadingForDownloadOperation(record);

  // Compared as unsigned: 0 lets nothing run, a negative limit behaves as unbounded.
  const auto limit = static_cast<uint64_t>(maxActiveDownloadCount());
  if (_downloadOperationDataLoaders.size() > limit) {
    std::vector<Record> surplus;
    for (size_t i = static_cast<size_t>(limit); i < _downloadOperationDataLoaders.size(); ++i)
      surplus.push_back(_downloadOperationDataLoaders[i]->downloadOperation());
    for (const auto& record : surplus) stopDataLoadingForDownloadOperation(record);
    return;
  }
  while (_downloadOperationDataLoaders.size() < limit) {
    Record next = downloadOperationForDownloading();
    if (!next) return;
    loadDataForDownloadOperation(next);
  }
}

DFDownloadManager::Record DFDownloadManager::downloadOperationForDownloading() const {
  DCHECK_ON_MAIN();
  for (const auto& record : _downloadOperations) {
    if (record->active() && !waitingToRetry(*record) && !dataLoaderForDownloadOperation(record)) return record;
  }
  return nullptr;
}

void DFDownloadManager::loadDataForDownloadOperation(const Record& downloadOperation) {
  DCHECK_ON_MAIN();
  const std::string tmpFilePath = tmpFilePathForFilename(downloadOperation->uniqueId());
  std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate = std::static_pointer_cast<DFDownloadOperationDataLoaderDelegate>(shared_from_this());
  std::shared_ptr<DFDownloadOperationDataLoader> loader;
  if (dataLoaderFactoryForTesting()) {
    loader = dataLoaderFactoryForTesting()(downloadOperation, tmpFilePath, delegate);
  } else {
    const std::string extension = platform::pathExtension(downloadOperation->filename().value_or(""));
    if (extension == "m3u" || extension == "m3u8")
      loader = DFDownloadOperationPlayListDataLoader::createPlayListDataLoaderWithDownloadOperation(
          downloadOperation, tmpFilePath, delegate);
    if (!loader)
      loader = DFDownloadOperationBasicDataLoader::initWithDownloadOperation(downloadOperation, tmpFilePath, delegate);
  }
  _downloadOperationDataLoaders.push_back(loader);
  notifyDelegates([&](DFDownloadManagerDelegate& d) { d.downloadOperationStarted(*this, downloadOperation); });
}

std::shared_ptr<DFDownloadOperationDataLoader> DFDownloadManager::dataLoaderForDownloadOperation(
    const Record& downloadOperation) const {
  DCHECK_ON_MAIN();
  for (const auto& loader : _downloadOperationDataLoaders)
    if (loader->downloadOperation() == downloadOperation) return loader;
  return nullptr;
}

void DFDownloadManager::stopDataLoadingForDownloadOperation(const Record& downloadOperation) {
  DCHECK_ON_MAIN();
  auto loader = dataLoaderForDownloadOperation(downloadOperation);
  if (!loader) return;
  loader->cancel();
  std::erase(_downloadOperationDataLoaders, loader);
  const bool completed = downloadOperation->position() != 0 && downloadOperation->position() == downloadOperation->size();
  notifyDelegates([&](DFDownloadManagerDelegate& d) {
    if (completed) {
      d.downloadOperationCompleted(*this, downloadOperation);
    } else {
      d.downloadOperationStopped(*this, downloadOperation);
    }
  });
}

void DFDownloadManager::setActive(bool active, const Record& downloadOperation) {
  DCHECK_ON_MAIN();
  if (downloadOperation->active() == active) return;
  downloadOperation->setActive(active);
  updateDownloadOperation(downloadOperation);
  updateDownloads();
}

void DFDownloadManager::retryTimerFired() {
  DCHECK_ON_MAIN();
  updateDownloads();
}

void DFDownloadManager::handleEventsForURLSession(const std::string& identifier, std::function<void()> completionHandler) {
  DCHECK_ON_MAIN();
  for (const auto& loader : _downloadOperationDataLoaders) {
    if (loader->URLSessionIdentifier() == identifier) {
      loader->handleEventsForURLSession(std::move(completionHandler));
      return;
    }
  }
}

void DFDownloadManager::downloadOperationDataLoaderDownloadOperationUpdated(DFDownloadOperationDataLoader& loader) {
  DCHECK_ON_MAIN();
  updateDownloadOperation(loader.downloadOperation());
}

void DFDownloadManager::downloadOperationDataLoader(DFDownloadOperationDataLoader& loader,
                                                    const std::optional<std::string>& completeWithError) {
  DCHECK_ON_MAIN();
  // The loader may be released by what follows; keep its record.
  Record record = loader.downloadOperation();
  completeDownloadOperation(record, completeWithError);
}
