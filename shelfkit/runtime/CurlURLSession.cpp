#include "shelfkit/runtime/CurlURLSession.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>

#include "module/platform/FileCopy.h"
#include "module/platform/FileManager.h"

namespace shelfkit {
namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(100);
// Bounded ranges up to this length are received into memory, not a file.
constexpr uint64_t kMemoryBodyLimit = 16 * 1024 * 1024;
// Transfers shorter than this say little about the rate.
constexpr int64_t kMinMeasuredBytes = 64 * 1024;
std::atomic<uint64_t> gNextTaskIdentifier{1};

double smoothed(double previous, double sample) { return previous > 0 ? (previous + sample) / 2 : sample; }

}  // namespace

CurlURLSession::CurlURLSession(platform::URLSessionConfiguration configuration,
                               std::weak_ptr<platform::URLSessionDownloadDelegate> delegate,
                               std::shared_ptr<platform::OperationQueue> delegateQueue, std::string downloadDirectory,
                               size_t maxReadAheadDepth)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      delegateQueue_(std::move(delegateQueue)),
      downloadDirectory_(std::move(downloadDirectory)),
      maxReadAheadDepth_(maxReadAheadDepth) {}

std::shared_ptr<platform::URLSessionDownloadTask> CurlURLSession::downloadTaskWithRequest(
    const platform::URLRequest& request) {
  const auto range = boundedRangeOfRequest(request);
  std::shared_ptr<CurlDownloadTask> task;
  std::lock_guard lock(mutex_);
  std::erase_if(tasks_, [](const auto& t) { return t.expired(); });
  if (!invalidated_ && range) {
    const platform::URLRequest wanted = requestForRange(request, *range);
    const bool continues = walkRequest_ && walkRange_ && range->first == walkRange_->last + 1 &&
                           sameRequest(requestForRange(*walkRequest_, *range), wanted);
    // Ranges read ahead that the walk went past are let go; the one asked
    // for is handed over unless its answer was dropped (dropped ones have
    // left the list already).
    while (!task && !prefetches_.empty() && prefetches_.front()->range()->first <= range->first) {
      auto prefetch = std::move(prefetches_.front());
      prefetches_.pop_front();
      if (sameRequest(prefetch->request(), wanted) && prefetch->adopt()) {
        task = std::move(prefetch);
      } else {
        prefetch->cancel();
      }
    }
    // What is left must lie after this range (dropped ones leave gaps);
    // read-ahead that guessed wrong is let go and not tried again here.
    if (!prefetches_.empty() && (!sameRequest(requestForRange(prefetches_.front()->request(), *range), wanted) ||
                                 prefetches_.front()->range()->first <= range->last)) {
      readAheadStopped_ = true;
      for (auto& prefetch : prefetches_) prefetch->cancel();
      prefetches_.clear();
    }
    if (!continues) walkTotal_ = 0;
    walkRequest_ = wanted;
    walkRange_ = *range;
    walkNext_ = std::max<uint64_t>(continues ? walkNext_ : 0, range->last + 1);
  }
  if (!task) {
    task = std::make_shared<CurlDownloadTask>(shared_from_this(), request, gNextTaskIdentifier++);
    tasks_.push_back(task);
  }
  if (invalidated_) {
    // An invalidated session runs nothing: the task ends as cancelled once resumed.
    task->cancel();
  } else {
    topUpLocked();
  }
  return task;
}

void CurlURLSession::topUpLocked() {
  if (invalidated_ || readAheadStopped_ || !walkRequest_ || !walkRange_ || walkTotal_ == 0) return;
  const uint64_t chunk = walkRange_->length();
  const size_t depth =
      roundTripSeconds_ > 0 && bytesPerSecond_ > 0
          ? readAheadDepth(std::chrono::duration<double>(roundTripSeconds_), bytesPerSecond_, chunk, maxReadAheadDepth_)
          : std::min<size_t>(2, maxReadAheadDepth_);
  while (prefetches_.size() < depth && walkNext_ < walkTotal_) {
    const ByteRange next{walkNext_, std::min(walkNext_ + chunk - 1, walkTotal_ - 1)};
    walkNext_ = next.last + 1;
    auto task = std::make_shared<CurlDownloadTask>(shared_from_this(), requestForRange(*walkRequest_, next),
                                                   gNextTaskIdentifier++, next);
    tasks_.push_back(task);
    prefetches_.push_back(task);
    if (task->startPrefetch()) ++prefetchTransfers_;
  }
}

