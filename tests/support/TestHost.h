// A host for one test: a temporary root, an installed main loop on the test's
// thread, the real defaults store, file manager and record databases, and a
// fake network monitor. Everything is uninstalled and deleted at the end.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "module/platform/RecentItems.h"
#include "shelfkit/runtime/MainLoop.h"
#include "shelfkit/runtime/RootLayout.h"
#include "tests/fakes/FakeNetworkMonitor.h"
#include "tests/fakes/FakePresenters.h"

class TestHost {
 public:
  TestHost();
  ~TestHost();
  TestHost(const TestHost&) = delete;
  TestHost& operator=(const TestHost&) = delete;

  const shelfkit::RootLayout& layout() const { return layout_; }
  shelfkit::MainLoop& loop() { return *loop_; }
  FakeNetworkMonitor& network() { return *network_; }
  RecordingOverlay& overlay() { return *overlay_; }
  RecordingTips& tips() { return *tips_; }
  RecordingAds& ads() { return *ads_; }

  // Replaces the defaults store with a fresh one read from disk, as a restart would.
  void reloadDefaults();

  bool runUntil(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return loop_->runUntil(condition, timeout);
  }

 private:
  shelfkit::RootLayout layout_;
  std::shared_ptr<shelfkit::MainLoop> loop_;
  std::shared_ptr<FakeNetworkMonitor> network_;
  std::shared_ptr<RecordingOverlay> overlay_ = std::make_shared<RecordingOverlay>();
  std::shared_ptr<RecordingTips> tips_ = std::make_shared<RecordingTips>();
  std::shared_ptr<RecordingAds> ads_ = std::make_shared<RecordingAds>();
};

// A fresh empty directory under the system's temporary folder; removed by the caller.
std::string makeTemporaryDirectory();

// A recent-items source with a fixed face, for tests of the recent list itself.
struct TestRecentSource : platform::RecentItemsSourceBase {
  using RecentItemsSourceBase::RecentItemsSourceBase;
  std::string title() const override { return "Test"; }
  std::string iconName() const override { return "i"; }
  std::string iconBundle() const override { return "b"; }
  int64_t priority() const override { return 0; }
  std::string accessibilityLabel() const override { return "a"; }
};
