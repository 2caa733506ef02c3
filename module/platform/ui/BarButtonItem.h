// Toolbar buttons: an image button with an action, or a flexible space.
// REQUIRES: main thread.
#pragma once

#include <functional>
#include <memory>

#include "module/platform/ui/View.h"

namespace platform {

class BarButtonItem : public View {
 public:
  using Action = std::function<void(BarButtonItem& sender)>;
  static constexpr int64_t kStylePlain = 0;

  // An image button; `action` runs when it is tapped while enabled.
  BarButtonItem(const Image& image, int64_t style, Action action);
  // An empty item that takes up the free width.
  static std::shared_ptr<BarButtonItem> flexibleSpace();

  void setEnabled(bool enabled) { setProp("enabled", enabled); }
  bool isEnabled() const;
  void setAccessibilityLabel(const std::string& label) { setProp("accessibilityLabel", label); }
  // The kit's side: the user tapped it.
  void tap();

 private:
  BarButtonItem();
  Action action_;
};

}  // namespace platform
