// RecordDatabase on SQLite (WAL): one file per database name, one row per unique id.
#pragma once

#include <memory>
#include <string>

#include "module/platform/RecordDatabase.h"

struct sqlite3;
struct sqlite3_stmt;

namespace shelfkit {

class SqliteRecordDatabase : public platform::RecordDatabase,
                             public std::enable_shared_from_this<SqliteRecordDatabase> {
 public:
  // Opens or creates the database file at `path`. A file SQLite cannot read as
  // a database is moved aside (".corrupt"), logged, and a fresh one is made.
  // Returns null only when no database can be made at `path` at all.
  static std::shared_ptr<SqliteRecordDatabase> open(const std::string& path, int64_t limit);

  // A factory that keeps each named database as `directory`/NAME.sqlite.
  static Factory factoryInDirectory(std::string directory, bool batchesPerTurn = false);

  ~SqliteRecordDatabase() override;
  SqliteRecordDatabase(const SqliteRecordDatabase&) = delete;
  SqliteRecordDatabase& operator=(const SqliteRecordDatabase&) = delete;

  std::unordered_map<std::string, std::string> itemData() override;
  void insertItemWithUniqueId(const std::string& uniqueId, const platform::Archivable& item) override;
  void updateItemWithUniqueId(const std::string& uniqueId, const platform::Archivable& item) override;
  void removeItemWithUniqueId(const std::string& uniqueId) override;

  // Groups the writes until commitBatch() into one transaction.
  void beginBatch();
  void commitBatch();

  // When on, the writes made on the main thread during one turn of the main
  // loop go into one transaction, committed when the turn ends: renumbering a
  // queue of 10,000 records is one commit, not 10,000.
  void setBatchesWritesPerMainLoopTurn(bool batches) { batchesPerTurn_ = batches; }

 private:
  SqliteRecordDatabase(sqlite3* db, int64_t limit);
  bool prepare();
  void runWrite(sqlite3_stmt* statement);

  sqlite3* db_;
  const int64_t limit_;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* update_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
  sqlite3_stmt* trim_ = nullptr;
  bool batchesPerTurn_ = false;
  bool inTurnBatch_ = false;
};

}  // namespace shelfkit
