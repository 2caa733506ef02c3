// The host's persistent store of keyed archives by unique id.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "module/platform/KeyedArchive.h"
#include "module/platform/Log.h"
#include "module/platform/OperationQueue.h"

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

  // The same for archives already read with itemData(), shared out over
  // `threads` threads when there are many (a large queue loads at start-up).
  template <class T>
  static std::unordered_map<std::string, std::shared_ptr<T>> decodeItems(
      const std::unordered_map<std::string, std::string>& stored, std::size_t threads = 1) {
    std::vector<const std::pair<const std::string, std::string>*> entries;
    entries.reserve(stored.size());
    for (const auto& entry : stored) entries.push_back(&entry);
    std::vector<std::shared_ptr<T>> items(entries.size());
    auto decodeRange = [&](std::size_t from, std::size_t to) {
      for (std::size_t i = from; i < to; ++i) {
        KeyedUnarchiver coder = KeyedUnarchiver::fromData(entries[i]->second);
        if (!coder.failed()) items[i] = T::initWithCoder(coder);
      }
    };
    constexpr std::size_t kPerThreadAtLeast = 1000;
    threads = std::max<std::size_t>(1, std::min(threads, entries.size() / kPerThreadAtLeast));
    const std::size_t share = (entries.size() + threads - 1) / threads;
    if (threads > 1) {
      auto helpers = OperationQueue::create(threads - 1);
      for (std::size_t t = 1; t < threads; ++t)
        helpers->addOperation([&, t] { decodeRange(t * share, std::min(entries.size(), (t + 1) * share)); });
      decodeRange(0, share);
      helpers->waitUntilAllOperationsAreFinished();
    } else {
      decodeRange(0, entries.size());
    }
    std::unordered_map<std::string, std::shared_ptr<T>> decoded;
    decoded.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (!items[i]) {
        log("record database: skipping item " + entries[i]->first + ": its archive cannot be decoded");
        continue;
      }
      decoded.emplace(entries[i]->first, std::move(items[i]));
    }
    return decoded;
  }
};

}  // namespace platform
