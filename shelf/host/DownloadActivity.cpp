#include "shelf/host/DownloadActivity.h"

#include <cmath>
#include <filesystem>

#include "module/platform/Localization.h"
#include "module/platform/MainQueue.h"
#include "module/platform/RecentItems.h"
#include "module/platform/ui/Formatting.h"

namespace shelf {
namespace {

// More rows than this are not described in one message (the rest say nothing).
constexpr size_t kMaxDescribedRows = 500;
constexpr const char* kSeparator = " \u00B7 ";

std::string hostText(const char* english) { return platform::localizedString("shelf", english); }

// The translation of `english` with "%d" replaced by `count`.
std::string counted(const char* english, int64_t count) {
  std::string text = hostText(english);
  if (auto at = text.find("%d"); at != std::string::npos) text.replace(at, 2, std::to_string(count));
  return text;
}

// A download leaves the queue when its file is placed (and right after, its file
// becomes the newest recent item) or when the user removes it. The file placed
// is named after the download, perhaps with a number added: "a.zip", "a(1).zip".
std::optional<std::string> placedFile(const platform::DownloadItem& item) {
  const auto name = item.outputFilename ? item.outputFilename : item.filename;
  if (!name || name->empty()) return std::nullopt;
  const std::string stem = std::filesystem::path(*name).stem().string();
  for (const auto& source : platform::RecentItemsRegistry::sharedInstance()->sources()) {
    const auto items = source->items();
    if (items.empty()) continue;
    if (std::filesystem::path(items.front().path).filename().string().starts_with(stem)) return items.front().path;
  }
  return std::nullopt;
}

std::shared_ptr<DownloadActivity>& shared() {
  static auto* instance = new std::shared_ptr<DownloadActivity>();  // main thread only
  return *instance;
}

}  // namespace

std::string speedText(double bytesPerSecond) {
  return platform::fileSizeString(std::llround(bytesPerSecond)) + hostText("/s");
}

std::string timeLeftText(double seconds) {
  const auto s = static_cast<int64_t>(std::ceil(std::max(seconds, 1.0)));
  if (s < 10) return counted("about %d s left", s);
  if (s < 60) return counted("about %d s left", (s + 4) / 5 * 5);
  if (s < 90 * 60) return counted("about %d min left", (s + 30) / 60);
  return counted("about %d h left", (s + 1800) / 3600);
}

std::string retryText(double secondsToRetry) {
  const auto s = static_cast<int64_t>(std::ceil(std::max(secondsToRetry, 0.0)));
  if (s < 120) return counted("next try in %d s", s);
  return counted("next try in %d min", (s + 30) / 60);
}

std::shared_ptr<DownloadActivity> DownloadActivity::sharedInstance() { return shared(); }

void DownloadActivity::start() {
  DCHECK_ON_MAIN();
  if (shared()) return;
  shared() = std::make_shared<DownloadActivity>();
  if (auto service = platform::DownloadService::sharedInstance()) service->addObserver(shared());
}

void DownloadActivity::downloadServiceEvent(platform::DownloadEvent event, const platform::DownloadItem& item) {
  if (event == platform::DownloadEvent::Removed) {
    rates_.erase(item.uniqueId);
    // The recent items learn of a placed file right after its removal.
    std::weak_ptr<DownloadActivity> weak = weak_from_this();
    platform::dispatchAsyncMain([weak, item] {
      auto self = weak.lock();
      auto placed = self ? placedFile(item) : std::nullopt;
      if (!placed) return;
      std::erase(self->finished_, *placed);
      self->finished_.insert(self->finished_.begin(), *placed);
      if (self->finished_.size() > kFinishedKept) self->finished_.pop_back();
    });
    return;
  }
  record(item, Clock::now());
}

void DownloadActivity::record(const platform::DownloadItem& item, Clock::time_point now) {
  DCHECK_ON_MAIN();
  if (!item.inProgress) {
    rates_.erase(item.uniqueId);
    return;
  }
  rates_[item.uniqueId].add(now, item.position);
}

std::optional<TransferEstimate> DownloadActivity::estimate(const platform::DownloadItem& item, Clock::time_point now) const {
  if (!item.inProgress) return std::nullopt;
  auto found = rates_.find(item.uniqueId);
  if (found == rates_.end()) return std::nullopt;
  auto rate = found->second.bytesPerSecond(now);
  if (!rate) return std::nullopt;
  TransferEstimate estimate{*rate, std::nullopt};
  if (item.size > 0 && *rate > 0) estimate.secondsLeft = static_cast<double>(std::max<int64_t>(0, item.size - item.position)) / *rate;
  return estimate;
}

nlohmann::json DownloadActivity::message(const std::vector<platform::DownloadItem>& items,
                                         const platform::DownloadSettings& settings, bool networkUsable,
                                         std::optional<int64_t> settingsMenuIndex, Clock::time_point now,
                                         double wallNow) const {
  nlohmann::json rows = nlohmann::json::array();
  int64_t running = 0;
  double speed = 0, remaining = 0;
  bool everyEndKnown = true;
  for (size_t row = 0; row < items.size(); ++row) {
    const auto& item = items[row];
    std::string text;
    if (item.inProgress) {
      ++running;
      if (auto known = estimate(item, now)) {
        speed += known->bytesPerSecond;
        text = speedText(known->bytesPerSecond);
        if (known->secondsLeft) text += kSeparator + timeLeftText(*known->secondsLeft);
      }
      if (item.size > 0) remaining += static_cast<double>(std::max<int64_t>(0, item.size - item.position));
      else everyEndKnown = false;
    } else if (item.lastError) {
      text = hostText("Last try failed:") + " " + *item.lastError;
      if (item.retryDate && *item.retryDate > wallNow) text += kSeparator + retryText(*item.retryDate - wallNow);
    }
    if (!text.empty() && rows.size() < kMaxDescribedRows) rows.push_back({{"row", row}, {"text", text}});
  }
  nlohmann::json summary = nullptr;
  if (running > 0) {
    std::string text = counted("%d downloading", running);
    if (speed > 0) {
      text += kSeparator + speedText(speed);
      if (everyEndKnown) text += kSeparator + timeLeftText(remaining / speed);
    }
    summary = text;
  }
  nlohmann::json paused = nullptr;
  if (!settings.downloadsPermitted || !networkUsable) {
    paused = {{"text", hostText("Downloads are paused")},
              {"reason", hostText(settings.downloadsPermitted ? "No network connection that downloads may use."
                                                              : "Downloads are not permitted in Settings.")},
              {"action", hostText("Settings")},
              {"menu", settingsMenuIndex ? nlohmann::json(*settingsMenuIndex) : nlohmann::json(nullptr)}};
  }
  return {{"t", "activity"}, {"summary", summary}, {"paused", paused}, {"rows", rows}};
}

}  // namespace shelf
