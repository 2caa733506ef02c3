#include "shelfkit/runtime/MainLoop.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "module/platform/MainQueue.h"

namespace shelfkit {
namespace {

std::mutex gInstalledMutex;
std::shared_ptr<MainLoop> gInstalled;  // guarded by gInstalledMutex

}  // namespace

MainLoop::MainLoop() : work_(context_.get_executor()), mainThread_(std::this_thread::get_id()) {}

MainLoop::~MainLoop() = default;

void MainLoop::install(std::shared_ptr<MainLoop> loop) {
  std::lock_guard lock(gInstalledMutex);
  gInstalled = std::move(loop);
}

std::shared_ptr<MainLoop> MainLoop::current() {
  std::lock_guard lock(gInstalledMutex);
  return gInstalled;
}

void MainLoop::run() {
  stopRequested_ = false;
  runUntil([this] { return stopRequested_.load(); }, std::chrono::milliseconds::max());
}

void MainLoop::stop() {
  stopRequested_ = true;
  context_.stop();
}

bool MainLoop::runUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  mainThread_ = std::this_thread::get_id();
  const bool forever = timeout == std::chrono::milliseconds::max();
  const auto deadline = forever ? std::chrono::steady_clock::time_point::max() : std::chrono::steady_clock::now() + timeout;
  // After handling work, wait a few microseconds for more before sleeping:
  // replies from worker threads (a playlist's next packet, say) often follow
  // at once, and waking a sleeping thread costs more than the wait. The wait
  // watches the post counter, not the io_context: polling that takes its
  // lock, which the worker about to post then has to wait for. Waits that
  // keep finding nothing (a loader whose replies come a chunk apart) are
  // made less often, so that they do not take a core from the workers.
  constexpr auto kSpin = std::chrono::microseconds(50);
  constexpr int kMaxSkipShift = 6;
  int misses = 0, skip = 0;
  while (!condition()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return condition();
    if (context_.stopped()) context_.restart();
    std::size_t handled = context_.poll();
    if (handled == 0 && !condition()) {
      handled = forever ? context_.run_one()
                        : context_.run_one_for(std::min<std::chrono::steady_clock::duration>(
                              std::chrono::milliseconds(5), deadline - now));
    }
    if (handled == 0) continue;
    if (skip > 0) {
      --skip;
      continue;
    }
    // Whatever was posted while the handlers ran is run by the next poll.
    const uint64_t seen = posted_.load(std::memory_order_acquire);
    const auto until = std::chrono::steady_clock::now() + kSpin;
    while (posted_.load(std::memory_order_acquire) == seen && std::chrono::steady_clock::now() < until &&
           !condition()) {
    }
    if (posted_.load(std::memory_order_acquire) != seen) {
      misses = 0;
    } else {
      misses = std::min(misses + 1, kMaxSkipShift);
      skip = (1 << misses) - 1;
    }
  }
  return true;
}

void MainLoop::post(std::function<void()> block) {
  posted_.fetch_add(1, std::memory_order_release);
  boost::asio::post(context_, std::move(block));
}

void MainLoop::runFor(std::chrono::milliseconds duration) {
  runUntil([] { return false; }, duration);
}

}  // namespace shelfkit

namespace platform {
namespace {

class AsioRepeatingTimer : public RepeatingTimer {
 public:
  struct State {
    explicit State(boost::asio::io_context& context) : timer(context) {}
    boost::asio::steady_timer timer;
    std::chrono::milliseconds interval{};
    std::function<void()> block;
    bool valid = true;
  };

  explicit AsioRepeatingTimer(std::shared_ptr<State> state) : state_(std::move(state)) { arm(state_); }
  ~AsioRepeatingTimer() override { invalidate(); }

  void invalidate() override {
    state_->valid = false;
    state_->timer.cancel();
  }
  bool isValid() const override { return state_->valid; }

 private:
  static void arm(const std::shared_ptr<State>& state) {
    state->timer.expires_after(state->interval);
    std::weak_ptr<State> weak = state;
    state->timer.async_wait([weak](const boost::system::error_code& error) {
      auto strong = weak.lock();
      if (error || !strong || !strong->valid) return;
      arm(strong);  // re-arm first, so the block may invalidate the timer
      auto block = strong->block;
      block();
    });
  }
  std::shared_ptr<State> state_;
};

}  // namespace

void dispatchAsyncMain(std::function<void()> block) {
  if (auto loop = shelfkit::MainLoop::current()) loop->post(std::move(block));
}

void dispatchAfterMain(std::chrono::milliseconds delay, std::function<void()> block) {
  auto loop = shelfkit::MainLoop::current();
  if (!loop) return;
  auto timer = std::make_shared<boost::asio::steady_timer>(loop->context(), delay);
  timer->async_wait([timer, block = std::move(block)](const boost::system::error_code& error) {
    if (!error) block();
  });
}

bool isMainThread() {
  auto loop = shelfkit::MainLoop::current();
  return loop && loop->isMainThread();
}

std::unique_ptr<RepeatingTimer> scheduledTimer(std::chrono::milliseconds interval,
                                               std::function<void()> block) {
  DCHECK_ON_MAIN();
  auto loop = shelfkit::MainLoop::current();
  auto state = std::make_shared<AsioRepeatingTimer::State>(loop->context());
  state->interval = interval;
  state->block = std::move(block);
  return std::make_unique<AsioRepeatingTimer>(std::move(state));
}

void mainThreadCheckFailed(const char* function) {
  std::fprintf(stderr, "FATAL: %s must run on the main thread\n", function);
  std::abort();
}

}  // namespace platform
