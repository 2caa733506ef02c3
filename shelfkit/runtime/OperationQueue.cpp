#include "module/platform/OperationQueue.h"

#include <chrono>
#include <exception>
#include <thread>

#include "module/platform/Log.h"

namespace platform {
namespace {

// An elastic pool: a task waits for an idle worker, and a new worker is started
// when every worker is busy, so a blocking operation cannot starve the others.
// Workers idle for a while exit.
class WorkerPool {
 public:
  static WorkerPool& shared() {
    static WorkerPool* pool = new WorkerPool;  // never destroyed: workers may outlive static destruction
    return *pool;
  }

  void submit(std::function<void()> task) {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    if (tasks_.size() > idle_ && threads_ < kMaxThreads) {
      ++threads_;
      std::thread([this] { work(); }).detach();
    } else {
      wake_.notify_one();
    }
  }

  std::size_t threadCount() {
    std::lock_guard lock(mutex_);
    return threads_;
  }

 private:
  static constexpr std::size_t kMaxThreads = 64;
  static constexpr auto kIdleExit = std::chrono::seconds(10);

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      bool woke = wake_.wait_for(lock, kIdleExit, [this] { return !tasks_.empty(); });
      --idle_;
      if (!woke) {
        --threads_;
        return;
      }
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  std::size_t threads_ = 0;
  std::size_t idle_ = 0;
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

void OperationQueue::drain() {
  const OperationQueue* outer = tCurrentQueue;
  tCurrentQueue = this;
  std::unique_lock lock(mutex_);
  while (!pending_.empty()) {
    auto operation = std::move(pending_.front());
    pending_.pop_front();
    lock.unlock();
    try {
      operation();
    } catch (const std::exception& e) {
      log(std::string("operation queue: an operation threw: ") + e.what());
    } catch (...) {
      log("operation queue: an operation threw");
    }
    operation = nullptr;  // release captures before waiters wake
    lock.lock();
  }
  --running_;
  if (running_ == 0) idle_.notify_all();
  tCurrentQueue = outer;
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
