// The host's appearance kit: its colours, its label styles and images.
// REQUIRES: main thread.
#pragma once

#include <memory>
#include <string>

#include "module/platform/ui/Bundle.h"
#include "module/platform/ui/View.h"

namespace platform {

class AppearanceKit {
 public:
  static std::shared_ptr<AppearanceKit> sharedInstance();
  Color controlColor() const { return {"#0a7cff"}; }
  // The bundle's image `name` at `size` points, tinted with `color`.
  static Image imageWithName(const std::string& name, double size, const std::shared_ptr<Bundle>& bundle,
                             const Color& color);
};

class LargeTitleLabel : public Label {
 public:
  LargeTitleLabel();
};

class SmallTitleLabel : public Label {
 public:
  SmallTitleLabel();
};

class SmallDetailLabel : public Label {
 public:
  SmallDetailLabel();
};

// The background a cell shows while its row is selected.
class SelectedBackgroundView : public View {
 public:
  SelectedBackgroundView();
};

}  // namespace platform
