#include "module/platform/RecentItems.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "module/platform/FileManager.h"
#include "shelfkit/runtime/AtomicFile.h"

namespace platform {
namespace {

constexpr size_t kMaxItems = 200;

}  // namespace

RecentItemsSourceBase::RecentItemsSourceBase(std::string name) : name_(std::move(name)) {}

std::string RecentItemsSourceBase::storagePath() const {
  auto files = FileManager::defaultManager();
  std::string directory = files->libraryDirectory() + "/RecentItems";
  files->createDirectoryAtPath(directory);
  return directory + "/" + name_ + ".json";
}

std::vector<RecentItem> RecentItemsSourceBase::load() const {
  std::vector<RecentItem> items;
  std::ifstream in(storagePath());
  if (!in) return items;
  std::stringstream text;
  text << in.rdbuf();
  auto json = nlohmann::json::parse(text.str(), nullptr, false);
  if (!json.is_array()) return items;
  for (const auto& entry : json) {
    if (entry.is_object() && entry.value("path", nlohmann::json()).is_string() &&
        entry.value("uniqueId", nlohmann::json()).is_string())
      items.push_back({entry["path"].get<std::string>(), entry["uniqueId"].get<std::string>()});
  }
  return items;
}

void RecentItemsSourceBase::addItemWithFilename(const std::string& path, const std::string& uniqueId) {
  std::lock_guard lock(mutex_);
  std::vector<RecentItem> items = load();
  std::erase_if(items, [&](const RecentItem& item) { return item.uniqueId == uniqueId || item.path == path; });
  items.insert(items.begin(), {path, uniqueId});
  if (items.size() > kMaxItems) items.resize(kMaxItems);
  store(items);
}

void RecentItemsSourceBase::store(const std::vector<RecentItem>& items) const {
  nlohmann::json json = nlohmann::json::array();
  for (const auto& item : items) json.push_back({{"path", item.path}, {"uniqueId", item.uniqueId}});
  shelfkit::writeFileAtomically(storagePath(), json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

void RecentItemsSourceBase::fileMoved(const std::string& from, const std::optional<std::string>& to) {
  std::lock_guard lock(mutex_);
  // Paths are compared resolved: the host and a module may name the folder differently.
  auto resolved = [](const std::string& path) {
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(path, error);
    return error ? std::filesystem::path(path).lexically_normal() : canonical;
  };
  const auto moved = resolved(from);
  std::vector<RecentItem> items = load();
  bool changed = false;
  for (auto it = items.begin(); it != items.end();) {
    if (resolved(it->path) != moved) {
      ++it;
      continue;
    }
    changed = true;
    if (!to) {
      it = items.erase(it);
      continue;
    }
    it->path = *to;
    ++it;
  }
  if (changed) store(items);
}

std::vector<RecentItem> RecentItemsSourceBase::items() const {
  std::lock_guard lock(mutex_);
  std::vector<RecentItem> items = load();
  auto files = FileManager::defaultManager();
  std::erase_if(items, [&](const RecentItem& item) { return !files->fileExistsAtPath(item.path); });
  return items;
}

std::shared_ptr<RecentItemsRegistry> RecentItemsRegistry::sharedInstance() {
  static auto* instance = new std::shared_ptr<RecentItemsRegistry>(std::make_shared<RecentItemsRegistry>());
  return *instance;
}

void RecentItemsRegistry::addRecentItemsSource(std::shared_ptr<RecentItemsSourceBase> source) {
  std::lock_guard lock(mutex_);
  sources_.push_back(std::move(source));
}

void RecentItemsRegistry::fileMoved(const std::string& from, const std::optional<std::string>& to) {
  for (const auto& source : sources()) source->fileMoved(from, to);
}

std::vector<std::shared_ptr<RecentItemsSourceBase>> RecentItemsRegistry::sources() const {
  std::lock_guard lock(mutex_);
  auto sources = sources_;
  std::stable_sort(sources.begin(), sources.end(),
                   [](const auto& a, const auto& b) { return a->priority() > b->priority(); });
  return sources;
}

}  // namespace platform
