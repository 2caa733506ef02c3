// The host's registries: the side menu and the settings list. Modules add
// their entries from their load hooks; nothing is ever removed. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform {

class TableScreenController;

// A screen class: makes a fully set-up screen controller when the user opens it.
struct ControllerClass {
  std::string name;
  std::function<std::shared_ptr<TableScreenController>()> create;

  template <class T>
  static ControllerClass of(std::string name) {
    return {std::move(name), [] { return std::static_pointer_cast<TableScreenController>(std::make_shared<T>()); }};
  }
};

class SideMenuEntry {
 public:
  SideMenuEntry(std::string title, std::string iconName, std::string iconBundle, ControllerClass controllerClass,
                int64_t presentationStyle, int64_t priority);
  void setAccessibilityLabel(std::string label);

  const std::string& title() const { return title_; }
  const std::string& iconName() const { return iconName_; }
  const std::string& iconBundle() const { return iconBundle_; }
  const ControllerClass& controllerClass() const { return controllerClass_; }
  int64_t presentationStyle() const { return presentationStyle_; }
  int64_t priority() const { return priority_; }
  std::string accessibilityLabel() const;

 private:
  const std::string title_, iconName_, iconBundle_;
  const ControllerClass controllerClass_;
  const int64_t presentationStyle_, priority_;
  mutable std::mutex mutex_;
  std::string accessibilityLabel_;  // guarded by mutex_
};

class SettingEntry {
 public:
  SettingEntry(std::string title, int64_t priority, ControllerClass controllerClass);
  const std::string& title() const { return title_; }
  int64_t priority() const { return priority_; }
  const ControllerClass& controllerClass() const { return controllerClass_; }

 private:
  const std::string title_;
  const int64_t priority_;
  const ControllerClass controllerClass_;
};

// Entries are listed by descending priority; equal priorities keep the order they were added in.
class SideMenuRegistry {
 public:
  static std::shared_ptr<SideMenuRegistry> sharedInstance();
  void addMenuItem(std::shared_ptr<SideMenuEntry> entry);
  std::vector<std::shared_ptr<SideMenuEntry>> menuItems() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<SideMenuEntry>> entries_;
};

class SettingsRegistry {
 public:
  static std::shared_ptr<SettingsRegistry> sharedInstance();
  void addSettingItem(std::shared_ptr<SettingEntry> entry);
  std::vector<std::shared_ptr<SettingEntry>> settingItems() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<SettingEntry>> entries_;
};

}  // namespace platform
