#include "module/platform/ui/Registries.h"

#include <algorithm>

namespace platform {
namespace {

template <class Entry>
std::vector<std::shared_ptr<Entry>> byPriority(std::vector<std::shared_ptr<Entry>> entries) {
  std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a->priority() > b->priority(); });
  return entries;
}

}  // namespace

SideMenuEntry::SideMenuEntry(std::string title, std::string iconName, std::string iconBundle,
                             ControllerClass controllerClass, int64_t presentationStyle, int64_t priority)
    : title_(std::move(title)),
      iconName_(std::move(iconName)),
      iconBundle_(std::move(iconBundle)),
      controllerClass_(std::move(controllerClass)),
      presentationStyle_(presentationStyle),
      priority_(priority) {}

void SideMenuEntry::setAccessibilityLabel(std::string label) {
  std::lock_guard lock(mutex_);
  accessibilityLabel_ = std::move(label);
}

std::string SideMenuEntry::accessibilityLabel() const {
  std::lock_guard lock(mutex_);
  return accessibilityLabel_.empty() ? title_ : accessibilityLabel_;
}

SettingEntry::SettingEntry(std::string title, int64_t priority, ControllerClass controllerClass)
    : title_(std::move(title)), priority_(priority), controllerClass_(std::move(controllerClass)) {}

std::shared_ptr<SideMenuRegistry> SideMenuRegistry::sharedInstance() {
  static auto* instance = new std::shared_ptr<SideMenuRegistry>(std::make_shared<SideMenuRegistry>());
  return *instance;
}

void SideMenuRegistry::addMenuItem(std::shared_ptr<SideMenuEntry> entry) {
  std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
}

std::vector<std::shared_ptr<SideMenuEntry>> SideMenuRegistry::menuItems() const {
  std::lock_guard lock(mutex_);
  return byPriority(entries_);
}

std::shared_ptr<SettingsRegistry> SettingsRegistry::sharedInstance() {
  static auto* instance = new std::shared_ptr<SettingsRegistry>(std::make_shared<SettingsRegistry>());
  return *instance;
}

void SettingsRegistry::addSettingItem(std::shared_ptr<SettingEntry> entry) {
  std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
}

std::vector<std::shared_ptr<SettingEntry>> SettingsRegistry::settingItems() const {
  std::lock_guard lock(mutex_);
  return byPriority(entries_);
}

}  // namespace platform
