#include "shelfkit/runtime/BufferedFetch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "module/platform/FileManager.h"
#include "module/platform/URLSession.h"
#include "shelfkit/runtime/ReadAhead.h"

namespace shelfkit {
namespace {

// Bodies shorter than this say little about the rate.
constexpr int64_t kMinMeasuredBytes = 64 * 1024;

}  // namespace

bool MemoryBudget::take(size_t bytes) {
  size_t used = used_.load();
  do {
    if (used + bytes > cap_) return false;
  } while (!used_.compare_exchange_weak(used, used + bytes));
  return true;
}

void MemoryBudget::give(size_t bytes) { used_ -= bytes; }

BufferedFetch::BufferedFetch(platform::URL url, int64_t offset, std::optional<int64_t> endOffset,
                             std::shared_ptr<MemoryBudget> budget, Spill spill)
    : url_(std::move(url)),
      offset_(offset),
      endOffset_(endOffset),
      budget_(std::move(budget)),
      spill_(std::move(spill)) {}

BufferedFetch::~BufferedFetch() {
  budget_->give(blocks_.size() * kBlock);
  if (spillFd_ >= 0) ::close(spillFd_);
}

void BufferedFetch::start() {
  std::lock_guard lock(mutex_);
  if (state_ != State::Idle || cancelRequested_) return;
  if (endOffset_ && *endOffset_ <= offset_) {
    length_ = 0;
    state_ = State::Done;
    changed_.notify_all();
    return;
  }
  state_ = State::Running;
  startAttemptLocked();
}

void BufferedFetch::startAttemptLocked() {
  ++attempts_;
  skip_ = 0;
  attemptFailed_ = false;
  full_ = false;
  started_ = std::chrono::steady_clock::now();
  headAt_ = {};
  platform::URLRequest request(url_);
  const int64_t from = offset_ + received_;
  if (from > 0 || endOffset_) {
    request.setValue("bytes=" + std::to_string(from) + "-" + (endOffset_ ? std::to_string(*endOffset_ - 1) : ""),
                     "Range");
  }
  auto self = shared_from_this();  // the engine keeps the fetch alive until the request ends
  CurlEngine::Callbacks callbacks;
  callbacks.onResponse = [self](const platform::HTTPURLResponse& response) { return self->onResponse(response); };
  callbacks.onBody = [self](const char* data, size_t length) { return self->onBody(data, length); };
  callbacks.onComplete = [self](CURLcode result, bool cancelled) { self->onComplete(result, cancelled); };
  transfer_ = CurlEngine::shared().start(request, std::move(callbacks));
}

bool BufferedFetch::onResponse(const platform::HTTPURLResponse& response) {
  std::lock_guard lock(mutex_);
  headAt_ = std::chrono::steady_clock::now();
  const int64_t from = offset_ + received_;
  std::optional<int64_t> total;
  if (response.statusCode() == 206) {
    auto value = response.valueForHTTPHeaderField("Content-Range");
    auto contentRange = value ? parseExactContentRange(*value) : std::nullopt;
    if (!contentRange || static_cast<int64_t>(contentRange->range.first) != from) {
      attemptFailed_ = true;
      return false;
    }
    total = static_cast<int64_t>(contentRange->total);
  } else if (response.statusCode() == 200) {
    skip_ = from;  // the server sent the whole resource
    if (response.expectedContentLength() >= 0) total = response.expectedContentLength();
  } else {
    attemptFailed_ = true;
    return false;
  }
  if (!length_ && total) length_ = std::max<int64_t>(0, std::min(endOffset_.value_or(*total), *total) - offset_);
  if (!length_ && endOffset_ && response.statusCode() == 206) length_ = *endOffset_ - offset_;
  headSeen_ = true;
  changed_.notify_all();
  return true;
}

bool BufferedFetch::onBody(const char* data, size_t length) {
  std::lock_guard lock(mutex_);
  if (attemptFailed_ || cancelRequested_) return false;
  if (skip_ > 0) {
    const size_t n = static_cast<size_t>(std::min<int64_t>(skip_, static_cast<int64_t>(length)));
    data += n;
    length -= n;
    skip_ -= static_cast<int64_t>(n);
  }
  bool more = true;
  const std::optional<int64_t> wanted = length_ ? length_ : endOffset_ ? std::optional(*endOffset_ - offset_)
                                                                       : std::nullopt;
  if (wanted && received_ + static_cast<int64_t>(length) >= *wanted) {
    full_ = true;
    if (received_ + static_cast<int64_t>(length) > *wanted) {
      // Whatever comes past the range is not ours: stop reading there (and
      // lose the connection). A body that ends where the range does keeps it.
      length = static_cast<size_t>(*wanted - received_);
      more = false;
    }
  }
  if (length > 0) {
    if (!appendLocked(data, length)) return false;
    changed_.notify_all();
  }
  return more;
}

bool BufferedFetch::appendLocked(const char* data, size_t length) {
  while (length > 0 && spillFd_ < 0) {
    const size_t inBlock = static_cast<size_t>(memoryBytes_ % kBlock);
    if (inBlock == 0 && static_cast<size_t>(memoryBytes_) == blocks_.size() * kBlock) {
      if (!budget_->take(kBlock)) {
        // Memory is spent: the rest of this body goes to a file beside the download.
        platform::FileManager::defaultManager()->createDirectoryAtPath(spill_.directory);
        std::string path = spill_.directory + "/" + spill_.prefix + "-XXXXXX";
        spillFd_ = ::mkostemp(path.data(), O_CLOEXEC);
        if (spillFd_ < 0) return false;
        ::unlink(path.c_str());
        break;
      }
      blocks_.push_back(std::make_unique<char[]>(kBlock));
    }
    const size_t n = std::min(length, kBlock - inBlock);
    std::memcpy(blocks_.back().get() + inBlock, data, n);
    data += n;
    length -= n;
    memoryBytes_ += static_cast<int64_t>(n);
    received_ += static_cast<int64_t>(n);
  }
  while (length > 0) {
    ssize_t n = ::pwrite(spillFd_, data, length, received_ - memoryBytes_);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
    received_ += n;
  }
  return true;
}

void BufferedFetch::onComplete(CURLcode result, bool cancelled) {
  std::lock_guard lock(mutex_);
  if (cancelled || cancelRequested_) {
    state_ = State::Failed;
    changed_.notify_all();
    return;
  }
  bool ok = (result == CURLE_OK || (full_ && result == CURLE_WRITE_ERROR)) && !attemptFailed_ &&
            headAt_ != std::chrono::steady_clock::time_point{};
  if (ok && length_ && received_ < *length_) ok = false;  // a short body
  if (ok) {
    if (!length_) length_ = received_;
    const auto now = std::chrono::steady_clock::now();
    roundTrip_ = headAt_ - started_;
    const std::chrono::duration<double> body = now - headAt_;
    if (received_ >= kMinMeasuredBytes && body.count() > 0) bytesPerSecond_ = received_ / body.count();
    state_ = State::Done;
  } else if (attempts_ < 2) {
    startAttemptLocked();
  } else {
    state_ = State::Failed;
  }
  changed_.notify_all();
}

void BufferedFetch::cancel() {
  std::lock_guard lock(mutex_);
  if (cancelRequested_) return;
  cancelRequested_ = true;
  if (state_ == State::Running) CurlEngine::shared().cancel(transfer_);
  changed_.notify_all();
}

bool BufferedFetch::waitForHead() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return headSeen_ || cancelRequested_ || state_ == State::Done || state_ == State::Failed; });
  return !cancelRequested_ && state_ != State::Failed;
}

