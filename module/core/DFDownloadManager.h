// The single owner of the download queue: the ordered records and their
// database entries, the probes and transfers in progress, the retry timer and
// the three settings. Tells its observers about every change.
// REQUIRES: every call on the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "module/core/DFDownloadManagerDelegate.h"
#include "module/core/DFDownloadOperation.h"
#include "module/platform/MainQueue.h"
#include "module/platform/NetworkMonitor.h"
#include "module/platform/RecordDatabase.h"
#include "module/platform/ValueHolder.h"
#include "module/platform/WeakObjectSet.h"
#include "module/probe/DFDownloadOperationInfoLoader.h"
#include "module/transfer/DFDownloadOperationDataLoader.h"

class DFDownloadManager : public std::enable_shared_from_this<DFDownloadManager>,
                          public platform::NetworkMonitorDelegate,
                          public DFDownloadOperationInfoLoaderDelegate,
                          public DFDownloadOperationDataLoaderDelegate {
  struct Passkey {};

 public:
  using Record = std::shared_ptr<DFDownloadOperation>;
  // What an intake reports: the queued record or none, and a message or none.
  using CompletionBlock = std::function<void(const Record&, const std::optional<std::string>&)>;

  static constexpr const char* kMaxActiveDownloadCountPreference = "DFMaxActiveDownloadCountPreference";
  static constexpr const char* kUseCellularDataPreference = "DFUseCellularDataPreference";
  static constexpr const char* kDownloadsPermittedPreference = "DFDownloadsPermittedPreference";

  // The module's load hook: creates the shared manager 10 seconds later on the main queue.
  static void load();
  // The one manager of the process, created on first call.
  static std::shared_ptr<DFDownloadManager> sharedInstance();
  // Library/DownloaderTmpFiles/`filename`; the folder is created on every call.
  static std::string tmpFilePathForFilename(const std::string& filename);

  // Creates a manager: opens the database, restores the queue sorted by
  // priority, subscribes to the network monitor, schedules once and starts the
  // 30-second retry timer. sharedInstance() uses it; tests make their own.
  static std::shared_ptr<DFDownloadManager> init();

  explicit DFDownloadManager(Passkey);
  ~DFDownloadManager() override;
  DFDownloadManager(const DFDownloadManager&) = delete;
  DFDownloadManager& operator=(const DFDownloadManager&) = delete;

  void addDelegate(const std::shared_ptr<DFDownloadManagerDelegate>& delegate);
  void removeDelegate(const DFDownloadManagerDelegate* delegate);

  // A copy of the queue in its current order.
  std::vector<Record> downloadOperations() const;
  bool downloadsInProgress() const;
  bool downloadOperationInProgress(const Record& downloadOperation) const;
  // Saves the record and sends Changed.
  void updateDownloadOperation(const Record& downloadOperation);

  // Settings, read afresh from the defaults on every call.
  int64_t maxActiveDownloadCount() const;
  bool useCellularData() const;
  bool downloadsPermitted() const;
  // Each setter writes its key, synchronises the defaults at once, then schedules.
  void setMaxActiveDownloadCount(int64_t count);
  void setUseCellularData(bool use);
  void setDownloadsPermitted(bool permitted);

  // Scheduling: decides after every event which transfers run.
  void updateDownloads();
  // The first active record in queue order with no retry wait and no running loader.
  Record downloadOperationForDownloading() const;
  void loadDataForDownloadOperation(const Record& downloadOperation);
  std::shared_ptr<DFDownloadOperationDataLoader> dataLoaderForDownloadOperation(const Record& downloadOperation) const;
  void stopDataLoadingForDownloadOperation(const Record& downloadOperation);
  // The user's start/stop switch for one record.
  void setActive(bool active, const Record& downloadOperation);
  void retryTimerFired();
  bool retryTimerRunning() const { return _retryTimer && _retryTimer->isValid(); }
  // Hands the host's background-session handler to the loader of that session, if any.
  void handleEventsForURLSession(const std::string& identifier, std::function<void()> completionHandler);

  // Intake: refuses forbidden sites, probes under "Checking URL...", queues
  // at the back. `completionBlock` (may be empty) runs once, after the user is done.
  void downloadFileWithURL(const platform::URL& url, CompletionBlock completionBlock);
  void downloadFileWithURL(const platform::URL& url, std::optional<DFDownloadOperationInfoLoader::MIMETypes> permittedMIMETypes,
                           CompletionBlock completionBlock);
  // True iff the lower-cased host contains one of the forbidden-site keywords.
  static bool forbiddenURL(const platform::URL& url);

  // Completion: on success, places the file in the documents folder under a
  // free name, removes the record and adds the file to the recent items.
  void completeDownloadOperation(const Record& downloadOperation, const std::optional<std::string>& withError);
  void removeDownloadOperation(const Record& downloadOperation);
  // The failure message of the record's last transfer, if it failed (for the command line).
  std::optional<std::string> lastErrorOfDownloadOperation(const Record& downloadOperation) const;

  void networkManagerInternetConnectionStatusChanged(platform::NetworkMonitor& monitor) override;
  void downloadOperationInfoLoader(DFDownloadOperationInfoLoader& loader,
                                   const std::optional<std::string>& completeWithError) override;
  void downloadOperationDataLoaderDownloadOperationUpdated(DFDownloadOperationDataLoader& loader) override;
  void downloadOperationDataLoader(DFDownloadOperationDataLoader& loader,
                                   const std::optional<std::string>& completeWithError) override;

  // Test seam: makes the data loaders instead of the real ones.
  using DataLoaderFactory = std::function<std::shared_ptr<DFDownloadOperationDataLoader>(
      const Record&, const std::string& tmpFilePath, std::weak_ptr<DFDownloadOperationDataLoaderDelegate>)>;
  static void setDataLoaderFactoryForTesting(DataLoaderFactory factory);
  // Test seam: replaces the shared manager (each test makes its own with init()).
  static void setSharedInstanceForTesting(std::shared_ptr<DFDownloadManager> manager);
  // Test seam: the probes in flight.
  std::vector<std::shared_ptr<DFDownloadOperationInfoLoader>> infoLoadersForTesting() const;

 private:
  // Beside a temporary file while it is being placed: names the destination.
  static constexpr const char* kPlacementMarkerSuffix = ".placing";

  // Writes the record's archive to the database and remembers it is current.
  void storeDownloadOperation(const Record& downloadOperation);
  std::string destinationPathForDownloadOperation(const Record& downloadOperation) const;
  // Library/DownloaderTmpFiles/<uniqueId>.placing: names the destination while a file is placed.
  static std::string placementMarkerPath(const std::string& uniqueId);
  // At start-up: true (and the record is dropped) when the record's file was
  // placed before the process ended but the record was not yet removed.
  bool finishInterruptedPlacement(const Record& downloadOperation);
  void removeStrayTemporaryFiles(const std::string& directory, const std::vector<std::string>& listed,
                                 const std::vector<std::string>& undecodableIds);
  template <class Call>
  void notifyDelegates(Call call) {
    for (const auto& delegate : _delegates.objects()) call(*delegate);
  }

  std::vector<Record> _downloadOperations;
  std::shared_ptr<platform::RecordDatabase> _database;
  platform::WeakObjectSet<DFDownloadManagerDelegate> _delegates;
  std::unordered_map<platform::ValueHolder, CompletionBlock> _downloadOperationInfoLoaders;
  std::vector<std::shared_ptr<DFDownloadOperationDataLoader>> _downloadOperationDataLoaders;
  std::unique_ptr<platform::RepeatingTimer> _retryTimer;
  std::unordered_map<std::string, std::string> _lastErrors;  // by uniqueId, until the record leaves
};
