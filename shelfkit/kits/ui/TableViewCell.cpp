#include "module/platform/ui/TableViewCell.h"

namespace platform {

TableViewCell::TableViewCell(int64_t /*style*/, std::string reuseIdentifier)
    : View("cell"), reuseIdentifier_(std::move(reuseIdentifier)), contentView_(std::make_shared<View>()) {
  addSubview(contentView_);
}

void TableViewCell::setSelectedBackgroundView(std::shared_ptr<View> view) {
  selectedBackgroundView_ = std::move(view);
  setProp("selectedBackground", selectedBackgroundView_ != nullptr);
}

SwitchCell::SwitchCell()
    : TableViewCell(0, "SwitchCell"), textLabel_(std::make_shared<Label>()), switch_(std::make_shared<Switch>()) {
  contentView()->addFillWidthSubviews({View::spacerWithSize(15), textLabel_, switch_, View::spacerWithSize(15)});
  switch_->valueChanged = [this](Switch& view) {
    if (switchValueChanged_) switchValueChanged_(view);
  };
}

void SwitchCell::setSwitchValueChanged(std::function<void(Switch&)> block) { switchValueChanged_ = std::move(block); }

StepperCell::StepperCell()
    : TableViewCell(0, "StepperCell"),
      textLabel_(std::make_shared<Label>()),
      stepperLabel_(std::make_shared<Label>()),
      stepper_(std::make_shared<Stepper>()) {
  stepperLabel_->setFlex(0);
  stepperLabel_->setTextAlignment(TextAlignment::Right);
  contentView()->addFillWidthSubviews({View::spacerWithSize(15), textLabel_, stepperLabel_, View::spacerWithSize(10),
                                       stepper_, View::spacerWithSize(15)});
  stepper_->valueChanged = [this](Stepper& view) {
    if (stepperValueChanged_) stepperValueChanged_(view, *stepperLabel_);
  };
}

}  // namespace platform
