// The base through which the manager drives any data loader, and the delegate
// protocol through which loaders report back (on the main thread).
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "module/core/DFDownloadOperation.h"

class DFDownloadOperationDataLoader;

class DFDownloadOperationDataLoaderDelegate {
 public:
  virtual ~DFDownloadOperationDataLoaderDelegate() = default;
  // The record's positions (and perhaps size) changed.
  virtual void downloadOperationDataLoaderDownloadOperationUpdated(DFDownloadOperationDataLoader& loader) = 0;
  // The transfer ended: none is success (the whole file is at tmpFilePath),
  // otherwise a human-readable failure text.
  virtual void downloadOperationDataLoader(DFDownloadOperationDataLoader& loader,
                                           const std::optional<std::string>& completeWithError) = 0;
};

class DFDownloadOperationDataLoader {
 public:
  DFDownloadOperationDataLoader(std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
                                std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate);
  virtual ~DFDownloadOperationDataLoader() = default;
  DFDownloadOperationDataLoader(const DFDownloadOperationDataLoader&) = delete;
  DFDownloadOperationDataLoader& operator=(const DFDownloadOperationDataLoader&) = delete;

  // Sets the cancelled flag; concrete loaders call this first, then stop their work.
  virtual void cancel();
  bool cancelled() const;

  // The background URL session this loader uses; none for the base.
  virtual std::optional<std::string> URLSessionIdentifier() const;
  // Takes the handler the host received for this loader's session. The base drops it.
  virtual void handleEventsForURLSession(std::function<void()> completionHandler);

  const std::shared_ptr<DFDownloadOperation>& downloadOperation() const { return _downloadOperation; }
  const std::string& tmpFilePath() const { return _tmpFilePath; }
  std::shared_ptr<DFDownloadOperationDataLoaderDelegate> delegate() const { return _delegate.lock(); }

 private:
  mutable std::recursive_mutex _lock;  // guards _cancelled
  bool _cancelled = false;
  const std::shared_ptr<DFDownloadOperation> _downloadOperation;
  const std::string _tmpFilePath;
  const std::weak_ptr<DFDownloadOperationDataLoaderDelegate> _delegate;
};
