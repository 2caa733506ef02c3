#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "module/core/DFDownloadManager.h"
#include "module/platform/MediaLibraryProbe.h"
#include "module/platform/UserDefaults.h"
#include "module/transfer/DFDownloadOperationBasicDataLoader.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "tests/support/Journal.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A loader that transfers nothing; the test makes it report.
class FakeLoader : public DFDownloadOperationDataLoader {
 public:
  using DFDownloadOperationDataLoader::DFDownloadOperationDataLoader;
  void fail() {
    if (auto d = delegate()) d->downloadOperationDataLoader(*this, std::string("Failed"));
  }
  void succeed() {
    if (auto d = delegate()) d->downloadOperationDataLoader(*this, std::nullopt);
  }
};

// Stores active records with these names, in queue order, as an earlier run would have left them.
void storeActiveRecords(const TestHost& host, const std::vector<std::string>& names, const std::string& url) {
  auto db = shelfkit::SqliteRecordDatabase::open(host.layout().databasesDirectory() + "/DFDownloadManager.sqlite", 0);
  for (size_t i = 0; i < names.size(); ++i) {
    auto r = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(url));
    r->setFilename(names[i]);
    r->setPriority(static_cast<int64_t>(i));
    r->setActive(true);
    db->insertItemWithUniqueId(r->uniqueId(), *r);
  }
}

class SchedulingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DFDownloadManager::setDataLoaderFactoryForTesting(
        [this](const DFDownloadManager::Record& r, const std::string& path,
               std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate) {
          auto loader = std::make_shared<FakeLoader>(r, path, delegate);
          loaders_[r->filename().value_or("")] = loader;
          return loader;
        });
  }
  void TearDown() override { DFDownloadManager::setDataLoaderFactoryForTesting(nullptr); }

  // Saves active records f0..f(n-1) in queue order, then starts a manager.
  std::shared_ptr<DFDownloadManager> managerWithActiveRecords(int n) {
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) names.push_back("f" + std::to_string(i));
    storeActiveRecords(host_, names, "http://h.test/f");
    auto manager = DFDownloadManager::init();
    manager->addDelegate(journal_);
    journal_->take();
    return manager;
  }

  static std::vector<std::string> running(DFDownloadManager& manager) {
    std::vector<std::string> names;
    for (auto& r : manager.downloadOperations())
      if (manager.downloadOperationInProgress(r)) names.push_back(*r->filename());
    return names;
  }

  TestHost host_;
  std::shared_ptr<Journal> journal_ = std::make_shared<Journal>();
  std::map<std::string, std::shared_ptr<FakeLoader>> loaders_;
};

using Events = std::vector<std::string>;

TEST_F(SchedulingTest, TheLimitStartsTheEarliestAndAnEndingOrRemovedTransferMakesRoomForTheNext) {
  auto manager = managerWithActiveRecords(7);
  EXPECT_EQ(running(*manager), (Events{"f0", "f1", "f2"}));
  auto queue = manager->downloadOperations();
  for (const auto& r : {queue[0], queue[1], queue[2]})
    std::ofstream(DFDownloadManager::tmpFilePathForFilename(r->uniqueId())) << "done";
  queue[1]->setSize(4);
  queue[1]->setPosition(4);
  loaders_["f1"]->succeed();
  EXPECT_EQ(journal_->take(), (Events{"completed f1", "removed f1", "started f3"}));
  // A record of unknown size has written nothing by the scheduler's count: it ends Stopped.
  loaders_["f2"]->succeed();
  EXPECT_EQ(journal_->take(), (Events{"stopped f2", "removed f2", "started f4"}));
  EXPECT_EQ(running(*manager), (Events{"f0", "f3", "f4"}));

  manager->removeDownloadOperation(queue[6]);  // not running
  EXPECT_EQ(journal_->take(), (Events{"removed f6"}));
  manager->removeDownloadOperation(queue[0]);  // running: its partial data goes too
  EXPECT_EQ(journal_->take(), (Events{"stopped f0", "removed f0", "started f5"}));
  EXPECT_FALSE(fs::exists(DFDownloadManager::tmpFilePathForFilename(queue[0]->uniqueId())));
  manager.reset();
  EXPECT_EQ(DFDownloadManager::init()->downloadOperations().size(), 3u) << "removed from the database too";
}

