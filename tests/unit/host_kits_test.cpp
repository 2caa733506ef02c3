#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "module/platform/RecentItems.h"
#include "module/platform/ui/Appearance.h"
#include "module/platform/ui/BarButtonItem.h"
#include "module/platform/ui/Bundle.h"
#include "module/ui/DFRecentItemsSource.h"
#include "shelfkit/kits/HeadlessPresenters.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

TEST(HeadlessPresenters, ATipIsShownOnceEvenAcrossRestartsAndAlertsAreDismissedOnALaterTurn) {
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
  shelfkit::HeadlessProgressOverlay overlay;
  overlay.presentMessage("Checking URL...", [] { FAIL() << "nobody cancels"; });
  overlay.presentAlert(std::string("File added to download queue"), [&] { ++completions; });
  EXPECT_LT(completions, 5) << "the alert is dismissed on a later turn, not inside the call";
  ASSERT_TRUE(host.runUntil([&] { return completions == 5; }));
  EXPECT_EQ(log.lines,
            (std::vector<std::string>{"Use the menu.", "Another tip.", "Checking URL...", "File added to download queue"}));
}

TEST(RecentItems, KeptAcrossInstancesNewestFirstWithoutVanishedFiles) {
  TestHost host;
  std::vector<std::string> paths;
  for (const char* name : {"a.txt", "b.txt", "c.txt"}) {
    paths.push_back(host.layout().documents + "/" + name);
    std::ofstream(paths.back()) << name;
  }
  {
    TestRecentSource source("Test");
    for (const auto& path : paths) source.addItemWithFilename(path, path + "-id");
    source.addItemWithFilename(paths[0], paths[0] + "-id");  // again: moves to the front, once
  }
  fs::remove(paths[1]);
  TestRecentSource reopened("Test");
  auto items = reopened.items();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].path, paths[0]);
  EXPECT_EQ(items[1].path, paths[2]);
  EXPECT_EQ(items[1].uniqueId, paths[2] + "-id");

  // The module's own source (its texts are checked with the languages in downloads_ui_test).
  auto module = DFRecentItemsSource::sharedInstance();
  EXPECT_EQ(std::tuple(module->name(), module->iconName(), module->priority()),
            std::tuple("DFRecentItemsSource", "DFRecentItems", 0));
}

TEST(Bundle, ToolbarButtonsAreNamedByTheBundlesLabelTable) {
  TestHost host;
  const fs::path bundle = fs::path(host.layout().library) / "Labels.bundle";
  fs::create_directories(bundle);
  std::ofstream(bundle / "Info.json") << R"({"identifier": "org.test.labels", "imageLabels": {
      "Go": {"label": "Start", "key": "Control+g"},
      "Plain": {"label": "Plain"},
      "NoLabel": {"key": "x"},
      "BadLabel": {"label": 5},
      "../Out": {"label": "Out"},
      "BadKey": {"label": "Bad key", "key": ["x"]}}})";
  platform::Bundle::registerBundle("org.test.labels", bundle.string(), "");
  auto registered = platform::Bundle::bundleWithIdentifier("org.test.labels");
  ASSERT_TRUE(registered);
  for (auto [image, expected] : std::vector<std::pair<const char*, const char*>>{  // "label|key", "" for none
           {"Go", "Start|Control+g"},
           {"Plain", "Plain|-"},
           {"BadKey", "Bad key|-"},
           {"NoLabel", ""},
           {"BadLabel", ""},
           {"../Out", ""},
           {"Missing", ""}}) {
    auto label = registered->labelForImage(image);
    EXPECT_EQ(label ? label->label + "|" + label->key.value_or("-") : "", expected) << image;
  }

  const std::string url = registered->urlForImage("Go");
  for (const char* other : {"/bundles/org.nowhere/images/Go.svg", "/bundles/org.test.labels/images/Go.png",
                            "/bundles/org.test.labels/images/.svg", "/elsewhere/org.test.labels/images/Go.svg"})
    EXPECT_FALSE(platform::Bundle::bundleForImageURL(other)) << other;
  auto found = platform::Bundle::bundleForImageURL(url);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->first, registered);
  EXPECT_EQ(found->second, "Go");

  auto named = [](const platform::Image& image) {
    auto node = platform::BarButtonItem(image, platform::BarButtonItem::kStylePlain, nullptr).node();
    return std::make_pair(node["props"]["accessibilityLabel"], node["props"].value("shortcut", nlohmann::json()));
  };
  auto image = platform::AppearanceKit::imageWithName("Go", 20, registered, platform::Color::blueColor());
  EXPECT_EQ(named(image), std::make_pair(nlohmann::json("Start"), nlohmann::json("Control+g")));
  image = platform::AppearanceKit::imageWithName("Missing", 20, registered, platform::Color::blueColor());
  EXPECT_EQ(named(image), std::make_pair(nlohmann::json("Missing"), nlohmann::json())) << "named after the image";
}

}  // namespace