void CurlURLSession::rangeCompleted(uint64_t total) {
  std::lock_guard lock(mutex_);
  if (walkTotal_ == 0) {
    walkTotal_ = total;
  } else if (walkTotal_ != total) {
    readAheadStopped_ = true;  // the file changed under us: ask for nothing more
  }
  topUpLocked();
}

void CurlURLSession::transferMeasured(std::chrono::duration<double> roundTrip, double bytesPerSecond) {
  std::lock_guard lock(mutex_);
  roundTripSeconds_ = smoothed(roundTripSeconds_, roundTrip.count());
  if (bytesPerSecond > 0) bytesPerSecond_ = smoothed(bytesPerSecond_, bytesPerSecond);
  topUpLocked();
}

void CurlURLSession::prefetchDropped(const CurlDownloadTask* task) {
  std::lock_guard lock(mutex_);
  readAheadStopped_ = true;
  std::erase_if(prefetches_, [task](const auto& p) { return p.get() == task; });
}

bool CurlURLSession::deferStart(const std::shared_ptr<CurlDownloadTask>& task) {
  std::lock_guard lock(mutex_);
  // Once read-ahead went wrong, the server may limit connections: a request of
  // the owner's waits for the read-ahead still under way, so that it goes out
  // on a connection already open rather than a new one.
  if (!readAheadStopped_ || prefetchTransfers_ == 0) return false;
  deferred_.push_back(task);
  return true;
}

void CurlURLSession::prefetchTransferEnded() {
  std::vector<std::shared_ptr<CurlDownloadTask>> ready;
  {
    std::lock_guard lock(mutex_);
    if (prefetchTransfers_ > 0) --prefetchTransfers_;
      if (prefetchTransfers_ == 0) ready.swap(deferred_);
  }
  for (auto& task : ready) task->startDeferred();
}

size_t CurlURLSession::prefetchesInFlight() const {
  std::lock_guard lock(mutex_);
  return prefetches_.size();
}

void CurlURLSession::invalidateAndCancel() {
  std::vector<std::shared_ptr<CurlDownloadTask>> live;
  {
    std::lock_guard lock(mutex_);
    invalidated_ = true;
    prefetches_.clear();
    for (auto& t : tasks_)
      if (auto task = t.lock()) live.push_back(std::move(task));
  }
  for (auto& task : live) task->cancel();
}

bool CurlURLSession::invalidated() const {
  std::lock_guard lock(mutex_);
  return invalidated_;
}

void CurlURLSession::deliver(std::function<void(platform::URLSessionDownloadDelegate&, platform::URLSession&)> call,
                             std::function<void()> then) {
  delegateQueue_->addOperation([self = shared_from_this(), call = std::move(call), then = std::move(then)] {
    if (auto delegate = self->delegate_.lock()) call(*delegate, *self);
    if (then) then();
  });
}

CurlDownloadTask::CurlDownloadTask(std::shared_ptr<CurlURLSession> session, platform::URLRequest request,
                                   uint64_t identifier, std::optional<ByteRange> prefetch)
    : session_(std::move(session)),
      request_(std::move(request)),
      identifier_(identifier),
      range_(boundedRangeOfRequest(request_)),
      prefetched_(prefetch.has_value()),
      owned_(!prefetch) {}

CurlDownloadTask::~CurlDownloadTask() {
  closeBody();
  closeDestination();
}

