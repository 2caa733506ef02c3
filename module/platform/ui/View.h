// Views of the host's server-driven UI kit. A view is a C++ object on the main
// thread; the browser renders it. Changing a view that is on screen marks it for
// the next batch of updates to the browser.
// REQUIRES: main thread, for every call.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace platform {

class View;
struct LayoutConstraint;

// Receives the changes of the views it shows (the screen they are on).
class ViewHost {
 public:
  virtual ~ViewHost() = default;
  // A prop of `view` changed; `structural` when its subviews changed.
  virtual void viewChanged(View& view, bool structural) = 0;
};

struct Color {
  std::string css;
  static Color blueColor() { return {"rgb(0, 0, 255)"}; }
  static Color clearColor() { return {"transparent"}; }
};

// An image of a resource bundle, tinted with `color` where the kit supports it.
struct Image {
  std::string url;
  double width = 0;
  double height = 0;
  Color color;
};

class View {
 public:
  View();
  virtual ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  uint64_t viewId() const { return id_; }
  const std::string& kind() const { return kind_; }

  void addSubview(std::shared_ptr<View> view);
  const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }
  View* superview() const { return superview_; }
  View& rootView();
  void setHidden(bool hidden) { setProp("hidden", hidden); }
  void setBackgroundColor(const Color& color) { setProp("background", color.css); }

  // Layout helpers. A flexible empty view, and one of a fixed extent along the
  // axis it is laid out on.
  static std::shared_ptr<View> spacer();
  static std::shared_ptr<View> spacerWithSize(double size);
  // Adds the views side by side, left to right, filling the receiver.
  void addFillWidthSubviews(const std::vector<std::shared_ptr<View>>& views);
  // Adds the views one under the other, top to bottom, filling the receiver;
  // flexible spacers share the height the other views leave.
  void addFillHeightSubivews(const std::vector<std::shared_ptr<View>>& views);
  void addConstraint(const LayoutConstraint& constraint);
  void addConstraints(const std::vector<LayoutConstraint>& constraints);
  void setTranslatesAutoresizingMaskIntoConstraints(bool translates) { translatesMask_ = translates; }
  // How much of the free space along the superview's axis the view takes (0: its natural size).
  void setFlex(double grow);

  // The kit's side: the view and its subviews as sent to the browser.
  nlohmann::json node() const;
  // Props changed since the last call, and forgets them.
  nlohmann::json takeChangedProps();
  void setHost(const std::weak_ptr<ViewHost>& host);  // this view and its subviews
  // This view or a subview with the id, or null.
  View* findView(uint64_t id);

 protected:
  explicit View(std::string kind);
  void setProp(const std::string& key, nlohmann::json value);
  const nlohmann::json& prop(const std::string& key) const;

 private:
  void setLayout(const char* axis, const std::vector<std::shared_ptr<View>>& views);
  void notifyHost(bool structural);

  const uint64_t id_;
  const std::string kind_;
  nlohmann::json props_ = nlohmann::json::object();
  nlohmann::json changed_ = nlohmann::json::object();
  std::vector<std::shared_ptr<View>> subviews_;
  View* superview_ = nullptr;
  std::weak_ptr<ViewHost> host_;
  bool translatesMask_ = true;
};

enum class TextAlignment { Left, Center, Right };

class Label : public View {
 public:
  Label();
  void setText(const std::string& text) { setProp("text", text); }
  std::string text() const;
  void setTextAlignment(TextAlignment alignment);

 protected:
  explicit Label(const char* style);
};

// A thin bar showing a fraction done.
class ProgressBar : public View {
 public:
  explicit ProgressBar(const Color& color);
  void setProgress(double progress) { setProp("progress", progress); }
  double progress() const;
};

class Switch : public View {
 public:
  Switch();
  void setOn(bool on) { setProp("on", on); }
  bool isOn() const;
  // The kit's side: the user flipped it.
  void userSetOn(bool on);
  std::function<void(Switch&)> valueChanged;
};

class Stepper : public View {
 public:
  Stepper();
  void setMinimumValue(double value);
  void setMaximumValue(double value);
  // Clamped to the range, as a stepper shows it.
  void setValue(double value);
  void setStepValue(double value) { setProp("step", value); }
  double value() const;
  double minimumValue() const;
  double maximumValue() const;
  // The kit's side: the user pressed + or −; the value is clamped.
  void userSetValue(double value);
  std::function<void(Stepper&)> valueChanged;
};

// A link to a file the browser opens or saves.
class Link : public View {
 public:
  Link(const std::string& text, const std::string& href, bool download);
  void setText(const std::string& text) { setProp("text", text); }
  void setHref(const std::string& href) { setProp("href", href); }
};

// Layout constraints between a view and its superview, in the kit's list
// notation: a number is a margin or gap in points, a view is a view, and
// {view, n} is a view of extent n along the axis. A list that starts with a
// view leaves the leading edge free; consecutive numbers add up.
struct LayoutItem {
  LayoutItem(double number) : number(number) {}  // NOLINT: lists mix numbers and views
  LayoutItem(int number) : number(number) {}     // NOLINT
  LayoutItem(std::shared_ptr<View> view) : view(std::move(view)) {}  // NOLINT
  LayoutItem(std::shared_ptr<View> view, double extent) : view(std::move(view)), extent(extent) {}
  template <class T>
  LayoutItem(std::shared_ptr<T> view) : view(std::static_pointer_cast<View>(std::move(view))) {}  // NOLINT
  template <class T>
  LayoutItem(std::shared_ptr<T> view, double extent) : view(std::static_pointer_cast<View>(std::move(view))), extent(extent) {}

  std::shared_ptr<View> view;
  std::optional<double> extent;
  double number = 0;
};

enum class LayoutAttribute { Width, Height };

struct LayoutConstraint {
  std::shared_ptr<View> item;
  // Edge placement: the axis, and margins/extent along it.
  std::optional<bool> horizontal;
  std::optional<double> leading, extent, trailing;
  // Equality of one attribute with another view's: item.attr = toItem.attr × multiplier + constant.
  std::shared_ptr<View> toItem;
  LayoutAttribute attribute = LayoutAttribute::Height;
  double multiplier = 1.0;
  double constant = 0.0;

  static std::vector<LayoutConstraint> horizontalConstraints(const std::vector<LayoutItem>& items);
  static std::vector<LayoutConstraint> verticalConstraints(const std::vector<LayoutItem>& items);
  // Only equality (`relatedBy` 0) is supported.
  static LayoutConstraint constraintWithItem(std::shared_ptr<View> item, LayoutAttribute attribute, int relatedBy,
                                             std::shared_ptr<View> toItem, LayoutAttribute toAttribute,
                                             double multiplier, double constant);
};

}  // namespace platform
