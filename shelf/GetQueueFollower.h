// Follows the module's queue for one `shelf get` run: shows the progress of
// the downloads this run asked for, reports placed files, and gives up on a
// download after N failures in a row (keeping its partial data).
// REQUIRES: main thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "module/platform/DownloadService.h"
#include "shelf/ProgressPrinter.h"

class GetQueueFollower : public platform::DownloadServiceObserver,
                         public std::enable_shared_from_this<GetQueueFollower> {
 public:
  // `tries`: failures in a row before giving up; 0 never gives up.
  GetQueueFollower(int tries, ProgressPrinter& printer) : tries_(tries), printer_(printer) {}

  // A download of this run: followed until it is placed or given up. Downloads
  // added while the follower observes are followed from their Added event.
  void follow(const std::string& uniqueId) { followed_.insert(uniqueId); }
  // Paths the recent-items list held before this run; they are not reported.
  void ignorePlacedBefore();
  // Reports files placed since the last call (or since ignorePlacedBefore).
  void reportPlacements();

  void downloadServiceEvent(platform::DownloadEvent event, const platform::DownloadItem& item) override;

  // True once every followed download is placed or given up, and reported.
  // Told of each placed download of this run, before its path is printed.
  std::function<void(const std::string& url, const std::string& path)> onPlaced;

  bool done() const { return followed_.empty() && awaitingPath_.empty(); }
  bool gaveUp() const { return gaveUp_; }
  std::size_t followedCount() const { return followed_.size(); }

 private:
  static std::string nameOf(const platform::DownloadItem& item);
  void stopped(const platform::DownloadItem& item);

  struct Placement {
    std::string uniqueId;
    std::string url;
    int64_t size;
  };

  const int tries_;
  ProgressPrinter& printer_;
  std::set<std::string> followed_;
  std::map<std::string, int> failures_;
  std::map<std::string, int64_t> lastPosition_;
  // Removed downloads whose file was placed, in order; the recent-items list
  // gains their paths in the same order.
  std::deque<Placement> awaitingPath_;
  std::set<std::string> reported_;
  bool gaveUp_ = false;
};
