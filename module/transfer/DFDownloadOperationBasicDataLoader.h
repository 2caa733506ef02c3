// Transfers an ordinary file into the download's temporary file as a series
// of byte-range requests (chunks) on a URL session of its own. position only
// moves when a whole chunk has been appended, so a new loader resumes from the
// last complete chunk. Reports to its delegate on the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "module/platform/OperationQueue.h"
#include "module/platform/URLSession.h"
#include "module/transfer/DFDownloadOperationDataLoader.h"

class DFDownloadOperationBasicDataLoader : public DFDownloadOperationDataLoader,
                                           public platform::URLSessionDownloadDelegate,
                                           public std::enable_shared_from_this<DFDownloadOperationBasicDataLoader> {
  struct Passkey {};

 public:
  // A byte range; length 0 means from location to the end of the file.
  struct Range {
    uint64_t location = 0;
    uint64_t length = 0;
    friend bool operator==(const Range&, const Range&) = default;
  };

  static constexpr int64_t kSmallFileLimit = 102400;
  static constexpr float kChunkDivisor = 10;
  static constexpr uint64_t kChunkCap = 1048576;

  // REQUIRES: main thread. Returns the loader with its first request running.
  static std::shared_ptr<DFDownloadOperationBasicDataLoader> initWithDownloadOperation(
      std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
      std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate);

  DFDownloadOperationBasicDataLoader(Passkey, std::shared_ptr<DFDownloadOperation> downloadOperation,
                                     std::string tmpFilePath,
                                     std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate);
  ~DFDownloadOperationBasicDataLoader() override;

  // The next range to request, from the record's partialDownloading, size and position.
  Range nextChunkRange() const;
  void createNextTask();
  // True iff `response` is HTTP and its Content-Range names exactly the range in flight.
  bool checkRange(const std::optional<platform::HTTPURLResponse>& response) const;
  // Appends the finished chunk at `path` to the temporary file, at position.
  // False when it could not be written.
  bool addChunk(const std::string& path);
  // Cancels every task of the session and cuts the temporary file back to position.
  void stopAndTrim();

  void downloadOperationUpdated();
  void downloadOperationCompleteWithError(const std::optional<std::string>& error);

  std::optional<std::string> URLSessionIdentifier() const override;
  void handleEventsForURLSession(std::function<void()> completionHandler) override;
  void performCompletionHandler();

  // Stops the transfer: flag, task, session; waits until no session callback
  // runs; puts actualPosition back to position. No delegate call follows.
  void cancel() override;

  // Session callbacks, on the loader's operation queue.
  void didWriteData(platform::URLSession& session, platform::URLSessionDownloadTask& downloadTask,
                    int64_t bytesWritten, int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite) override;
  void didFinishDownloadingToURL(platform::URLSession& session, platform::URLSessionDownloadTask& downloadTask,
                                 const std::string& location) override;
  void didCompleteWithError(platform::URLSession& session, platform::URLSessionTask& task,
                            const std::optional<std::string>& error) override;

  Range currentRange() const { return _currentRange; }

 private:
  void start();
  void reconcileTemporaryFile();

  std::shared_ptr<platform::URLSession> _session;
  std::shared_ptr<platform::URLSessionTask> _task;  // guarded by _taskLock
  std::shared_ptr<platform::OperationQueue> _operationQueue;
  Range _currentRange;  // written on the operation queue (and at construction)
  std::function<void()> _completionHandler;  // main thread only
  mutable std::mutex _taskLock;
};
