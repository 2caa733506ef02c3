#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "module/core/DFDownloadManager.h"
#include "module/platform/UserDefaults.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

class ManagerTest : public ::testing::Test {
 protected:
  std::shared_ptr<DFDownloadOperation> store(const char* name, int64_t priority) {
    auto db = shelfkit::SqliteRecordDatabase::open(host_.layout().databasesDirectory() + "/DFDownloadManager.sqlite", 0);
    auto record = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(std::string("http://h.test/") + name));
    record->setFilename(name);
    record->setPriority(priority);
    db->insertItemWithUniqueId(record->uniqueId(), *record);
    return record;
  }

  static std::vector<std::string> names(const std::vector<std::shared_ptr<DFDownloadOperation>>& queue) {
    std::vector<std::string> out;
    for (auto& r : queue) out.push_back(r->filename().value_or("?"));
    return out;
  }

  TestHost host_;
};

// Records which callbacks arrived; `only` limits it to one kind, like an
// observer that implements a single method.
struct RecordingObserver : DFDownloadManagerDelegate {
  std::vector<std::string> calls;
  void downloadOperationChanged(DFDownloadManager&, const Record& r) override {
    calls.push_back("changed " + r->filename().value_or(""));
  }
  void downloadOperationRemoved(DFDownloadManager&, const Record& r) override {
    calls.push_back("removed " + r->filename().value_or(""));
  }
};

struct AddedOnlyObserver : DFDownloadManagerDelegate {
  int added = 0;
  void downloadOperationAdded(DFDownloadManager&, const Record&) override { ++added; }
};

TEST_F(ManagerTest, EmptyStartHasNoQueueNoTransfersAndARunningTimer) {
  auto manager = DFDownloadManager::init();
  EXPECT_TRUE(manager->downloadOperations().empty());
  EXPECT_FALSE(manager->downloadsInProgress());
  EXPECT_TRUE(manager->retryTimerRunning());
  EXPECT_TRUE(fs::exists(host_.layout().databasesDirectory() + "/DFDownloadManager.sqlite"));
}

TEST_F(ManagerTest, SavedRecordsComeBackInPriorityOrder) {
  store("two", 2);
  store("zero", 0);
  store("one", 1);
  auto manager = DFDownloadManager::init();
  EXPECT_EQ(names(manager->downloadOperations()), (std::vector<std::string>{"zero", "one", "two"}));
}

TEST_F(ManagerTest, QueueCopyDoesNotFollowLaterChanges) {
  store("a", 0);
  auto manager = DFDownloadManager::init();
  auto copy = manager->downloadOperations();
  copy.clear();
  EXPECT_EQ(manager->downloadOperations().size(), 1u);
}

TEST_F(ManagerTest, UpdateSavesTheRecordAndTellsObserversThatImplementChanged) {
  store("file", 0);
  auto manager = DFDownloadManager::init();
  auto recording = std::make_shared<RecordingObserver>();
  auto addedOnly = std::make_shared<AddedOnlyObserver>();
  manager->addDelegate(recording);
  manager->addDelegate(addedOnly);

  auto record = manager->downloadOperations().front();
  record->setPosition(4096);
  manager->updateDownloadOperation(record);

  EXPECT_EQ(recording->calls, (std::vector<std::string>{"changed file"}));
  EXPECT_EQ(addedOnly->added, 0);
  manager.reset();
  auto restarted = DFDownloadManager::init();
  EXPECT_EQ(restarted->downloadOperations().front()->position(), 4096);
}

TEST_F(ManagerTest, ObserversAreHeldWeaklyAndMayChangeTheSetDuringANotification) {
  store("file", 0);
  auto manager = DFDownloadManager::init();
  auto first = std::make_shared<RecordingObserver>();
  auto second = std::make_shared<RecordingObserver>();
  auto gone = std::make_shared<RecordingObserver>();
  struct Remover : DFDownloadManagerDelegate {
    std::weak_ptr<DFDownloadManagerDelegate> victim;
    void downloadOperationChanged(DFDownloadManager& m, const Record&) override {
      if (auto v = victim.lock()) m.removeDelegate(v.get());
    }
  };
  auto remover = std::make_shared<Remover>();
  remover->victim = second;
  manager->addDelegate(first);
  manager->addDelegate(remover);
  manager->addDelegate(second);
  manager->addDelegate(gone);
  manager->addDelegate(first);  // a second add changes nothing
  gone.reset();

  auto record = manager->downloadOperations().front();
  manager->updateDownloadOperation(record);
  EXPECT_EQ(first->calls.size(), 1u);
  EXPECT_EQ(second->calls.size(), 1u) << "the notification in progress still reaches it";
  manager->updateDownloadOperation(record);
  EXPECT_EQ(first->calls.size(), 2u);
  EXPECT_EQ(second->calls.size(), 1u) << "removed for later notifications";
}

TEST_F(ManagerTest, FreshSettingsAreLimitThreeCellularAllowedDownloadsPermitted) {
  auto manager = DFDownloadManager::init();
  EXPECT_EQ(manager->maxActiveDownloadCount(), 3);
  EXPECT_TRUE(manager->useCellularData());
  EXPECT_TRUE(manager->downloadsPermitted());
}

TEST_F(ManagerTest, SettersWriteToDiskAtOnceAndStoredValuesAreUsedAsTheyAre) {
  auto manager = DFDownloadManager::init();
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
  auto file = nlohmann::json::parse(in);
  EXPECT_EQ(file["DFMaxActiveDownloadCountPreference"], 7);
  EXPECT_EQ(file["DFUseCellularDataPreference"], false);
  EXPECT_EQ(file["DFDownloadsPermittedPreference"], false);
}

TEST_F(ManagerTest, TmpFilePathIsNamedByTheRecordInsideItsOwnFolder) {
  std::string folder = host_.layout().library + "/DownloaderTmpFiles";
  EXPECT_FALSE(fs::exists(folder));
  EXPECT_EQ(DFDownloadManager::tmpFilePathForFilename("ABC"), folder + "/ABC");
  EXPECT_TRUE(fs::is_directory(folder));
  fs::remove_all(folder);
  DFDownloadManager::tmpFilePathForFilename("ABC");
  EXPECT_TRUE(fs::is_directory(folder)) << "the folder is made again on every call";
}

}  // namespace
