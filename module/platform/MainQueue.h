// The main queue: the one thread on which the manager, the screens and every
// observer notification run. Implemented by the host's main loop.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace platform {

// Runs `block` on the main thread, later. Safe from any thread. Does nothing
// when no main loop is installed or the loop has stopped.
void dispatchAsyncMain(std::function<void()> block);

// Runs `block` on the main thread once `delay` has passed. Safe from any thread.
void dispatchAfterMain(std::chrono::milliseconds delay, std::function<void()> block);

// Returns true iff the calling thread is the main loop's thread.
bool isMainThread();

// A repeating timer on the main loop. It fires until invalidated or destroyed.
class RepeatingTimer {
 public:
  virtual ~RepeatingTimer() = default;
  virtual void invalidate() = 0;
  virtual bool isValid() const = 0;
};

// REQUIRES: called on the main thread.
// Schedules `block` every `interval` on the main loop, first after one interval.
std::unique_ptr<RepeatingTimer> scheduledTimer(std::chrono::milliseconds interval,
                                               std::function<void()> block);

[[noreturn]] void mainThreadCheckFailed(const char* function);

}  // namespace platform

// Debug builds check that main-thread-only code runs on the main thread.
#ifndef NDEBUG
#define DCHECK_ON_MAIN()                                                  \
  do {                                                                    \
    if (!::platform::isMainThread()) ::platform::mainThreadCheckFailed(__func__); \
  } while (0)
#else
#define DCHECK_ON_MAIN() \
  do {                   \
  } while (0)
#endif
