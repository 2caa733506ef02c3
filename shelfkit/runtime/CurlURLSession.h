// URL sessions with download tasks over the shared libcurl engine.
//
// Read-ahead: when a session's tasks walk a file in consecutive bounded byte
// ranges, the session requests the following ranges of the same length before
// they are asked for, on further connections, and hands each answer to the
// task later created for that very range. Only answers that came back exactly
// as asked (206, the range asked for, the whole body) are handed over; any
// other one is dropped and stops the read-ahead, so the task created for that
// range asks the server itself and sees its own answer. The number of ranges
// in flight follows the measured round trip and rate (see readAheadDepth).
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "module/platform/URLSession.h"
#include "shelfkit/runtime/CurlEngine.h"
#include "shelfkit/runtime/ReadAhead.h"

namespace shelfkit {

class CurlDownloadTask;

class CurlURLSession : public platform::URLSession, public std::enable_shared_from_this<CurlURLSession> {
 public:
  // At most this many ranges ahead (each at most 16 MiB, in practice the
  // loader's 1 MiB chunks): memory and connections to one server stay bounded.
  // 1 MiB ranges over a 50 ms, 1 Gbit/s link need about 24 in flight to keep
  // it full; more bought nothing there.
  static constexpr size_t kMaxReadAheadDepth = 24;

  // Bodies of open-ended requests are written to files in `downloadDirectory`;
  // bounded ranges are kept in memory.
  CurlURLSession(platform::URLSessionConfiguration configuration,
                 std::weak_ptr<platform::URLSessionDownloadDelegate> delegate,
                 std::shared_ptr<platform::OperationQueue> delegateQueue, std::string downloadDirectory,
                 size_t maxReadAheadDepth = kMaxReadAheadDepth);

  const platform::URLSessionConfiguration& configuration() const override { return configuration_; }
  std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithRequest(const platform::URLRequest& request) override;
  void invalidateAndCancel() override;

  // Runs `call` with the delegate on the delegate queue, if the delegate still
  // exists, then `then` in any case.
  void deliver(std::function<void(platform::URLSessionDownloadDelegate&, platform::URLSession&)> call,
               std::function<void()> then = {});
  const std::string& downloadDirectory() const { return downloadDirectory_; }
  bool invalidated() const;

  // From the tasks, on the engine thread (no task lock held).
  void rangeCompleted(uint64_t total);
  void transferMeasured(std::chrono::duration<double> roundTrip, double bytesPerSecond);
  void prefetchDropped(const CurlDownloadTask* task);
  void prefetchTransferEnded();
  // True when `task` must wait for the read-ahead under way; it is started
  // with startDeferred() once that has ended.
  bool deferStart(const std::shared_ptr<CurlDownloadTask>& task);

  // Ranges requested ahead and not yet handed to a task (for tests).
  size_t prefetchesInFlight() const;

 private:
  // Starts read-ahead requests until the depth is reached. REQUIRES: mutex_ held.
  void topUpLocked();

  const platform::URLSessionConfiguration configuration_;
  const std::weak_ptr<platform::URLSessionDownloadDelegate> delegate_;
  const std::shared_ptr<platform::OperationQueue> delegateQueue_;
  const std::string downloadDirectory_;
  const size_t maxReadAheadDepth_;

