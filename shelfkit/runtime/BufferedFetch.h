// One GET of a byte range over the shared engine, received into memory while
// a shared budget allows and beyond it into an unlinked file, for readers on
// other threads that wait for the bytes they want. A request that fails (a
// transport error, an error status, a short body, a range other than the one
// asked for) is sent once more for the bytes still missing; a second failure
// fails the fetch.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "module/platform/URL.h"
#include "shelfkit/runtime/CurlEngine.h"

namespace shelfkit {

// Body bytes held in memory by a group of fetches, against one cap. Thread-safe.
class MemoryBudget {
 public:
  explicit MemoryBudget(size_t cap) : cap_(cap) {}
  // Takes `bytes` if they fit under the cap.
  bool take(size_t bytes);
  void give(size_t bytes);
  size_t used() const { return used_.load(); }

 private:
  const size_t cap_;
  std::atomic<size_t> used_{0};
};

class BufferedFetch : public std::enable_shared_from_this<BufferedFetch> {
 public:
  struct Spill {
    std::string directory;
    std::string prefix;
  };
  // Bytes [offset, endOffset) of `url`; no endOffset: to the end.
  BufferedFetch(platform::URL url, int64_t offset, std::optional<int64_t> endOffset,
                std::shared_ptr<MemoryBudget> budget, Spill spill);
  ~BufferedFetch();
  BufferedFetch(const BufferedFetch&) = delete;
  BufferedFetch& operator=(const BufferedFetch&) = delete;

  void start();
  // Ends the request; waiting readers return failure. Thread-safe, idempotent.
  void cancel();

  // Waits for the first response head that was accepted, or the failure.
  // True iff the fetch has not failed.
  bool waitForHead();
  // Copies bytes at `position` (from `offset`), waiting until some arrived.
  // Returns the count, 0 at the end, -1 when the fetch failed or was cancelled.
  int64_t readAt(int64_t position, uint8_t* buffer, size_t length);
  // The length of the range, once the server said it.
  std::optional<int64_t> length() const;

  bool finished() const;  // every byte is here, or the fetch failed
  bool failed() const;
  // For the prefetch depth: the wait for the head and the body's rate of the
  // attempt that succeeded; none before that (or for short bodies, the rate).
  std::optional<std::chrono::duration<double>> roundTrip() const;
  std::optional<double> bytesPerSecond() const;

 private:
  enum class State { Idle, Running, Done, Failed };
  void startAttemptLocked();
  bool onResponse(const platform::HTTPURLResponse& response);
  bool onBody(const char* data, size_t length);
  void onComplete(CURLcode result, bool cancelled);
  // REQUIRES: mutex_ held.
  bool appendLocked(const char* data, size_t length);

  static constexpr size_t kBlock = 256 * 1024;

  const platform::URL url_;
  const int64_t offset_;
  const std::optional<int64_t> endOffset_;
  const std::shared_ptr<MemoryBudget> budget_;
  const Spill spill_;

  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  State state_ = State::Idle;
  bool cancelRequested_ = false;
  bool headSeen_ = false;
  int attempts_ = 0;
  CurlEngine::TransferId transfer_ = 0;
  // The attempt under way.
  int64_t skip_ = 0;            // body bytes of this answer before the ones wanted
  bool attemptFailed_ = false;  // its head or body was not what was asked
  bool full_ = false;           // every byte wanted has arrived
  std::chrono::steady_clock::time_point started_{}, headAt_{};
  // What has arrived: the first memoryBytes_ in blocks_, the rest in spillFd_.
  std::vector<std::unique_ptr<char[]>> blocks_;
  int64_t memoryBytes_ = 0;
  int64_t received_ = 0;
  int spillFd_ = -1;
  std::optional<int64_t> length_;
  std::optional<std::chrono::duration<double>> roundTrip_;
  std::optional<double> bytesPerSecond_;
};

}  // namespace shelfkit
