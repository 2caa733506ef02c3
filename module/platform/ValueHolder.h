// An identity box usable as a dictionary key: two holders are equal exactly
// when they hold the same object. The holder keeps its object alive.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

namespace platform {

class ValueHolder {
 public:
  explicit ValueHolder(std::shared_ptr<void> value) : value_(std::move(value)) {}

  const std::shared_ptr<void>& value() const { return value_; }
  template <class T>
  std::shared_ptr<T> valueAs() const { return std::static_pointer_cast<T>(value_); }

  friend bool operator==(const ValueHolder& a, const ValueHolder& b) {
    return a.value_.get() == b.value_.get();
  }

 private:
  std::shared_ptr<void> value_;
};

}  // namespace platform

template <>
struct std::hash<platform::ValueHolder> {
  std::size_t operator()(const platform::ValueHolder& h) const noexcept {
    return std::hash<const void*>()(h.value().get());
  }
};
