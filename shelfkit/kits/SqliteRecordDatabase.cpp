#include "shelfkit/kits/SqliteRecordDatabase.h"

#include <sqlite3.h>

#include <filesystem>

#include "module/platform/Log.h"
#include "module/platform/MainQueue.h"
#include "shelfkit/runtime/AtomicFile.h"

namespace shelfkit {
namespace {

constexpr const char* kSchema =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=NORMAL;"
    "CREATE TABLE IF NOT EXISTS items ("
    "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  unique_id TEXT NOT NULL UNIQUE,"
    "  data BLOB NOT NULL);";

// Opens `path` and sets up the schema; returns the SQLite result code.
int openAndSetUp(const std::string& path, sqlite3** db) {
  int rc = sqlite3_open_v2(path.c_str(), db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(*db, 5000);
    rc = sqlite3_exec(*db, kSchema, nullptr, nullptr, nullptr);
  }
  if (rc != SQLITE_OK) {
    sqlite3_close(*db);
    *db = nullptr;
  }
  return rc;
}

void bindText(sqlite3_stmt* s, int index, const std::string& text) {
  sqlite3_bind_text(s, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

}  // namespace

std::shared_ptr<SqliteRecordDatabase> SqliteRecordDatabase::open(const std::string& path, int64_t limit) {
  sqlite3* db = nullptr;
  int rc = openAndSetUp(path, &db);
  if (rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT) {
    std::string aside = moveAside(path);
    for (const char* suffix : {"-wal", "-shm"}) ::rename((path + suffix).c_str(), (aside + suffix).c_str());
    platform::log("record database: " + path + " is not a readable database; kept aside as " + aside +
                  ", starting empty");
    rc = openAndSetUp(path, &db);
  }
  if (rc != SQLITE_OK) {
    platform::log("record database: cannot open " + path + ": " + sqlite3_errstr(rc));
    return nullptr;
  }
  std::shared_ptr<SqliteRecordDatabase> database(new SqliteRecordDatabase(db, limit));
  if (!database->prepare()) return nullptr;
  return database;
}

platform::RecordDatabase::Factory SqliteRecordDatabase::factoryInDirectory(std::string directory, bool batchesPerTurn) {
  return [directory = std::move(directory), batchesPerTurn](const std::string& name,
                                                            int64_t limit) -> std::shared_ptr<RecordDatabase> {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    auto database = open(directory + "/" + name + ".sqlite", limit);
    if (database) database->setBatchesWritesPerMainLoopTurn(batchesPerTurn);
    return database;
  };
}

SqliteRecordDatabase::SqliteRecordDatabase(sqlite3* db, int64_t limit) : db_(db), limit_(limit) {}

SqliteRecordDatabase::~SqliteRecordDatabase() {
  if (inTurnBatch_) commitBatch();
  for (sqlite3_stmt* s : {select_, insert_, update_, remove_, trim_}) sqlite3_finalize(s);
  sqlite3_close(db_);
}

bool SqliteRecordDatabase::prepare() {
  struct {
    sqlite3_stmt** statement;
    const char* sql;
  } statements[] = {
      {&select_, "SELECT unique_id, data FROM items"},
      {&insert_,
       "INSERT INTO items(unique_id, data) VALUES(?1, ?2) "
       "ON CONFLICT(unique_id) DO UPDATE SET data = excluded.data"},
      {&update_, "UPDATE items SET data = ?2 WHERE unique_id = ?1"},
      {&remove_, "DELETE FROM items WHERE unique_id = ?1"},
      {&trim_, "DELETE FROM items WHERE seq NOT IN (SELECT seq FROM items ORDER BY seq DESC LIMIT ?1)"},
  };
  for (auto& s : statements) {
    if (sqlite3_prepare_v3(db_, s.sql, -1, SQLITE_PREPARE_PERSISTENT, s.statement, nullptr) != SQLITE_OK) {
      platform::log(std::string("record database: ") + sqlite3_errmsg(db_));
      return false;
    }
  }
  return true;
}

std::unordered_map<std::string, std::string> SqliteRecordDatabase::itemData() {
  std::unordered_map<std::string, std::string> items;
  while (sqlite3_step(select_) == SQLITE_ROW) {
    auto text = [&](int column) {
      const void* bytes = sqlite3_column_blob(select_, column);
      int length = sqlite3_column_bytes(select_, column);
      return bytes ? std::string(static_cast<const char*>(bytes), static_cast<size_t>(length)) : std::string();
    };
    items.emplace(text(0), text(1));
  }
  sqlite3_reset(select_);
  return items;
}

void SqliteRecordDatabase::runWrite(sqlite3_stmt* statement) {
  if (batchesPerTurn_ && !inTurnBatch_ && platform::isMainThread()) {
    beginBatch();
    inTurnBatch_ = true;
    std::weak_ptr<SqliteRecordDatabase> weak = weak_from_this();
    platform::dispatchAsyncMain([weak] {
      if (auto self = weak.lock(); self && self->inTurnBatch_) {
        self->inTurnBatch_ = false;
        self->commitBatch();
      }
    });
  }
  int rc = sqlite3_step(statement);
  if (rc != SQLITE_DONE) platform::log(std::string("record database: write failed: ") + sqlite3_errmsg(db_));
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
}

void SqliteRecordDatabase::insertItemWithUniqueId(const std::string& uniqueId, const platform::Archivable& item) {
  platform::KeyedArchiver coder;
  item.encodeWithCoder(coder);
  bindText(insert_, 1, uniqueId);
  bindText(insert_, 2, coder.encodedData());
  runWrite(insert_);
  if (limit_ > 0) {
    sqlite3_bind_int64(trim_, 1, limit_);
    runWrite(trim_);
  }
}

void SqliteRecordDatabase::updateItemWithUniqueId(const std::string& uniqueId, const platform::Archivable& item) {
  platform::KeyedArchiver coder;
  item.encodeWithCoder(coder);
  bindText(update_, 1, uniqueId);
  bindText(update_, 2, coder.encodedData());
  runWrite(update_);
}

void SqliteRecordDatabase::removeItemWithUniqueId(const std::string& uniqueId) {
  bindText(remove_, 1, uniqueId);
  runWrite(remove_);
}

void SqliteRecordDatabase::beginBatch() { sqlite3_exec(db_, "BEGIN", nullptr, nullptr, nullptr); }

void SqliteRecordDatabase::commitBatch() { sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr); }

}  // namespace shelfkit