  mutable std::mutex mutex_;  // guards everything below
  std::vector<std::weak_ptr<CurlDownloadTask>> tasks_;
  bool invalidated_ = false;
  // The walk: the last range asked for, its request, and what the server said of the total.
  std::optional<platform::URLRequest> walkRequest_;
  std::optional<ByteRange> walkRange_;
  uint64_t walkNext_ = 0;   // first byte not yet asked for or requested ahead
  uint64_t walkTotal_ = 0;  // 0 = not known yet
  bool readAheadStopped_ = false;
  std::deque<std::shared_ptr<CurlDownloadTask>> prefetches_;  // in range order
  size_t prefetchTransfers_ = 0;  // read-ahead requests on the wire
  std::vector<std::shared_ptr<CurlDownloadTask>> deferred_;
  // Smoothed measurements of the last transfers.
  double roundTripSeconds_ = 0;
  double bytesPerSecond_ = 0;
};

class CurlDownloadTask : public platform::URLSessionTask, public std::enable_shared_from_this<CurlDownloadTask> {
 public:
  // `prefetch`: a read-ahead request for exactly that range, owned by the
  // session until adopt() hands it to a caller.
  CurlDownloadTask(std::shared_ptr<CurlURLSession> session, platform::URLRequest request, uint64_t identifier,
                   std::optional<ByteRange> prefetch = std::nullopt);
  ~CurlDownloadTask() override;

  void resume() override;
  void cancel() override;
  std::optional<platform::HTTPURLResponse> response() const override;
  uint64_t taskIdentifier() const override { return identifier_; }
  int64_t countOfBytesReceived() const override { return written_; }

  const platform::URLRequest& request() const { return request_; }
  const std::optional<ByteRange>& range() const { return range_; }
  // Starts a read-ahead request; what arrives is kept until adopt(). False
  // when it could not start.
  bool startPrefetch();
  // Starts the request resume() put off, or ends the task if it was cancelled meanwhile.
  void startDeferred();
  // Hands a read-ahead task to the caller of downloadTaskWithRequest: from its
  // resume() on it reports like any task. False when its answer was dropped.
  bool adopt();

 private:
  enum class State { Suspended, Running, Completed };
  bool openBody();
  void startTransfer();
  bool onResponse(const platform::HTTPURLResponse& response);
  bool onBody(const char* data, size_t length);
  // Writes a body that answers exactly the range asked for at its place in
  // the request's destination file.
  bool writeInPlace(const char* data, size_t length);
  bool writeToBody(const char* data, size_t length);
  // Opens the destination file when the answer qualifies. REQUIRES: mutex_ held.
  void openDestinationLocked();
  void closeDestination();
  void onComplete(CURLcode result, bool cancelled);
  void reportProgress(bool final = false);
  // The total size when the response is a 206 for exactly the range asked for. REQUIRES: mutex_ held.
  std::optional<uint64_t> exactTotalLocked() const;
  void deliverBody();
  // Empties the body and what was learned of the answer, to ask again. REQUIRES: mutex_ held.
  bool emptyBodyLocked();
  void closeBody();
  void completeWithError(std::optional<std::string> error);

  const std::shared_ptr<CurlURLSession> session_;
  const platform::URLRequest request_;
  const uint64_t identifier_;
  const std::optional<ByteRange> range_;  // a bounded request's range
  const bool prefetched_;                 // started by the session as read-ahead

  mutable std::mutex mutex_;  // guards the members up to response_
  State state_ = State::Suspended;
  std::atomic<bool> owned_;   // false for a read-ahead task not yet adopted
  bool dropped_ = false;      // a read-ahead answer that will not be handed over
  bool heldUntilResume_ = false;  // adopted after it completed: reports at resume()
  bool cancelRequested_ = false;
  bool retried_ = false;          // a read-ahead request sent again for its owner
  int placeFd_ = -1;  // the destination file while the body is written in place (writes hold mutex_)
  int64_t reported_ = 0;  // bytes the delegate has been told of
  CurlEngine::TransferId transfer_ = 0;
  std::optional<platform::HTTPURLResponse> response_;

  // Engine thread only, while running.
  int fd_ = -1;
  bool inMemory_ = false;    // fd_ is a memory file, path_ names it through /proc
  bool overflowed_ = false;  // the body went past the range asked for
  bool countedEnd_ = false;  // a read-ahead transfer's end was told to the session
  std::string path_;
  std::atomic<int64_t> written_{0};
  int64_t expected_ = -1;
  std::chrono::steady_clock::time_point started_{}, headAt_{}, lastReport_{};
};

}  // namespace shelfkit
