// A button with a text inside a row (the host's screens use it for actions on
// one file). Tapping it in the browser runs its action on the main thread.
#pragma once

#include <functional>
#include <string>

#include "module/platform/ui/View.h"

namespace shelfkit {

class Button : public platform::View {
 public:
  explicit Button(const std::string& text) : View("button") {
    setProp("text", text);
    setProp("flex", 0);
  }
  // The name read out by assistive technology, when the text alone is ambiguous ("Delete a.pdf").
  void setAccessibilityLabel(const std::string& label) { setProp("accessibilityLabel", label); }
  void setAction(std::function<void()> action) { action_ = std::move(action); }
  // The kit's side: the user tapped it.
  void tap() {
    if (action_) action_();
  }

 private:
  std::function<void()> action_;
};

}  // namespace shelfkit
