// The host's persistent store of keyed archives by unique id.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "module/platform/KeyedArchive.h"
#include "module/platform/Log.h"

namespace platform {

class RecordDatabase {
 public:
  virtual ~RecordDatabase() = default;

  using Factory = std::function<std::shared_ptr<RecordDatabase>(const std::string& name, int64_t limit)>;
  // Opens (creating if needed) the database called `name`. `limit` caps the
  // number of items, dropping the oldest; 0 means no limit.
  static std::shared_ptr<RecordDatabase> initWithName(const std::string& name, int64_t limit);
  // The host (or a test) decides where databases live.
  static void setFactory(Factory factory);

  // Every stored archive, by unique id, as stored bytes.
  virtual std::unordered_map<std::string, std::string> itemData() = 0;
  virtual void insertItemWithUniqueId(const std::string& uniqueId, const Archivable& item) = 0;
  // Rewrites an item that is stored; an id that is not stored is left absent.
  virtual void updateItemWithUniqueId(const std::string& uniqueId, const Archivable& item) = 0;
  virtual void removeItemWithUniqueId(const std::string& uniqueId) = 0;

  // Every stored item decoded with T::initWithCoder. An item that does not
  // decode is logged and skipped; it stays stored.
  template <class T>
  std::unordered_map<std::string, std::shared_ptr<T>> items() {
    return decodeItems<T>(itemData());
  }

  // The same for archives already read with itemData().
  template <class T>
  static std::unordered_map<std::string, std::shared_ptr<T>> decodeItems(
      const std::unordered_map<std::string, std::string>& stored) {
    std::unordered_map<std::string, std::shared_ptr<T>> decoded;
    decoded.reserve(stored.size());
    for (const auto& [uniqueId, data] : stored) {
      KeyedUnarchiver coder = KeyedUnarchiver::fromData(data);
      std::shared_ptr<T> item = coder.failed() ? nullptr : T::initWithCoder(coder);
      if (!item) {
        log("record database: skipping item " + uniqueId + ": its archive cannot be decoded");
        continue;
      }
      decoded.emplace(uniqueId, std::move(item));
    }
    return decoded;
  }
};

}  // namespace platform
