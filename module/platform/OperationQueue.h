// Operation queues: serial or concurrent queues of blocks over a shared,
// elastic pool of worker threads. Queues cost no thread of their own, so two
// hundred transfers with a serial queue each do not mean two hundred threads.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace platform {

class OperationQueue : public std::enable_shared_from_this<OperationQueue> {
 public:
  // maxConcurrentOperationCount 1 makes a serial queue.
  static std::shared_ptr<OperationQueue> create(std::size_t maxConcurrentOperationCount = 1);
  ~OperationQueue();

  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  // Queues `operation`; it runs on a pool thread once a slot of this queue is free.
  // Operations of a serial queue run one at a time, in the order added.
  void addOperation(std::function<void()> operation);

  // Blocks until every operation added so far (and any they add) has finished.
  // REQUIRES: not called from an operation of this queue.
  void waitUntilAllOperationsAreFinished();

  // Returns true iff the calling thread is running an operation of this queue.
  bool isCurrent() const;

  std::size_t operationCount() const;

 private:
  explicit OperationQueue(std::size_t maxConcurrent);
  void drain();

  const std::size_t maxConcurrent_;
  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable idle_;
  std::deque<std::function<void()>> pending_;
  std::size_t running_ = 0;
};

// Number of worker threads the shared pool holds right now (for tests and benchmarks).
std::size_t operationPoolThreadCount();

}  // namespace platform
