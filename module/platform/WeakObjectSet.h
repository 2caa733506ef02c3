// A set of observers held weakly. An observer that goes away drops out without
// unregistering. objects() is a snapshot, so callbacks may change the set.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

namespace platform {

template <class T>
class WeakObjectSet {
 public:
  // Adds `object` once; adding it again changes nothing.
  void addObject(const std::shared_ptr<T>& object) {
    prune();
    if (!object || contains(object.get())) return;
    members_.push_back(object);
  }

  void removeObject(const T* object) {
    std::erase_if(members_, [&](const std::weak_ptr<T>& m) {
      auto locked = m.lock();
      return !locked || locked.get() == object;
    });
  }

  // The live members, in the order they were added.
  std::vector<std::shared_ptr<T>> objects() const {
    std::vector<std::shared_ptr<T>> live;
    live.reserve(members_.size());
    for (const auto& m : members_)
      if (auto locked = m.lock()) live.push_back(std::move(locked));
    return live;
  }

  bool contains(const T* object) const {
    return std::any_of(members_.begin(), members_.end(),
                       [&](const std::weak_ptr<T>& m) { return m.lock().get() == object; });
  }

 private:
  void prune() {
    std::erase_if(members_, [](const std::weak_ptr<T>& m) { return m.expired(); });
  }
  std::vector<std::weak_ptr<T>> members_;
};

}  // namespace platform