bool CurlDownloadTask::openBody() {
  if (range_ && range_->length() <= kMemoryBodyLimit) {
    fd_ = ::memfd_create("shelf-body", MFD_CLOEXEC);
    if (fd_ >= 0) {
      // The receiver opens it by name, as it would a file on disk.
      path_ = "/proc/self/fd/" + std::to_string(fd_);
      if (::access(path_.c_str(), R_OK) == 0) {
        inMemory_ = true;
        return true;
      }
      ::close(fd_);
      fd_ = -1;
    }
  }
  platform::FileManager::defaultManager()->createDirectoryAtPath(session_->downloadDirectory());
  path_ = session_->downloadDirectory() + "/download-XXXXXX";
  fd_ = ::mkostemp(path_.data(), O_CLOEXEC);
  if (fd_ < 0) {
    path_.clear();
    return false;
  }
  ::fchmod(fd_, 0644);  // the body may become the user's file as it is
  return true;
}

void CurlDownloadTask::closeBody() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  if (!inMemory_ && !path_.empty()) ::unlink(path_.c_str());
  path_.clear();
}

void CurlDownloadTask::resume() {
  std::unique_lock lock(mutex_);
  if (heldUntilResume_) {
    heldUntilResume_ = false;
    lock.unlock();
    deliverBody();
    return;
  }
  if (state_ == State::Running && prefetched_) {
    // Handed over while under way: say at once what has arrived so far.
    lock.unlock();
    if (written_ > 0) reportProgress();
    return;
  }
  if (state_ != State::Suspended) return;
  state_ = State::Running;
  if (!openBody()) {
    state_ = State::Completed;
    lock.unlock();
    completeWithError(localizedDescriptionForCurlError(CURLE_WRITE_ERROR));
    return;
  }
  lock.unlock();
  if (!session_->deferStart(shared_from_this())) startDeferred();
}

void CurlDownloadTask::startDeferred() {
  std::unique_lock lock(mutex_);
  if (!cancelRequested_) {
    startTransfer();
    return;
  }
  state_ = State::Completed;
  closeBody();
  lock.unlock();
  completeWithError(localizedDescriptionForCurlError(CURLE_ABORTED_BY_CALLBACK));
}

bool CurlDownloadTask::startPrefetch() {
  std::lock_guard lock(mutex_);
  if (state_ != State::Suspended) return false;
  if (!openBody()) {
    state_ = State::Completed;
    dropped_ = true;
    return false;
  }
  state_ = State::Running;
  startTransfer();
  return true;
}

bool CurlDownloadTask::adopt() {
  std::lock_guard lock(mutex_);
  if (dropped_) return false;
  owned_ = true;
  if (state_ == State::Completed) heldUntilResume_ = true;
  return true;
}

void CurlDownloadTask::startTransfer() {
  auto self = shared_from_this();  // the engine keeps the task alive until it completes
  CurlEngine::Callbacks callbacks;
  callbacks.onResponse = [self](const platform::HTTPURLResponse& response) { return self->onResponse(response); };
  callbacks.onBody = [self](const char* data, size_t length) { return self->onBody(data, length); };
  callbacks.onComplete = [self](CURLcode result, bool cancelled) { self->onComplete(result, cancelled); };
  started_ = std::chrono::steady_clock::now();
  transfer_ = CurlEngine::shared().start(request_, std::move(callbacks));
}

bool CurlDownloadTask::onResponse(const platform::HTTPURLResponse& response) {
  headAt_ = std::chrono::steady_clock::now();
  bool keep = true;
  {
    std::lock_guard lock(mutex_);
    response_ = response;
    expected_ = response.expectedContentLength();
    openDestinationLocked();
    if (prefetched_ && !retried_) {
      // Only the exact answer to the range asked for is kept (or handed over).
      keep = exactTotalLocked().has_value();
      if (!keep && !owned_) dropped_ = true;
    }
  }
  if (!keep && !owned_) session_->prefetchDropped(this);
  return keep;
}

