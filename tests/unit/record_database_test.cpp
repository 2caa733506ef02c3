#include <gtest/gtest.h>

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "module/core/DFDownloadOperation.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

class RecordDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = makeTemporaryDirectory();
    path_ = dir_ + "/DFDownloadManager.sqlite";
  }
  void TearDown() override {
    fs::remove_all(dir_);
  }

  std::shared_ptr<shelfkit::SqliteRecordDatabase> open(int64_t limit = 0) {
    return shelfkit::SqliteRecordDatabase::open(path_, limit);
  }

  static std::shared_ptr<DFDownloadOperation> record(const char* name, int64_t priority = 0) {
    auto r = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(std::string("http://h.test/") + name));
    r->setFilename(name);
    r->setPriority(priority);
    return r;
  }

  // Writes raw bytes as the stored value of `uniqueId`, bypassing the archiver.
  void storeRaw(const std::string& uniqueId, const std::string& data) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO items(unique_id, data) VALUES(?1, ?2)", -1, &s, nullptr);
    sqlite3_bind_text(s, 1, uniqueId.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_blob(s, 2, data.data(), static_cast<int>(data.size()), SQLITE_TRANSIENT);
    EXPECT_EQ(sqlite3_step(s), SQLITE_DONE);
    sqlite3_finalize(s);
    sqlite3_close(db);
  }

  std::string dir_, path_;
  LogCapture log_;
  std::vector<std::string>& logs_ = log_.lines;
};

TEST_F(RecordDatabaseTest, WritesSurviveReopening) {
  auto a = record("a"), b = record("b"), c = record("c");
  {
    auto db = open();
    ASSERT_TRUE(db);
    db->insertItemWithUniqueId(a->uniqueId(), *a);
    db->insertItemWithUniqueId(b->uniqueId(), *b);
    db->insertItemWithUniqueId(c->uniqueId(), *c);
    b->setPosition(123);
    db->updateItemWithUniqueId(b->uniqueId(), *b);
    db->removeItemWithUniqueId(c->uniqueId());
  }
  auto items = open()->items<DFDownloadOperation>();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items.at(a->uniqueId())->filename(), "a");
  EXPECT_EQ(items.at(b->uniqueId())->position(), 123);
  EXPECT_FALSE(items.count(c->uniqueId()));
}

TEST_F(RecordDatabaseTest, UpdateOfAnIdThatIsNotStoredDoesNotAddIt) {
  auto db = open();
  auto gone = record("gone");
  db->updateItemWithUniqueId(gone->uniqueId(), *gone);
  EXPECT_TRUE(db->items<DFDownloadOperation>().empty());
}

TEST_F(RecordDatabaseTest, InsertingTheSameIdTwiceKeepsOneItem) {
  auto db = open();
  auto a = record("a");
  db->insertItemWithUniqueId(a->uniqueId(), *a);
  a->setSize(99);
  db->insertItemWithUniqueId(a->uniqueId(), *a);
  auto items = db->items<DFDownloadOperation>();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items.begin()->second->size(), 99);
}

TEST_F(RecordDatabaseTest, UndecodableRowIsSkippedLoggedAndKept) {
  auto good = record("good");
  open()->insertItemWithUniqueId(good->uniqueId(), *good);
  storeRaw("BROKEN", "\x01\x02 not an archive");

  auto db = open();
  auto items = db->items<DFDownloadOperation>();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_TRUE(items.count(good->uniqueId()));
  ASSERT_EQ(logs_.size(), 1u);
  EXPECT_NE(logs_[0].find("BROKEN"), std::string::npos);
  EXPECT_TRUE(db->itemData().count("BROKEN")) << "the bad row must not be deleted";
}

TEST_F(RecordDatabaseTest, FileThatIsNotADatabaseIsMovedAsideAndAFreshOneMade) {
  std::string garbage(8192, 'x');
  std::ofstream(path_, std::ios::binary) << garbage;

  auto db = open();
  ASSERT_TRUE(db);
  EXPECT_TRUE(db->items<DFDownloadOperation>().empty());
  auto a = record("a");
  db->insertItemWithUniqueId(a->uniqueId(), *a);
  EXPECT_EQ(db->items<DFDownloadOperation>().size(), 1u);

  std::ifstream aside(path_ + ".corrupt", std::ios::binary);
  std::string kept((std::istreambuf_iterator<char>(aside)), {});
  EXPECT_EQ(kept, garbage) << "the unreadable file is kept as it was";
  ASSERT_FALSE(logs_.empty());
  EXPECT_NE(logs_.back().find(".corrupt"), std::string::npos);
}

TEST_F(RecordDatabaseTest, LimitDropsTheOldestItems) {
  auto db = open(/*limit=*/2);
  std::vector<std::shared_ptr<DFDownloadOperation>> records = {record("1"), record("2"), record("3")};
  for (auto& r : records) db->insertItemWithUniqueId(r->uniqueId(), *r);
  db->removeItemWithUniqueId(records[1]->uniqueId());
  auto r4 = record("4");
  db->insertItemWithUniqueId(r4->uniqueId(), *r4);
  auto items = db->items<DFDownloadOperation>();
  EXPECT_EQ(items.size(), 2u);
  EXPECT_TRUE(items.count(records[2]->uniqueId()));
  EXPECT_TRUE(items.count(r4->uniqueId()));
}

TEST_F(RecordDatabaseTest, BatchIsOneTransaction) {
  auto db = open();
  db->beginBatch();
  for (int i = 0; i < 100; ++i) {
    auto r = record("r", i);
    db->insertItemWithUniqueId(r->uniqueId(), *r);
  }
  // Another connection sees nothing until the batch commits.
  EXPECT_TRUE(open()->itemData().empty());
  db->commitBatch();
  EXPECT_EQ(open()->itemData().size(), 100u);
}

}  // namespace