int64_t BufferedFetch::readAt(int64_t position, uint8_t* buffer, size_t length) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] {
    return cancelRequested_ || position < received_ || state_ == State::Done || state_ == State::Failed;
  });
  if (cancelRequested_) return -1;
  if (position >= received_) return state_ == State::Done ? 0 : -1;
  if (length == 0) return 0;
  if (position < memoryBytes_) {
    const size_t inBlock = static_cast<size_t>(position % kBlock);
    const size_t n = static_cast<size_t>(
        std::min<int64_t>({static_cast<int64_t>(length), static_cast<int64_t>(kBlock - inBlock), memoryBytes_ - position}));
    std::memcpy(buffer, blocks_[static_cast<size_t>(position / kBlock)].get() + inBlock, n);
    return static_cast<int64_t>(n);
  }
  const size_t n = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(length), received_ - position));
  ssize_t got;
  do {
    got = ::pread(spillFd_, buffer, n, position - memoryBytes_);
  } while (got < 0 && errno == EINTR);
  return got > 0 ? got : -1;
}

std::optional<int64_t> BufferedFetch::length() const {
  std::lock_guard lock(mutex_);
  return length_;
}

bool BufferedFetch::finished() const {
  std::lock_guard lock(mutex_);
  return state_ == State::Done || state_ == State::Failed;
}

bool BufferedFetch::failed() const {
  std::lock_guard lock(mutex_);
  return state_ == State::Failed || cancelRequested_;
}

std::optional<std::chrono::duration<double>> BufferedFetch::roundTrip() const {
  std::lock_guard lock(mutex_);
  return roundTrip_;
}

std::optional<double> BufferedFetch::bytesPerSecond() const {
  std::lock_guard lock(mutex_);
  return bytesPerSecond_;
}

}  // namespace shelfkit
