#include "module/transfer/DFDownloadOperationBasicDataLoader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "module/core/DFLocalizedString.h"
#include "module/platform/FileCopy.h"
#include "module/platform/FileManager.h"
#include "module/platform/MainQueue.h"
#include "module/platform/UUID.h"
#include "module/probe/DFContentRange.h"

namespace {

int64_t fileSizeOrZero(const std::string& path) {
  return platform::FileManager::defaultManager()->fileSizeAtPath(path).value_or(0);
}

}  // namespace

std::shared_ptr<DFDownloadOperationBasicDataLoader> DFDownloadOperationBasicDataLoader::initWithDownloadOperation(
    std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
    std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate) {
  auto loader = std::make_shared<DFDownloadOperationBasicDataLoader>(Passkey{}, std::move(downloadOperation),
                                                                     std::move(tmpFilePath), std::move(delegate));
  loader->start();
  return loader;
}

DFDownloadOperationBasicDataLoader::DFDownloadOperationBasicDataLoader(
    Passkey, std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
    std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate)
    : DFDownloadOperationDataLoader(std::move(downloadOperation), std::move(tmpFilePath), std::move(delegate)) {}

DFDownloadOperationBasicDataLoader::~DFDownloadOperationBasicDataLoader() { cancel(); }

void DFDownloadOperationBasicDataLoader::start() {
  // A transfer that ended before its file could be placed (a full disk, say)
  // needs no request: it completes again at once.
  const auto& record = downloadOperation();
  if (record->size() != 0 && record->position() == record->size() && fileSizeOrZero(tmpFilePath()) == record->size()) {
    record->setActualPosition(record->position());
    downloadOperationCompleteWithError(std::nullopt);
    return;
  }
  reconcileTemporaryFile();
  auto configuration = platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(
      platform::newUUIDString());
  configuration.networkServiceType = platform::NetworkServiceType::Background;
  _operationQueue = platform::OperationQueue::create(1);
  _session = platform::URLSession::sessionWithConfiguration(configuration, weak_from_this(), _operationQueue);
  createNextTask();
}

