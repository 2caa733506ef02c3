#include "tests/support/TestHost.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "module/platform/Clock.h"
#include "module/platform/FileManager.h"
#include "module/platform/RecordDatabase.h"
#include "module/platform/UserDefaults.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "shelfkit/runtime/JsonUserDefaults.h"
#include "shelfkit/runtime/PosixFileManager.h"

std::string makeTemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "shelf-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

TestHost::TestHost()
    : layout_(shelfkit::RootLayout::resolve(makeTemporaryDirectory(), std::nullopt)),
      loop_(std::make_shared<shelfkit::MainLoop>()),
      network_(std::make_shared<FakeNetworkMonitor>()) {
  layout_.create(nullptr);
  shelfkit::MainLoop::install(loop_);
  reloadDefaults();
  platform::FileManager::setDefaultManager(
      std::make_shared<shelfkit::PosixFileManager>(layout_.library, layout_.documents));
  platform::RecordDatabase::setFactory(shelfkit::SqliteRecordDatabase::factoryInDirectory(layout_.databasesDirectory()));
  platform::NetworkMonitor::setSharedInstance(network_);
  platform::ProgressOverlay::setPresenter(overlay_);
  platform::TipsPresenter::setPresenter(tips_);
  platform::AdPresenter::setSharedInstance(ads_);
}

TestHost::~TestHost() {
  platform::AdPresenter::setSharedInstance(nullptr);
  platform::TipsPresenter::setPresenter(nullptr);
  platform::ProgressOverlay::setPresenter(nullptr);
  platform::setClockForTesting(nullptr);
  platform::NetworkMonitor::setSharedInstance(nullptr);
  platform::RecordDatabase::setFactory(nullptr);
  platform::FileManager::setDefaultManager(nullptr);
  platform::UserDefaults::setStandardUserDefaults(nullptr);
  shelfkit::MainLoop::install(nullptr);
  std::error_code error;
  std::filesystem::remove_all(layout_.root, error);
}

void TestHost::reloadDefaults() {
  platform::UserDefaults::setStandardUserDefaults(
      std::make_shared<shelfkit::JsonUserDefaults>(layout_.preferencesFile()));
}