void CurlDownloadTask::openDestinationLocked() {
  closeDestination();
  if (request_.rangeDestinationPath.empty() || !exactTotalLocked()) return;
  placeFd_ = ::open(request_.rangeDestinationPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
}

void CurlDownloadTask::closeDestination() {
  if (placeFd_ >= 0) ::close(placeFd_);
  placeFd_ = -1;
}

bool CurlDownloadTask::writeInPlace(const char* data, size_t length) {
  const uint64_t room = range_->length() - std::min<uint64_t>(range_->length(), static_cast<uint64_t>(written_));
  const size_t kept = static_cast<size_t>(std::min<uint64_t>(room, length));
  {
    // Under the lock, so that no byte reaches the file once cancel() returned.
    std::lock_guard lock(mutex_);
    if (cancelRequested_) return false;
    size_t done = 0;
    while (done < kept) {
      const ssize_t n = ::pwrite(placeFd_, data + done, kept - done,
                                 static_cast<off_t>(range_->first + static_cast<uint64_t>(written_) + done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
  }
  if (kept < length) {
    // More than was asked for: count one byte too many, so that the receiver
    // sees a body of the wrong length, and read no further.
    written_ += static_cast<int64_t>(kept) + 1;
    overflowed_ = true;
    return false;
  }
  written_ += static_cast<int64_t>(kept);
  return true;
}

bool CurlDownloadTask::onBody(const char* data, size_t length) {
  if (placeFd_ >= 0) {
    if (!writeInPlace(data, length)) return false;
  } else if (!writeToBody(data, length)) {
    return false;
  }
  auto now = std::chrono::steady_clock::now();
  if (owned_ && now - lastReport_ >= kProgressInterval) {
    lastReport_ = now;
    reportProgress();
  }
  return true;
}

bool CurlDownloadTask::writeToBody(const char* data, size_t length) {
  if (inMemory_ && range_ && static_cast<uint64_t>(written_) + length > range_->length()) {
    // More than was asked for: keep one byte too many, so that the receiver
    // sees a body of the wrong length, and read no further.
    length = static_cast<size_t>(range_->length() + 1 - static_cast<uint64_t>(written_));
    overflowed_ = true;
  }
  while (length > 0) {
    ssize_t n = ::write(fd_, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
    written_ += n;
  }
  return !overflowed_;
}

void CurlDownloadTask::reportProgress(bool final) {
  const int64_t total = written_;
  int64_t delta, expected;
  {
    std::lock_guard lock(mutex_);
    delta = total - reported_;
    // The last report says the whole length, and an empty body gets one too.
    if (final && delta == 0 && total != 0) return;
    reported_ = total;
    expected = expected_;
  }
  session_->deliver([self = shared_from_this(), delta, total, expected](platform::URLSessionDownloadDelegate& d,
                                                                         platform::URLSession& s) {
    d.didWriteData(s, *self, delta, total, expected);
  });
}

std::optional<uint64_t> CurlDownloadTask::exactTotalLocked() const {
  if (!response_ || response_->statusCode() != 206 || !range_) return std::nullopt;
  auto value = response_->valueForHTTPHeaderField("Content-Range");
  auto contentRange = value ? parseExactContentRange(*value) : std::nullopt;
  if (!contentRange || contentRange->range != *range_) return std::nullopt;
  return contentRange->total;
}

void CurlDownloadTask::onComplete(CURLcode result, bool cancelled) {
  if (overflowed_ && result == CURLE_WRITE_ERROR) result = CURLE_OK;  // stopped on purpose
  const bool ok = result == CURLE_OK && !cancelled;
  if (ok && headAt_ != std::chrono::steady_clock::time_point{}) {
    const std::chrono::duration<double> body = std::chrono::steady_clock::now() - headAt_;
    const double rate = written_ >= kMinMeasuredBytes && body.count() > 0 ? written_ / body.count() : 0;
    session_->transferMeasured(headAt_ - started_, rate);
  }
  std::optional<uint64_t> total;  // known when the answer was the whole range asked for
  bool wasOwned, tellSession = false, restart = false;
  {
    std::lock_guard lock(mutex_);
    if (ok && !overflowed_ && range_ && static_cast<uint64_t>(written_) == range_->length()) total = exactTotalLocked();
    wasOwned = owned_;
    if (!wasOwned) {
      // A read-ahead answer waits for adopt(); one that is not whole is let go.
      tellSession = !total && !dropped_ && !cancelled;
      if (!total) {
        dropped_ = true;
        closeBody();
        closeDestination();
      }
    } else if (prefetched_ && !total && !cancelled && !cancelRequested_ && !retried_ && emptyBodyLocked()) {
      // A read-ahead answer that went wrong after it was handed over: the
      // owner's request is sent once more, as its own, and that answer counts.
      tellSession = restart = retried_ = true;
    }
    if (!restart) state_ = State::Completed;
  }
  if (tellSession) session_->prefetchDropped(this);
  if (prefetched_ && !countedEnd_) {
    countedEnd_ = true;
    session_->prefetchTransferEnded();
  }
  if (restart) {
    if (!session_->deferStart(shared_from_this())) startDeferred();
    return;
  }
  // Read-ahead starts once the server has answered one range exactly.
  if (total) session_->rangeCompleted(*total);
  if (!wasOwned) return;
  if (!inMemory_ && fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  if (!ok) {
    closeBody();
    closeDestination();
    completeWithError(localizedDescriptionForCurlError(cancelled ? CURLE_ABORTED_BY_CALLBACK : result));
    return;
  }
  deliverBody();
}

bool CurlDownloadTask::emptyBodyLocked() {
  if (fd_ < 0 || ::ftruncate(fd_, 0) != 0 || ::lseek(fd_, 0, SEEK_SET) != 0) return false;
  closeDestination();
  written_ = 0;
  reported_ = 0;
  expected_ = -1;
  overflowed_ = false;
  headAt_ = {};
  response_.reset();
  return true;
}

void CurlDownloadTask::deliverBody() {
  reportProgress(/*final=*/true);
  // The body belongs to the delivery from here on: it is released once the
  // delegate has seen it.
  std::string path = std::exchange(path_, {});
  const int fd = std::exchange(fd_, -1);
  const bool inMemory = inMemory_;
  const int placeFd = std::exchange(placeFd_, -1);
  session_->deliver(
      [self = shared_from_this(), path, inPlace = placeFd >= 0](platform::URLSessionDownloadDelegate& d,
                                                                platform::URLSession& s) {
        d.didFinishDownloadingToURL(s, *self, inPlace ? self->request_.rangeDestinationPath : path);
      },
      [path, fd, inMemory, placeFd, first = range_ ? range_->first : 0, length = written_.load()] {
        if (fd >= 0) ::close(fd);
        if (!inMemory) ::unlink(path.c_str());
        if (placeFd >= 0) {
          // Bytes written in place start on their way to the disk, off the
          // engine's thread, so that the flush before placement finds little left.
          platform::startWriteback(placeFd, static_cast<int64_t>(first), length);
          ::close(placeFd);
        }
      });
  completeWithError(std::nullopt);
}

void CurlDownloadTask::cancel() {
  std::unique_lock lock(mutex_);
  cancelRequested_ = true;
  if (state_ == State::Running) {
    CurlEngine::shared().cancel(transfer_);
  } else if (state_ == State::Suspended) {
    state_ = State::Completed;
    lock.unlock();
    completeWithError(localizedDescriptionForCurlError(CURLE_ABORTED_BY_CALLBACK));
  } else if (heldUntilResume_ || !owned_) {
    // A finished read-ahead answer nobody will take.
    const bool report = heldUntilResume_;
    heldUntilResume_ = false;
    dropped_ = true;
    closeBody();
    lock.unlock();
    if (report) completeWithError(localizedDescriptionForCurlError(CURLE_ABORTED_BY_CALLBACK));
  }
}

std::optional<platform::HTTPURLResponse> CurlDownloadTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

void CurlDownloadTask::completeWithError(std::optional<std::string> error) {
  session_->deliver([self = shared_from_this(), error](platform::URLSessionDownloadDelegate& d, platform::URLSession& s) {
    d.didCompleteWithError(s, *self, error);
  });
}

}  // namespace shelfkit

namespace platform {

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(URLSessionConfiguration configuration,
                                                                 std::weak_ptr<URLSessionDownloadDelegate> delegate,
                                                                 std::shared_ptr<OperationQueue> delegateQueue) {
  std::string directory = FileManager::defaultManager()->libraryDirectory() + "/Caches/URLSessionDownloads";
  return std::make_shared<shelfkit::CurlURLSession>(std::move(configuration), std::move(delegate),
                                                    std::move(delegateQueue), std::move(directory));
}

}  // namespace platform
