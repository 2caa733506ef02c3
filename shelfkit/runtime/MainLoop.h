// The host's main loop: one Boost.Asio io_context run on the main thread.
// Installing a loop makes it the target of platform::dispatchAsyncMain and friends.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

namespace shelfkit {

class MainLoop {
 public:
  // The constructing thread becomes the main thread.
  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  static void install(std::shared_ptr<MainLoop> loop);
  static std::shared_ptr<MainLoop> current();

  boost::asio::io_context& context() { return context_; }

  // Queues `block` to run on the main thread; safe from any thread.
  void post(std::function<void()> block);

  // Runs handlers until stop(). The calling thread becomes the main thread.
  void run();
  // Makes run() return; safe from any thread.
  void stop();

  // Runs handlers until `condition` holds or `timeout` passes; returns the
  // condition's last value. For tests and one-shot tools.
  bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
  // Runs handlers for `duration`.
  void runFor(std::chrono::milliseconds duration);

  bool isMainThread() const { return std::this_thread::get_id() == mainThread_.load(); }

 private:
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  std::atomic<std::thread::id> mainThread_;
  std::atomic<bool> stopRequested_{false};
  // Counts post()s, so that the main thread can wait for the next one
  // without taking the io_context's lock again and again.
  std::atomic<uint64_t> posted_{0};
};

}  // namespace shelfkit
