#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "module/platform/RecentItems.h"
#include "module/ui/DFRecentItemsSource.h"
#include "shelfkit/kits/HeadlessPresenters.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

TEST(HeadlessPresenters, ATipIsShownOnceEvenAcrossRestartsAndEveryCompletionRuns) {
  TestHost host;
  LogCapture log;
  int completions = 0;
  shelfkit::HeadlessTipsPresenter tips;
  tips.presentTip("Use the menu.", [&] { ++completions; });
  tips.presentTip("Use the menu.", [&] { ++completions; });
  host.reloadDefaults();  // what a restart reads back
  shelfkit::HeadlessTipsPresenter afterRestart;
  afterRestart.presentTip("Use the menu.", [&] { ++completions; });
  afterRestart.presentTip("Another tip.", [&] { ++completions; });
  ASSERT_TRUE(host.runUntil([&] { return completions == 4; }));
  EXPECT_EQ(log.lines, (std::vector<std::string>{"Use the menu.", "Another tip."}));
}

TEST(HeadlessPresenters, AlertsAreDismissedAtOnceAndLogged) {
  TestHost host;
  LogCapture log;
  shelfkit::HeadlessProgressOverlay overlay;
  bool dismissed = false;
  overlay.presentMessage("Checking URL...", [] { FAIL() << "nobody cancels"; });
  overlay.presentAlert(std::string("File added to download queue"), [&] { dismissed = true; });
  EXPECT_FALSE(dismissed) << "dismissed on a later turn, not inside the call";
  ASSERT_TRUE(host.runUntil([&] { return dismissed; }));
  EXPECT_EQ(log.lines, (std::vector<std::string>{"Checking URL...", "File added to download queue"}));
}

TEST(RecentItems, KeptAcrossInstancesNewestFirstWithoutVanishedFiles) {
  TestHost host;
  struct Source : platform::RecentItemsSourceBase {
    using RecentItemsSourceBase::RecentItemsSourceBase;
    std::string title() const override { return "t"; }
    std::string iconName() const override { return "i"; }
    std::string iconBundle() const override { return "b"; }
    int64_t priority() const override { return 0; }
    std::string accessibilityLabel() const override { return "a"; }
  };
  std::vector<std::string> paths;
  for (const char* name : {"a.txt", "b.txt", "c.txt"}) {
    paths.push_back(host.layout().documents + "/" + name);
    std::ofstream(paths.back()) << name;
  }
  {
    Source source("Test");
    for (const auto& path : paths) source.addItemWithFilename(path, path + "-id");
    source.addItemWithFilename(paths[0], paths[0] + "-id");  // again: moves to the front, once
  }
  fs::remove(paths[1]);
  Source reopened("Test");
  auto items = reopened.items();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].path, paths[0]);
  EXPECT_EQ(items[1].path, paths[2]);
  EXPECT_EQ(items[1].uniqueId, paths[2] + "-id");
}

TEST(RecentItems, TheModuleSourceIsOneObjectWithItsFixedFace) {
  auto source = DFRecentItemsSource::sharedInstance();
  EXPECT_EQ(source, DFRecentItemsSource::sharedInstance());
  EXPECT_EQ(source->name(), "DFRecentItemsSource");
  EXPECT_EQ(source->title(), "Recently Downloaded");
  EXPECT_EQ(source->accessibilityLabel(), "Recently Downloaded");
  EXPECT_EQ(source->iconName(), "DFRecentItems");
  EXPECT_EQ(source->priority(), 0);
}

}  // namespace
