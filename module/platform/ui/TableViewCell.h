// Table rows: the cell base class and the kit's stock switch and stepper cells.
// REQUIRES: main thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "module/platform/ui/View.h"

namespace platform {

class TableViewCell : public View {
 public:
  TableViewCell(int64_t style, std::string reuseIdentifier);
  const std::string& reuseIdentifier() const { return reuseIdentifier_; }
  // The view that holds the cell's content; it fills the row.
  const std::shared_ptr<View>& contentView() const { return contentView_; }
  void setSelectedBackgroundView(std::shared_ptr<View> view);

 private:
  const std::string reuseIdentifier_;
  std::shared_ptr<View> contentView_;
  std::shared_ptr<View> selectedBackgroundView_;
};

// A label on the left, a switch on the right.
class SwitchCell : public TableViewCell {
 public:
  SwitchCell();
  Label& textLabel() { return *textLabel_; }
  Switch& switchView() { return *switch_; }
  // Runs with the switch after the user flips it.
  void setSwitchValueChanged(std::function<void(Switch&)> block);

 private:
  std::shared_ptr<Label> textLabel_;
  std::shared_ptr<Switch> switch_;
  std::function<void(Switch&)> switchValueChanged_;
};

// A label on the left; a value label and a stepper on the right.
class StepperCell : public TableViewCell {
 public:
  using ValueChanged = std::function<void(Stepper&, Label&)>;
  StepperCell();
  Label& textLabel() { return *textLabel_; }
  Stepper& stepper() { return *stepper_; }
  Label& stepperLabel() { return *stepperLabel_; }
  // Runs with the stepper and its label after each change by the user.
  void setStepperValueChanged(ValueChanged block) { stepperValueChanged_ = std::move(block); }
  const ValueChanged& stepperValueChanged() const { return stepperValueChanged_; }

 private:
  std::shared_ptr<Label> textLabel_;
  std::shared_ptr<Label> stepperLabel_;
  std::shared_ptr<Stepper> stepper_;
  ValueChanged stepperValueChanged_;
};

}  // namespace platform
