#include "module/platform/OperationQueue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <thread>

#include "module/platform/Log.h"

namespace platform {
namespace {

// An elastic pool: a few workers (one per core) take short tasks in order.
// When tasks wait and no task has finished for a while (every worker is
// blocked in a long operation), a watcher starts another worker, so a blocking
// operation cannot starve the others while a burst of short tasks adds no
// threads. Workers idle for a while exit, down to the base count.
class WorkerPool {
 public:
  static WorkerPool& shared() {
    static WorkerPool* pool = new WorkerPool;  // never destroyed: workers may outlive static destruction
    return *pool;
  }

  void submit(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    queued_.store(tasks_.size(), std::memory_order_release);
    if (threads_ < base_) spawn();
    // A spinning worker takes the task without being woken.
    if (spinning_ == 0) wake_.notify_one();
    if (!watching_) {
      watching_ = true;
      std::thread([this] { watch(); }).detach();
    }
    watcherWake_.notify_one();
  }

  std::size_t threadCount() {
    std::lock_guard lock(mutex_);
    return threads_;
  }

 private:
  static constexpr std::size_t kMaxThreads = 64;
  static constexpr auto kStall = std::chrono::milliseconds(20);
  static constexpr auto kIdleExit = std::chrono::seconds(10);
  static constexpr auto kSpin = std::chrono::microseconds(50);

  WorkerPool() : base_(std::max(2u, std::thread::hardware_concurrency())) {}

  void spawn() {  // REQUIRES: mutex_ held
    ++threads_;
    std::thread([this] { work(); }).detach();
  }

  void watch() {
    std::unique_lock lock(mutex_);
    for (;;) {
      watcherWake_.wait(lock, [this] { return !tasks_.empty(); });
      const std::size_t finished = finished_;
      lock.unlock();
      std::this_thread::sleep_for(kStall);
      lock.lock();
      if (!tasks_.empty() && finished_ == finished && threads_ < kMaxThreads) spawn();
    }
  }

  // Chains of short operations hand work back and forth between threads; a
  // worker that just finished one waits briefly before sleeping, which saves
  // the wake-up of a sleeping thread for the next link.
  void spinForWork(std::unique_lock<std::mutex>& lock) {
    if (!tasks_.empty()) return;
    ++spinning_;
    lock.unlock();
    const auto until = std::chrono::steady_clock::now() + kSpin;
    while (queued_.load(std::memory_order_acquire) == 0 && std::chrono::steady_clock::now() < until) {
    }
    lock.lock();
    --spinning_;  // the caller checks tasks_ under the lock before it sleeps
  }

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      spinForWork(lock);
      ++idle_;
      bool woke = wake_.wait_for(lock, kIdleExit, [this] { return !tasks_.empty(); });
      --idle_;
      if (!woke && threads_ > base_) {
        --threads_;
        return;
      }
      if (tasks_.empty()) continue;
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      queued_.store(tasks_.size(), std::memory_order_release);
      lock.unlock();
      task();
      task = nullptr;
      lock.lock();
      ++finished_;
    }
  }

  const std::size_t base_;
  std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::condition_variable watcherWake_;
  std::deque<std::function<void()>> tasks_;
  std::size_t threads_ = 0;
  std::size_t idle_ = 0;
  std::size_t finished_ = 0;
  std::size_t spinning_ = 0;
  bool watching_ = false;
  std::atomic<std::size_t> queued_{0};  // tasks_.size(), readable without the lock
};

thread_local const OperationQueue* tCurrentQueue = nullptr;

}  // namespace

std::shared_ptr<OperationQueue> OperationQueue::create(std::size_t maxConcurrentOperationCount) {
  return std::shared_ptr<OperationQueue>(new OperationQueue(maxConcurrentOperationCount ? maxConcurrentOperationCount : 1));
}

OperationQueue::OperationQueue(std::size_t maxConcurrent) : maxConcurrent_(maxConcurrent) {}

OperationQueue::~OperationQueue() = default;

void OperationQueue::addOperation(std::function<void()> operation) {
  std::lock_guard lock(mutex_);
  pending_.push_back(std::move(operation));
  if (running_ < maxConcurrent_) {
    ++running_;
    WorkerPool::shared().submit([self = shared_from_this()] { self->drain(); });
  }
}

// Runs one operation, then gives the worker back to the pool, so that a busy
// queue cannot hold a worker while other queues wait. Each drain task holds
// one of the queue's slots; when another slot already took the operation this
// one was queued for, it gives its slot back.
void OperationQueue::drain() {
  std::function<void()> operation;
  {
    std::lock_guard lock(mutex_);
    if (pending_.empty()) {
      if (--running_ == 0) idle_.notify_all();
      return;
    }
    operation = std::move(pending_.front());
    pending_.pop_front();
  }
  const OperationQueue* outer = tCurrentQueue;
  tCurrentQueue = this;
  try {
    operation();
  } catch (const std::exception& e) {
    log(std::string("operation queue: an operation threw: ") + e.what());
  } catch (...) {
    log("operation queue: an operation threw");
  }
  operation = nullptr;  // release captures before waiters wake
  tCurrentQueue = outer;

  std::lock_guard lock(mutex_);
  if (!pending_.empty()) {
    WorkerPool::shared().submit([self = shared_from_this()] { self->drain(); });
    return;
  }
  --running_;
  if (running_ == 0) idle_.notify_all();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return pending_.empty() && running_ == 0; });
}

bool OperationQueue::isCurrent() const { return tCurrentQueue == this; }

std::size_t OperationQueue::operationCount() const {
  std::lock_guard lock(mutex_);
  return pending_.size() + running_;
}

std::size_t operationPoolThreadCount() { return WorkerPool::shared().threadCount(); }

}  // namespace platform
