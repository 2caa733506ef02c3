#include <gtest/gtest.h>

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "module/core/DFDownloadOperation.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHost.h"

namespace {

class RecordDatabaseTest : public ::testing::Test {
 protected:
  std::shared_ptr<shelfkit::SqliteRecordDatabase> open(int64_t limit = 0) {
    return shelfkit::SqliteRecordDatabase::open(path_, limit);
  }
  // Inserts a record named `name` and returns it.
  static std::shared_ptr<DFDownloadOperation> insert(shelfkit::SqliteRecordDatabase& db, const char* name) {
    auto r = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(std::string("http://h.test/") + name));
    r->setFilename(name);
    db.insertItemWithUniqueId(r->uniqueId(), *r);
    return r;
  }

  TestHost host_;
  const std::string path_ = host_.layout().root + "/DFDownloadManager.sqlite";
  LogCapture log_;
};

TEST_F(RecordDatabaseTest, ABatchIsOneTransactionAndWritesSurviveReopening) {
  std::shared_ptr<DFDownloadOperation> a, b, c;
  {
    auto db = open();
    ASSERT_TRUE(db);
    db->beginBatch();
    a = insert(*db, "a");
    b = insert(*db, "b");
    c = insert(*db, "c");
    // Another connection sees nothing until the batch commits.
    EXPECT_TRUE(open()->itemData().empty());
    db->commitBatch();
    EXPECT_EQ(open()->itemData().size(), 3u);
    b->setPosition(123);
    db->updateItemWithUniqueId(b->uniqueId(), *b);
    db->removeItemWithUniqueId(c->uniqueId());
    a->setSize(99);
    db->insertItemWithUniqueId(a->uniqueId(), *a);  // the same id again replaces the item
    auto gone = DFDownloadOperation::initWithURL(*platform::URL::URLWithString("http://h.test/gone"));
    db->updateItemWithUniqueId(gone->uniqueId(), *gone);  // an update of an id not stored does not add it
  }
  auto items = open()->items<DFDownloadOperation>();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items.at(a->uniqueId())->size(), 99);
  EXPECT_EQ(items.at(b->uniqueId())->position(), 123);
}

TEST_F(RecordDatabaseTest, UndecodableRowIsSkippedLoggedAndKept) {
  auto good = insert(*open(), "good");
  // Bytes that are no archive, written past the archiver.
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &raw), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(raw, "INSERT INTO items(unique_id, data) VALUES('BROKEN', x'0102206e6f7420616e2061726368697665')",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(raw);

  auto db = open();
  auto items = db->items<DFDownloadOperation>();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_TRUE(items.count(good->uniqueId()));
  ASSERT_EQ(log_.lines.size(), 1u);
  EXPECT_NE(log_.lines[0].find("BROKEN"), std::string::npos);
  EXPECT_TRUE(db->itemData().count("BROKEN")) << "the bad row must not be deleted";
}

TEST_F(RecordDatabaseTest, FileThatIsNotADatabaseIsMovedAsideAndAFreshOneMade) {
  std::string garbage(8192, 'x');
  std::ofstream(path_, std::ios::binary) << garbage;

  auto db = open();
  ASSERT_TRUE(db);
  EXPECT_TRUE(db->items<DFDownloadOperation>().empty());
  insert(*db, "a");
  EXPECT_EQ(db->items<DFDownloadOperation>().size(), 1u);
  EXPECT_EQ(readFile(path_ + ".corrupt"), garbage) << "the unreadable file is kept as it was";
  ASSERT_FALSE(log_.lines.empty());
  EXPECT_NE(log_.lines.back().find(".corrupt"), std::string::npos);
}

TEST_F(RecordDatabaseTest, LimitDropsTheOldestItems) {
  auto db = open(/*limit=*/2);
  insert(*db, "1");
  auto second = insert(*db, "2");
  auto third = insert(*db, "3");
  db->removeItemWithUniqueId(second->uniqueId());
  auto fourth = insert(*db, "4");
  auto items = db->items<DFDownloadOperation>();
  EXPECT_EQ(items.size(), 2u);
  EXPECT_TRUE(items.count(third->uniqueId()));
  EXPECT_TRUE(items.count(fourth->uniqueId()));
}

}  // namespace
