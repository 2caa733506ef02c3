// The module's side of the host's download service: the shared manager seen
// through plain items and ids, for the host's JSON API and command line.
// REQUIRES: main thread.
#pragma once

#include <memory>

#include "module/core/DFDownloadManager.h"
#include "module/platform/DownloadService.h"

class DFDownloadService : public platform::DownloadService {
 public:
  // The service over the shared manager (created on first use).
  static std::shared_ptr<DFDownloadService> sharedInstance();
  static platform::DownloadItem itemOf(DFDownloadManager& manager, const DFDownloadManager::Record& record);

  std::vector<platform::DownloadItem> downloads() override;
  void addDownload(const platform::URL& url, std::optional<std::vector<std::string>> permittedMIMETypes,
                   AddCompletion completion) override;
  bool setActive(const std::string& uniqueId, bool active) override;
  bool removeDownload(const std::string& uniqueId) override;
  platform::DownloadSettings settings() override;
  void setSettings(const platform::DownloadSettings& settings) override;
  void addObserver(const std::shared_ptr<platform::DownloadServiceObserver>& observer) override;

 private:
  DFDownloadManager::Record find(const std::string& uniqueId);
};
