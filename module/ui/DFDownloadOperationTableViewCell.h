// The row of the downloads screen: file name, address, progress and status of
// one download, with a thin progress bar. Keeps itself current through the
// manager's per-operation notifications, for its own operation only.
// REQUIRES: main thread.
#pragma once

#include <memory>
#include <string>

#include "module/core/DFDownloadManagerDelegate.h"
#include "module/core/DFDownloadOperation.h"
#include "module/platform/ui/Appearance.h"
#include "module/platform/ui/TableViewCell.h"

class DFDownloadOperationTableViewCell : public platform::TableViewCell,
                                         public DFDownloadManagerDelegate,
                                         public std::enable_shared_from_this<DFDownloadOperationTableViewCell> {
  struct Passkey {};

 public:
  static constexpr const char* kReuseIdentifier = "DFDownloadOperationTableViewCell";

  // Builds the subviews and subscribes to the shared manager.
  static std::shared_ptr<DFDownloadOperationTableViewCell> initWithStyle(int64_t style, const std::string& reuseIdentifier);
  DFDownloadOperationTableViewCell(Passkey, int64_t style, const std::string& reuseIdentifier);

  const Record& downloadOperation() const { return _downloadOperation; }
  void setDownloadOperation(const Record& downloadOperation);
  void updateInfo();

  void downloadOperationChanged(DFDownloadManager&, const Record& downloadOperation) override;
  void downloadOperationCompleted(DFDownloadManager&, const Record& downloadOperation) override;
  void downloadOperationStopped(DFDownloadManager&, const Record& downloadOperation) override;
  void downloadOperationStarted(DFDownloadManager&, const Record& downloadOperation) override;

  // For tests: the texts and the bar as shown.
  const platform::ProgressBar& progressView() const { return *_progressView; }
  const platform::Label& filenameLabel() const { return *_filenameLabel; }
  const platform::Label& urlLabel() const { return *_urlLabel; }
  const platform::Label& progressLabel() const { return *_progressLabel; }
  const platform::Label& statusLabel() const { return *_statusLabel; }

 private:
  std::shared_ptr<platform::ProgressBar> _progressView;
  std::shared_ptr<platform::LargeTitleLabel> _filenameLabel;
  std::shared_ptr<platform::SmallDetailLabel> _urlLabel;
  std::shared_ptr<platform::SmallDetailLabel> _progressLabel;
  std::shared_ptr<platform::SmallTitleLabel> _statusLabel;
  Record _downloadOperation;
};
