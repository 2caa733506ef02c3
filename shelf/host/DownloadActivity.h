// What the host tells about the queue beyond the module's rows: how fast each
// running download goes and when it should end, why a waiting one waits, and
// whether the queue is held (downloads not permitted, no network). Follows the
// download service's reports; the texts are in the host's language.
// REQUIRES: main thread.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "module/platform/DownloadService.h"
#include "shelf/host/TransferRate.h"

namespace shelf {

struct TransferEstimate {
  double bytesPerSecond = 0;
  std::optional<double> secondsLeft;  // none when the size is unknown or nothing moves
};

class DownloadActivity : public platform::DownloadServiceObserver,
                         public std::enable_shared_from_this<DownloadActivity> {
 public:
  using Clock = TransferRate::Clock;

  // The host's instance, made and attached to the service by start(); null before.
  static std::shared_ptr<DownloadActivity> sharedInstance();
  static void start();

  void downloadServiceEvent(platform::DownloadEvent event, const platform::DownloadItem& item) override;
  // Feeds one report; what the observer does, with the time given.
  void record(const platform::DownloadItem& item, Clock::time_point now);

  // The files of the downloads that finished while this host runs, newest first (at most kFinishedKept).
  static constexpr size_t kFinishedKept = 20;
  const std::vector<std::string>& finished() const { return finished_; }

  // For a running download whose speed is known.
  std::optional<TransferEstimate> estimate(const platform::DownloadItem& item, Clock::time_point now) const;

  // The "activity" message for a tab showing the queue: the queue's summary,
  // the paused banner and a text for each row with something to say.
  // `settingsMenuIndex` is where the banner leads; `wallNow` is seconds since 1970.
  nlohmann::json message(const std::vector<platform::DownloadItem>& items, const platform::DownloadSettings& settings,
                         bool networkUsable, std::optional<int64_t> settingsMenuIndex, Clock::time_point now,
                         double wallNow) const;

 private:
  std::map<std::string, TransferRate> rates_;
  std::vector<std::string> finished_;
};

// The texts, in the host's language (exposed for tests).
std::string speedText(double bytesPerSecond);            // "12.4 MB/s"
std::string timeLeftText(double seconds);                // "about 2 min left"
std::string retryText(double secondsToRetry);            // "next try in 12 s"

}  // namespace shelf
