#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "module/core/DFDownloadManager.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "tests/support/Journal.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

class ManagerTest : public ::testing::Test {
 protected:
  void store(const char* name, int64_t priority) {
    auto db = shelfkit::SqliteRecordDatabase::open(host_.layout().databasesDirectory() + "/DFDownloadManager.sqlite", 0);
    auto record = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(std::string("http://h.test/") + name));
    record->setFilename(name);
    record->setPriority(priority);
    db->insertItemWithUniqueId(record->uniqueId(), *record);
  }

  TestHost host_;
};

// Writes down the Changed notifications it receives.
struct ChangedObserver : DFDownloadManagerDelegate {
  std::vector<std::string> calls;
  void downloadOperationChanged(DFDownloadManager&, const Record& r) override {
    calls.push_back("changed " + r->filename().value_or(""));
  }
};

TEST_F(ManagerTest, SavedRecordsComeBackInPriorityOrderAndAnUpdateIsSavedAndToldToTheObservers) {
  store("two", 2);
  store("zero", 0);
  store("one", 1);
  auto manager = DFDownloadManager::init();
  auto queue = manager->downloadOperations();
  std::vector<std::string> names;
  for (auto& r : queue) names.push_back(r->filename().value_or("?"));
  EXPECT_EQ(names, (std::vector<std::string>{"zero", "one", "two"}));

  // Observers are held weakly and may leave during a notification.
  auto first = std::make_shared<ChangedObserver>();
  auto second = std::make_shared<ChangedObserver>();
  auto gone = std::make_shared<ChangedObserver>();
  auto other = std::make_shared<Journal>();  // implements no Changed method
  struct Remover : DFDownloadManagerDelegate {
    std::weak_ptr<DFDownloadManagerDelegate> victim;
    void downloadOperationChanged(DFDownloadManager& m, const Record&) override {
      if (auto v = victim.lock()) m.removeDelegate(v.get());
    }
  };
  auto remover = std::make_shared<Remover>();
  remover->victim = second;
  for (const auto& observer : std::vector<std::shared_ptr<DFDownloadManagerDelegate>>{first, other, remover, second, gone})
    manager->addDelegate(observer);
  manager->addDelegate(first);  // a second add changes nothing
  gone.reset();

  queue[0]->setPosition(4096);
  queue.clear();
  auto record = manager->downloadOperations().front();
  EXPECT_EQ(manager->downloadOperations().size(), 3u) << "the caller got a copy";
  manager->updateDownloadOperation(record);
  EXPECT_EQ(first->calls, (std::vector<std::string>{"changed zero"}));
  EXPECT_EQ(second->calls.size(), 1u) << "the notification in progress still reaches it";
  EXPECT_TRUE(other->events.empty());
  manager->updateDownloadOperation(record);
  EXPECT_EQ(first->calls.size(), 2u);
  EXPECT_EQ(second->calls.size(), 1u) << "removed for later notifications";

  manager.reset();
  EXPECT_EQ(DFDownloadManager::init()->downloadOperations().front()->position(), 4096);
}

TEST_F(ManagerTest, AnEmptyStartHasTheDefaultsAndItsTmpFolderAndSettersWriteToDiskAtOnce) {
  auto manager = DFDownloadManager::init();
  EXPECT_TRUE(manager->downloadOperations().empty());
  EXPECT_FALSE(manager->downloadsInProgress());
  EXPECT_TRUE(manager->retryTimerRunning());
  EXPECT_TRUE(fs::exists(host_.layout().databasesDirectory() + "/DFDownloadManager.sqlite"));
  // Temporary files are named by the record, in a folder made again on every call.
  const std::string folder = host_.layout().library + "/DownloaderTmpFiles";
  for (int call = 0; call < 2; ++call) {
    fs::remove_all(folder);
    EXPECT_EQ(DFDownloadManager::tmpFilePathForFilename("ABC"), folder + "/ABC");
    EXPECT_TRUE(fs::is_directory(folder));
  }
  EXPECT_EQ(std::tuple(manager->maxActiveDownloadCount(), manager->useCellularData(), manager->downloadsPermitted()),
            std::tuple(3, true, true));
  // Stored values are used as they are, even those the settings page would not offer.
  for (int64_t count : {0, -1, 7}) {
    manager->setMaxActiveDownloadCount(count);
    host_.reloadDefaults();  // what a restart would read from disk
    EXPECT_EQ(manager->maxActiveDownloadCount(), count);
  }
  manager->setUseCellularData(false);
  manager->setDownloadsPermitted(false);
  host_.reloadDefaults();
  EXPECT_FALSE(manager->useCellularData());
  EXPECT_FALSE(manager->downloadsPermitted());

  std::ifstream in(host_.layout().preferencesFile());
  EXPECT_EQ(nlohmann::json::parse(in), nlohmann::json::parse(R"({"DFMaxActiveDownloadCountPreference": 7,
      "DFUseCellularDataPreference": false, "DFDownloadsPermittedPreference": false})"));
}

}  // namespace
