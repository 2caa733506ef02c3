// How the host hands addresses to a loaded download module and follows its
// queue (the JSON API, `shelf add` and `shelf get`): the module offers this
// service when it is loaded; the host reaches it only through this interface.
// REQUIRES: main thread, for every call.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "module/platform/URL.h"

namespace platform {

struct DownloadItem {
  std::string uniqueId;
  std::string url;
  std::optional<std::string> filename;
  std::optional<std::string> outputFilename;
  int64_t size = 0;  // 0: unknown
  int64_t position = 0;
  int64_t actualPosition = 0;
  int64_t priority = 0;
  bool active = false;
  bool inProgress = false;  // a transfer is running
  bool partialDownloading = false;
  std::optional<double> retryDate;  // seconds since 1970
  std::optional<std::string> lastError;
};

struct DownloadSettings {
  bool downloadsPermitted = true;
  bool useCellularData = true;
  int64_t maxActiveDownloadCount = 3;
};

enum class DownloadEvent { Added, Removed, Changed, Started, Completed, Stopped };

class DownloadServiceObserver {
 public:
  virtual ~DownloadServiceObserver() = default;
  virtual void downloadServiceEvent(DownloadEvent event, const DownloadItem& item) = 0;
};

class DownloadService {
 public:
  virtual ~DownloadService() = default;
  static void setSharedInstance(std::shared_ptr<DownloadService> service);
  // The loaded module's service, or null when no module offers one.
  static std::shared_ptr<DownloadService> sharedInstance();

  // The queue in its order.
  virtual std::vector<DownloadItem> downloads() = 0;
  // Probes and queues `url`; `completion` runs once with the queued item or a message.
  using AddCompletion = std::function<void(const std::optional<DownloadItem>& item, const std::optional<std::string>& message)>;
  virtual void addDownload(const URL& url, std::optional<std::vector<std::string>> permittedMIMETypes,
                           AddCompletion completion) = 0;
  // False when no download has the id.
  virtual bool setActive(const std::string& uniqueId, bool active) = 0;
  virtual bool removeDownload(const std::string& uniqueId) = 0;
  virtual DownloadSettings settings() = 0;
  // Writes only the settings that differ.
  virtual void setSettings(const DownloadSettings& settings) = 0;
  // Held weakly.
  virtual void addObserver(const std::shared_ptr<DownloadServiceObserver>& observer) = 0;
};

}  // namespace platform