// Makes the temporary file agree with what the next request continues. A file
// fetched in one request from its start begins from an empty file. Otherwise
// bytes past position (appended before a crash could save the new position)
// are cut off, and a shorter file (data lost with the disk cache) moves
// position back.
void DFDownloadOperationBasicDataLoader::reconcileTemporaryFile() {
  const auto& record = downloadOperation();
  struct stat st;
  const int64_t length = ::stat(tmpFilePath().c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : 0;
  if (nextChunkRange().location == 0) {
    if (length > 0) ::unlink(tmpFilePath().c_str());
    record->setPosition(0);
  } else if (length > record->position()) {
    if (::truncate(tmpFilePath().c_str(), record->position()) != 0) {
      record->setPosition(0);
      ::unlink(tmpFilePath().c_str());
    }
  } else if (length < record->position()) {
    record->setPosition(length);
  }
  record->setActualPosition(record->position());
}

DFDownloadOperationBasicDataLoader::Range DFDownloadOperationBasicDataLoader::nextChunkRange() const {
  const auto& record = downloadOperation();
  if (!record->partialDownloading()) return {0, 0};
  const int64_t size = record->size();
  if (size <= kSmallFileLimit) return {0, static_cast<uint64_t>(size)};
  const uint64_t chunk = static_cast<uint64_t>(std::ceil(static_cast<float>(size) / kChunkDivisor));
  const uint64_t position = static_cast<uint64_t>(record->position());
  const uint64_t left = static_cast<uint64_t>(size) - position;
  return {position, std::min({chunk, kChunkCap, left})};
}

void DFDownloadOperationBasicDataLoader::createNextTask() {
  _currentRange = nextChunkRange();
  platform::URLRequest request(downloadOperation()->url());
  std::string range = "bytes=" + std::to_string(static_cast<long long>(_currentRange.location)) + "-";
  if (_currentRange.length != 0)
    range += std::to_string(static_cast<long long>(_currentRange.location + _currentRange.length - 1));
  request.setValue(range, "Range");
  // The engine may write an exact answer straight to its place in the
  // temporary file; the chunk is then appended by moving position alone.
  if (downloadOperation()->partialDownloading()) request.rangeDestinationPath = tmpFilePath();
  auto task = _session->downloadTaskWithRequest(request);
  {
    std::lock_guard lock(_taskLock);
    _task = task;
  }
  task->resume();
}

bool DFDownloadOperationBasicDataLoader::checkRange(const std::optional<platform::HTTPURLResponse>& response) const {
  if (!response) return false;
  auto header = response->valueForHTTPHeaderField("Content-Range");
  if (!header) return false;
  auto range = DFParseContentRange(*header);
  if (!range) return false;
  return static_cast<uint64_t>(range->first) == _currentRange.location &&
         static_cast<uint64_t>(range->last) == _currentRange.location + _currentRange.length - 1;
}

bool DFDownloadOperationBasicDataLoader::addChunk(const std::string& path) {
  int in = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return false;
  bool added = false;
  // Not O_APPEND: the kernel copies only into a file opened without it. The
  // chunk goes at position: ranges read ahead may already lie past it.
  int out = ::open(tmpFilePath().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (out >= 0) {
    const off_t start = ::lseek(out, downloadOperation()->position(), SEEK_SET);
    if (start >= 0 && platform::copyFileContents(in, out)) {
      added = true;
      const off_t end = ::lseek(out, 0, SEEK_CUR);
      if (end > start) platform::startWriteback(out, start, end - start);
    }
    ::close(out);
  }
  ::close(in);
  return added;
}

void DFDownloadOperationBasicDataLoader::didWriteData(platform::URLSession&, platform::URLSessionDownloadTask&,
                                                      int64_t, int64_t totalBytesWritten, int64_t) {
  const auto& record = downloadOperation();
  record->setActualPosition(record->position() + totalBytesWritten);
  downloadOperationUpdated();
}

void DFDownloadOperationBasicDataLoader::didFinishDownloadingToURL(platform::URLSession&,
                                                                   platform::URLSessionDownloadTask& downloadTask,
                                                                   const std::string& location) {
  const auto& record = downloadOperation();
  const bool inPlace = location == tmpFilePath();
  const int64_t fileSize = inPlace ? downloadTask.countOfBytesReceived() : fileSizeOrZero(location);
  if (!record->partialDownloading()) {
    platform::FileManager::defaultManager()->moveItemAtPath(location, tmpFilePath());
    record->setPosition(fileSize);
    record->setSize(fileSize);
    downloadOperationCompleteWithError(std::nullopt);
    return;
  }
  if (checkRange(downloadTask.response()) && static_cast<uint64_t>(fileSize) == _currentRange.length &&
      (inPlace || addChunk(location))) {
    const int64_t position = record->position() + fileSize;
    record->setActualPosition(position);
    record->setPosition(position);
    if (position == record->size()) {
      downloadOperationCompleteWithError(std::nullopt);
      return;
    }
    createNextTask();
    downloadOperationUpdated();
  } else {
    record->setActualPosition(record->position());
    downloadOperationCompleteWithError(DFLocalizedString("Failed"));
  }
}

void DFDownloadOperationBasicDataLoader::didCompleteWithError(platform::URLSession&, platform::URLSessionTask&,
                                                              const std::optional<std::string>& error) {
  if (error) downloadOperationCompleteWithError(error);
}

void DFDownloadOperationBasicDataLoader::downloadOperationUpdated() {
  std::weak_ptr<DFDownloadOperationBasicDataLoader> weak = weak_from_this();
  platform::dispatchAsyncMain([weak] {
    auto self = weak.lock();
    if (!self || self->cancelled()) return;
    if (auto delegate = self->delegate()) delegate->downloadOperationDataLoaderDownloadOperationUpdated(*self);
    self->performCompletionHandler();
  });
}

void DFDownloadOperationBasicDataLoader::downloadOperationCompleteWithError(const std::optional<std::string>& error) {
  if (error) stopAndTrim();
  std::weak_ptr<DFDownloadOperationBasicDataLoader> weak = weak_from_this();
  platform::dispatchAsyncMain([weak, error] {
    auto self = weak.lock();
    if (!self || self->cancelled()) return;
    if (auto delegate = self->delegate()) delegate->downloadOperationDataLoader(*self, error);
    self->performCompletionHandler();
  });
}

std::optional<std::string> DFDownloadOperationBasicDataLoader::URLSessionIdentifier() const {
  return _session ? std::optional(_session->configuration().identifier) : std::nullopt;
}

void DFDownloadOperationBasicDataLoader::handleEventsForURLSession(std::function<void()> completionHandler) {
  _completionHandler = std::move(completionHandler);
}

void DFDownloadOperationBasicDataLoader::performCompletionHandler() {
  auto handler = std::move(_completionHandler);
  _completionHandler = nullptr;
  if (handler) handler();
}

void DFDownloadOperationBasicDataLoader::cancel() {
  DFDownloadOperationDataLoader::cancel();
  std::shared_ptr<platform::URLSessionTask> task;
  {
    std::lock_guard lock(_taskLock);
    task = _task;
  }
  if (task) task->cancel();
  if (_session) _session->invalidateAndCancel();
  // From a session callback (the last owner let go there) the queue is already ours.
  if (_operationQueue && !_operationQueue->isCurrent()) _operationQueue->waitUntilAllOperationsAreFinished();
  const auto& record = downloadOperation();
  record->setActualPosition(record->position());
  stopAndTrim();
}

// Ranges written ahead in place are not part of the file yet. Once the
// session's tasks are cancelled nothing writes any more, and the file is cut
// back to position; one that cannot be cut is cut by the next reconcile.
void DFDownloadOperationBasicDataLoader::stopAndTrim() {
  if (!_session || !downloadOperation()->partialDownloading()) return;
  _session->invalidateAndCancel();
  const int64_t position = downloadOperation()->position();
  struct stat st;
  if (::stat(tmpFilePath().c_str(), &st) != 0 || st.st_size <= position) return;
  if (::truncate(tmpFilePath().c_str(), position) != 0) return;  // the next reconcile cuts it
}