TEST_F(SchedulingTest, LimitChangesAndDeactivationStopTheNewestAndStartInQueueOrder) {
  auto manager = managerWithActiveRecords(5);
  manager->setMaxActiveDownloadCount(1);
  EXPECT_EQ(journal_->take(), (Events{"stopped f1", "stopped f2"}));
  EXPECT_EQ(running(*manager), (Events{"f0"}));
  manager->setMaxActiveDownloadCount(-1);
  EXPECT_EQ(running(*manager).size(), 5u) << "a negative limit is unbounded";
  manager->setMaxActiveDownloadCount(0);
  EXPECT_TRUE(running(*manager).empty());
  EXPECT_FALSE(manager->downloadsInProgress());
  manager->setMaxActiveDownloadCount(3);
  EXPECT_EQ(running(*manager), (Events{"f0", "f1", "f2"}));
  journal_->take();

  auto queue = manager->downloadOperations();
  manager->setActive(false, queue[0]);
  EXPECT_EQ(journal_->take(), (Events{"stopped f0", "started f3"}));
  manager->setActive(false, queue[0]);
  EXPECT_TRUE(journal_->take().empty()) << "no change, no event";
  manager->setMaxActiveDownloadCount(5);
  EXPECT_EQ(journal_->take(), (Events{"started f4"}));
  manager->setActive(true, queue[0]);
  EXPECT_EQ(journal_->take(), (Events{"started f0"}));
  manager->stopDataLoadingForDownloadOperation(queue[0]);
  manager->stopDataLoadingForDownloadOperation(queue[0]);
  EXPECT_EQ(journal_->take(), (Events{"stopped f0"})) << "a second stop finds no loader";
}

TEST_F(SchedulingTest, TheGateStopsEveryTransferOnceEachAndAFailedRecordWaitsTenSeconds) {
  platform::Date now = platform::now();
  platform::setClockForTesting([&] { return now; });
  host_.network().setState(true, false);  // cellular only
  auto manager = managerWithActiveRecords(3);
  auto second = std::make_shared<Journal>();
  manager->addDelegate(second);
  manager->setUseCellularData(false);
  const Events stopped = {"stopped f0", "stopped f1", "stopped f2"};
  EXPECT_EQ(journal_->take(), stopped);
  EXPECT_EQ(second->take(), stopped);
  // A lost route and its return: EndToEndTest.LosingTheNetworkStopsEachTransferOnceAndItsReturnResumesThem.
  manager->setUseCellularData(true);
  EXPECT_EQ(running(*manager).size(), 3u);
  manager->setDownloadsPermitted(false);
  EXPECT_TRUE(running(*manager).empty());
  for (auto& r : manager->downloadOperations()) EXPECT_TRUE(r->active()) << "the gate keeps the active flags";

  manager->setDownloadsPermitted(true);
  journal_->take();
  loaders_["f0"]->fail();
  EXPECT_EQ(journal_->take(), (Events{"stopped f0"}));
  now += 9s;
  manager->retryTimerFired();
  EXPECT_TRUE(journal_->take().empty());
  now += 2s;
  host_.network().setState(true, true);  // any event runs the scheduler
  EXPECT_EQ(journal_->take(), (Events{"started f0"}));
}

TEST(Loaders, PlaylistsByExactExtensionOthersChunkedAndBackgroundEventsReachOnlyTheLoaderOfTheirSession) {
  TestHost host;
  TestHttpServer server;
  server.setRoute("/x", {.size = 1000000, .stallBeforeBody = 200ms});
  storeActiveRecords(host, {"a.M3U8", "b.m3u8", "c.zip", "d.m3u"}, server.url("/x"));
  platform::UserDefaults::standardUserDefaults()->setInteger(-1, DFDownloadManager::kMaxActiveDownloadCountPreference);
  for (bool media : {true, false}) {
    SCOPED_TRACE(media ? "media library present" : "media library absent");
    platform::MediaLibraryProbe::setEnabled(media);
    auto manager = DFDownloadManager::init();
    for (auto& r : manager->downloadOperations()) {
      auto loader = manager->dataLoaderForDownloadOperation(r);
      ASSERT_TRUE(loader);
      bool chunked = dynamic_cast<DFDownloadOperationBasicDataLoader*>(loader.get()) != nullptr;
      bool playlist = r->filename() == "b.m3u8" || r->filename() == "d.m3u";
      EXPECT_EQ(chunked, !(media && playlist)) << *r->filename();
    }
    if (!media) {
      auto loader = manager->dataLoaderForDownloadOperation(manager->downloadOperations()[2]);
      ASSERT_TRUE(loader && loader->URLSessionIdentifier());
      int unknown = 0, known = 0;
      // Known first: a loader keeps only the last handler, so a misrouted unknown one would replace it.
      manager->handleEventsForURLSession(*loader->URLSessionIdentifier(), [&] { ++known; });
      manager->handleEventsForURLSession("00000000-0000-0000-0000-000000000000", [&] { ++unknown; });
      ASSERT_TRUE(host.runUntil([&] { return known > 0; }));
      host.loop().runFor(100ms);
      EXPECT_EQ(unknown, 0);
      EXPECT_EQ(known, 1);
    }
    manager->setDownloadsPermitted(false);
    platform::UserDefaults::standardUserDefaults()->setBool(true, DFDownloadManager::kDownloadsPermittedPreference);
  }
  platform::MediaLibraryProbe::setEnabled(true);
}

}  // namespace
