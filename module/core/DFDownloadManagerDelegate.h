// The manager's observer protocol. Every method is optional: the defaults do
// nothing. Called on the main thread with the manager and the record concerned.
#pragma once

#include <memory>

class DFDownloadManager;
class DFDownloadOperation;

class DFDownloadManagerDelegate {
 public:
  virtual ~DFDownloadManagerDelegate() = default;
  using Record = std::shared_ptr<DFDownloadOperation>;

  // Activated, stored, appended and renumbered; before scheduling runs.
  virtual void downloadOperationAdded(DFDownloadManager&, const Record&) {}
  // Out of the database and the queue, transfer stopped, temporary file deleted.
  virtual void downloadOperationRemoved(DFDownloadManager&, const Record&) {}
  // Saved after a change.
  virtual void downloadOperationChanged(DFDownloadManager&, const Record&) {}
  // A data loader now serves the record.
  virtual void downloadOperationStarted(DFDownloadManager&, const Record&) {}
  // The transfer was stopped with position == size != 0.
  virtual void downloadOperationCompleted(DFDownloadManager&, const Record&) {}
  // The transfer was stopped in any other case.
  virtual void downloadOperationStopped(DFDownloadManager&, const Record&) {}
};
