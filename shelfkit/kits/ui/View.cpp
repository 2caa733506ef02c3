#include "module/platform/ui/View.h"

#include <algorithm>
#include <atomic>

#include "module/platform/MainQueue.h"

namespace platform {
namespace {

std::atomic<uint64_t> gNextViewId{1};

const nlohmann::json& nullJson() {
  static const nlohmann::json null;
  return null;
}

}  // namespace

View::View() : View("view") {}

View::View(std::string kind) : id_(gNextViewId++), kind_(std::move(kind)) {}

View::~View() = default;

void View::setProp(const std::string& key, nlohmann::json value) {
  DCHECK_ON_MAIN();
  auto found = props_.find(key);
  if (found != props_.end() && *found == value) return;
  props_[key] = value;
  changed_[key] = std::move(value);
  notifyHost(false);
}

const nlohmann::json& View::prop(const std::string& key) const {
  auto found = props_.find(key);
  return found == props_.end() ? nullJson() : *found;
}

void View::notifyHost(bool structural) {
  if (auto host = host_.lock()) host->viewChanged(*this, structural);
}

void View::setHost(const std::weak_ptr<ViewHost>& host) {
  host_ = host;
  for (const auto& view : subviews_) view->setHost(host);
}

void View::addSubview(std::shared_ptr<View> view) {
  DCHECK_ON_MAIN();
  if (!view || view.get() == this) return;
  if (view->superview_) std::erase(view->superview_->subviews_, view);
  view->superview_ = this;
  view->setHost(host_);
  subviews_.push_back(std::move(view));
  notifyHost(true);
}

View& View::rootView() {
  View* view = this;
  while (view->superview_) view = view->superview_;
  return *view;
}

View* View::findView(uint64_t id) {
  if (id_ == id) return this;
  for (const auto& view : subviews_)
    if (View* found = view->findView(id)) return found;
  return nullptr;
}

nlohmann::json View::node() const {
  nlohmann::json node = {{"id", id_}, {"kind", kind_}, {"props", props_}};
  if (!subviews_.empty()) {
    nlohmann::json children = nlohmann::json::array();
    for (const auto& view : subviews_) children.push_back(view->node());
    node["children"] = std::move(children);
  }
  return node;
}

nlohmann::json View::takeChangedProps() {
  nlohmann::json changed = std::move(changed_);
  changed_ = nlohmann::json::object();
  return changed;
}

std::shared_ptr<View> View::spacer() {
  auto view = std::make_shared<View>();
  view->setProp("flex", 1);
  return view;
}

std::shared_ptr<View> View::spacerWithSize(double size) {
  auto view = std::make_shared<View>();
  view->setProp("size", size);
  return view;
}

void View::setFlex(double grow) { setProp("flex", grow); }

void View::setLayout(const char* axis, const std::vector<std::shared_ptr<View>>& views) {
  setProp("layout", axis);
  const bool row = std::string_view(axis) == "row";
  for (const auto& view : views) {
    if (!view) continue;
    // Side by side, views without a size of their own share the width; one
    // under the other, they keep their natural height and spacers take the rest.
    if (row && view->prop("flex").is_null() && view->prop("size").is_null()) view->setProp("flex", 1);
    addSubview(view);
  }
}

void View::addFillWidthSubviews(const std::vector<std::shared_ptr<View>>& views) { setLayout("row", views); }

void View::addFillHeightSubivews(const std::vector<std::shared_ptr<View>>& views) { setLayout("column", views); }

void View::addConstraint(const LayoutConstraint& constraint) {
  if (!constraint.item) return;
  View& item = *constraint.item;
  if (constraint.toItem) {
    item.setProp(constraint.attribute == LayoutAttribute::Height ? "sameHeightAs" : "sameWidthAs",
                 constraint.toItem->viewId());
    return;
  }
  if (!constraint.horizontal) return;
  nlohmann::json abs = item.prop("abs").is_object() ? item.prop("abs") : nlohmann::json::object();
  const bool horizontal = *constraint.horizontal;
  if (constraint.leading) abs[horizontal ? "left" : "top"] = *constraint.leading;
  if (constraint.trailing) abs[horizontal ? "right" : "bottom"] = *constraint.trailing;
  if (constraint.extent) abs[horizontal ? "width" : "height"] = *constraint.extent;
  item.setProp("abs", abs);
}

void View::addConstraints(const std::vector<LayoutConstraint>& constraints) {
  for (const auto& constraint : constraints) addConstraint(constraint);
}

namespace {

std::vector<LayoutConstraint> constraintsAlong(bool horizontal, const std::vector<LayoutItem>& items) {
  std::vector<LayoutConstraint> constraints;
  std::optional<double> pending;  // numbers since the last view (or the edge)
  for (const auto& item : items) {
    if (!item.view) {
      pending = pending.value_or(0) + item.number;
      continue;
    }
    LayoutConstraint constraint;
    constraint.item = item.view;
    constraint.horizontal = horizontal;
    if (constraints.empty()) constraint.leading = pending;  // a list starting with a view leaves the edge free
    constraint.extent = item.extent;
    constraints.push_back(std::move(constraint));
    pending.reset();
  }
  if (!constraints.empty()) constraints.back().trailing = pending;
  return constraints;
}

}  // namespace

std::vector<LayoutConstraint> LayoutConstraint::horizontalConstraints(const std::vector<LayoutItem>& items) {
  return constraintsAlong(true, items);
}

std::vector<LayoutConstraint> LayoutConstraint::verticalConstraints(const std::vector<LayoutItem>& items) {
  return constraintsAlong(false, items);
}

LayoutConstraint LayoutConstraint::constraintWithItem(std::shared_ptr<View> item, LayoutAttribute attribute,
                                                      int /*relatedBy*/, std::shared_ptr<View> toItem,
                                                      LayoutAttribute /*toAttribute*/, double multiplier,
                                                      double constant) {
  LayoutConstraint constraint;
  constraint.item = std::move(item);
  constraint.toItem = std::move(toItem);
  constraint.attribute = attribute;
  constraint.multiplier = multiplier;
  constraint.constant = constant;
  return constraint;
}

// --- Controls -------------------------------------------------------------

Label::Label() : Label("body") {}

Label::Label(const char* style) : View("label") { setProp("style", style); }

std::string Label::text() const {
  const auto& text = prop("text");
  return text.is_string() ? text.get<std::string>() : std::string();
}

void Label::setTextAlignment(TextAlignment alignment) {
  setProp("align", alignment == TextAlignment::Left ? "left" : alignment == TextAlignment::Right ? "right" : "center");
}

ProgressBar::ProgressBar(const Color& color) : View("progress") {
  setProp("color", color.css);
  setProp("progress", 0.0);
}

double ProgressBar::progress() const { return prop("progress").get<double>(); }

Switch::Switch() : View("switch") {
  setProp("on", false);
  setProp("flex", 0);
}

bool Switch::isOn() const { return prop("on").get<bool>(); }

void Switch::userSetOn(bool on) {
  setOn(on);
  if (valueChanged) valueChanged(*this);
}

Stepper::Stepper() : View("stepper") {
  setProp("min", 0.0);
  setProp("max", 100.0);
  setProp("step", 1.0);
  setProp("value", 0.0);
  setProp("flex", 0);
}

double Stepper::value() const { return prop("value").get<double>(); }
double Stepper::minimumValue() const { return prop("min").get<double>(); }
double Stepper::maximumValue() const { return prop("max").get<double>(); }

void Stepper::setMinimumValue(double value) {
  setProp("min", value);
  if (this->value() < value) setProp("value", value);
}

void Stepper::setMaximumValue(double value) {
  setProp("max", value);
  if (this->value() > value) setProp("value", value);
}

void Stepper::setValue(double value) { setProp("value", std::clamp(value, minimumValue(), maximumValue())); }

void Stepper::userSetValue(double value) {
  setValue(value);
  if (valueChanged) valueChanged(*this);
}

Link::Link(const std::string& text, const std::string& href, bool download) : View("link") {
  setProp("text", text);
  setProp("href", href);
  setProp("download", download);
  setProp("flex", 0);
}

}  // namespace platform
