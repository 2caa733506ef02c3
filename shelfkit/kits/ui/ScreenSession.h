// One browser tab's screens: a navigation stack of table screens, the tab's
// taps, selections and control changes, and the batching of updates: changes
// are sent at most every kFlushInterval, however often views change.
// REQUIRES: main thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "module/platform/ui/TableScreenController.h"

namespace shelfkit {

class ScreenSession : public std::enable_shared_from_this<ScreenSession> {
 public:
  static constexpr std::chrono::milliseconds kFlushInterval{100};
  using Send = std::function<void(std::string message)>;

  explicit ScreenSession(Send send);
  ~ScreenSession();

  // Shows `controller` on top of the stack, or as the only screen.
  void push(std::shared_ptr<platform::TableScreenController> controller);
  void setRoot(std::shared_ptr<platform::TableScreenController> controller);
  void back();
  std::shared_ptr<platform::TableScreenController> current() const;

  // A screen message from the tab (select, viewport, tap, switch, stepper, back).
  // Returns false when the message is not one of these.
  bool handle(const nlohmann::json& message);
  // Sends a message after the updates that are waiting, keeping their order.
  void sendMessage(const nlohmann::json& message);
  // Sends the waiting updates now.
  void flush();

  int64_t patchesSent() const { return patchesSent_; }
  // The screen the tab shows: changes whenever a screen is shown (pushed, popped, replaced).
  uint64_t screenId() const { return screenId_; }

 private:
  void show();
  void scheduleFlush();
  void send(const nlohmann::json& message);

  Send send_;
  std::vector<std::shared_ptr<platform::TableScreenController>> stack_;
  uint64_t screenId_ = 0;
  bool flushScheduled_ = false;
  std::chrono::steady_clock::time_point lastFlush_{};
  int64_t patchesSent_ = 0;
};

}  // namespace shelfkit
