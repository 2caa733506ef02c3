// The host's recent-items list: sources of recent files, each keeping its
// items (path and file identifier) persistently in the host's Library.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace platform {

struct RecentItem {
  std::string path;
  std::string uniqueId;
};

class RecentItemsSourceBase {
 public:
  // Items are kept under `name` in the host's Library.
  explicit RecentItemsSourceBase(std::string name);
  virtual ~RecentItemsSourceBase() = default;

  const std::string& name() const { return name_; }
  // Adds a file, newest first; an item with the same identifier is replaced. REQUIRES: main thread.
  void addItemWithFilename(const std::string& path, const std::string& uniqueId);
  // The items, newest first, that still exist on disk.
  std::vector<RecentItem> items() const;
  // The host renamed the file at `from` to `to`, or removed it (no `to`): its
  // item follows, or is forgotten. REQUIRES: main thread.
  void fileMoved(const std::string& from, const std::optional<std::string>& to);

  virtual std::string title() const = 0;
  virtual std::string iconName() const = 0;
  virtual std::string iconBundle() const = 0;
  virtual int64_t priority() const = 0;
  virtual std::string accessibilityLabel() const = 0;

 private:
  std::string storagePath() const;
  std::vector<RecentItem> load() const;
  void store(const std::vector<RecentItem>& items) const;

  const std::string name_;
  mutable std::mutex mutex_;
};

// Sources are listed by descending priority. Thread-safe.
class RecentItemsRegistry {
 public:
  static std::shared_ptr<RecentItemsRegistry> sharedInstance();
  void addRecentItemsSource(std::shared_ptr<RecentItemsSourceBase> source);
  std::vector<std::shared_ptr<RecentItemsSourceBase>> sources() const;
  // Tells every source (see RecentItemsSourceBase::fileMoved).
  void fileMoved(const std::string& from, const std::optional<std::string>& to);

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<RecentItemsSourceBase>> sources_;
};

}  // namespace platform
