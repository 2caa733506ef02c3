// The module's source of recently downloaded files in the host's recent-items list.
#pragma once

#include <memory>

#include "module/platform/RecentItems.h"

class DFRecentItemsSource : public platform::RecentItemsSourceBase {
 public:
  static std::shared_ptr<DFRecentItemsSource> sharedInstance();
  // Registers the shared instance with the host's recent items.
  static void load();
  explicit DFRecentItemsSource(std::string name) : RecentItemsSourceBase(std::move(name)) {}

  std::string title() const override;  // localised afresh on each call
  std::string iconName() const override { return "DFRecentItems"; }
  std::string iconBundle() const override;
  int64_t priority() const override { return 0; }
  std::string accessibilityLabel() const override { return "Recently Downloaded"; }
};
