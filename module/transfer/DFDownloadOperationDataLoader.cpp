#include "module/transfer/DFDownloadOperationDataLoader.h"

DFDownloadOperationDataLoader::DFDownloadOperationDataLoader(
    std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
    std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate)
    : _downloadOperation(std::move(downloadOperation)), _tmpFilePath(std::move(tmpFilePath)), _delegate(std::move(delegate)) {}

void DFDownloadOperationDataLoader::cancel() {
  std::lock_guard lock(_lock);
  _cancelled = true;
}

bool DFDownloadOperationDataLoader::cancelled() const {
  std::lock_guard lock(_lock);
  return _cancelled;
}

std::optional<std::string> DFDownloadOperationDataLoader::URLSessionIdentifier() const { return std::nullopt; }

void DFDownloadOperationDataLoader::handleEventsForURLSession(std::function<void()>) {}
