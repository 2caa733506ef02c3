#include "shelf/GetQueueFollower.h"

#include "module/platform/Clock.h"
#include "module/platform/MainQueue.h"
#include "module/platform/RecentItems.h"

namespace {

// Every path of every recent-items source, oldest first.
std::vector<std::string> placedPaths() {
  std::vector<std::string> paths;
  for (const auto& source : platform::RecentItemsRegistry::sharedInstance()->sources()) {
    const auto items = source->items();
    for (auto it = items.rbegin(); it != items.rend(); ++it) paths.push_back(it->path);
  }
  return paths;
}

}  // namespace

std::string GetQueueFollower::nameOf(const platform::DownloadItem& item) {
  return item.outputFilename.value_or(item.url);
}

void GetQueueFollower::ignorePlacedBefore() {
  for (auto& path : placedPaths()) reported_.insert(std::move(path));
}

void GetQueueFollower::reportPlacements() {
  const auto now = ProgressPrinter::Clock::now();
  for (const auto& path : placedPaths()) {
    if (!reported_.insert(path).second) continue;
    if (awaitingPath_.empty()) {
      printer_.placed("", path, 0, now);  // placed just before the last run ended
      continue;
    }
    const Placement placement = std::move(awaitingPath_.front());
    awaitingPath_.pop_front();
    if (onPlaced) onPlaced(placement.url, path);
    printer_.placed(placement.uniqueId, path, placement.size, now);
  }
}

void GetQueueFollower::downloadServiceEvent(platform::DownloadEvent event, const platform::DownloadItem& item) {
  // Every address this run queues is its own.
  if (event == platform::DownloadEvent::Added) followed_.insert(item.uniqueId);
  if (!followed_.count(item.uniqueId)) return;
  const auto now = ProgressPrinter::Clock::now();
  switch (event) {
    case platform::DownloadEvent::Started:
      printer_.started(item.uniqueId, nameOf(item), item.actualPosition, item.size, now);
      break;
    case platform::DownloadEvent::Changed: {
      auto& last = lastPosition_[item.uniqueId];
      if (item.position > last) failures_[item.uniqueId] = 0;  // progress ends a run of failures
      last = item.position;
      printer_.progressed(item.uniqueId, item.actualPosition, item.size, now);
      break;
    }
    case platform::DownloadEvent::Stopped:
      printer_.stopped(item.uniqueId);
      stopped(item);
      break;
    case platform::DownloadEvent::Removed:
      // The module removes a download once its file is placed; the path joins
      // the recent items right after.
      followed_.erase(item.uniqueId);
      awaitingPath_.push_back({item.uniqueId, item.url, item.size});
      platform::dispatchAsyncMain([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->reportPlacements();
      });
      break;
    case platform::DownloadEvent::Added:
    case platform::DownloadEvent::Completed:
      break;
  }
}

void GetQueueFollower::stopped(const platform::DownloadItem& item) {
  const double now = std::chrono::duration<double>(platform::now().time_since_epoch()).count();
  if (!item.lastError || !item.retryDate || *item.retryDate <= now) return;  // stopped, not failed
  const int failures = ++failures_[item.uniqueId];
  if (tries_ == 0 || failures < tries_) {
    printer_.note("shelf: " + nameOf(item) + ": " + *item.lastError + "; retrying");
    return;
  }
  printer_.error("shelf: " + nameOf(item) + ": " + *item.lastError + " (" + std::to_string(failures) +
                 " failures in a row; what arrived is kept for the next run)");
  followed_.erase(item.uniqueId);
  gaveUp_ = true;
  // Switched off rather than removed, so its partial data stays. Not from
  // inside the notification: the queue changes after it.
  platform::dispatchAsyncMain([id = item.uniqueId] {
    if (auto service = platform::DownloadService::sharedInstance()) service->setActive(id, false);
  });
}
