#include "module/ui/DFDownloadOperationTableViewCell.h"

#include <cstdio>
#include <cstdlib>

#include "module/core/DFDownloadManager.h"
#include "module/core/DFLocalizedString.h"
#include "module/platform/ui/Formatting.h"

std::shared_ptr<DFDownloadOperationTableViewCell> DFDownloadOperationTableViewCell::initWithStyle(
    int64_t style, const std::string& reuseIdentifier) {
  auto cell = std::make_shared<DFDownloadOperationTableViewCell>(Passkey{}, style, reuseIdentifier);
  DFDownloadManager::sharedInstance()->addDelegate(cell);
  return cell;
}

DFDownloadOperationTableViewCell::DFDownloadOperationTableViewCell(Passkey, int64_t style,
                                                                   const std::string& reuseIdentifier)
    : TableViewCell(style, reuseIdentifier) {
  DCHECK_ON_MAIN();
  setSelectedBackgroundView(std::make_shared<platform::SelectedBackgroundView>());

  // Three lines in a column with 15-point margins; flexible gaps around them.
  auto column = std::make_shared<platform::View>();
  contentView()->addFillWidthSubviews({platform::View::spacerWithSize(15.0), column, platform::View::spacerWithSize(15.0)});
  _filenameLabel = std::make_shared<platform::LargeTitleLabel>();
  _urlLabel = std::make_shared<platform::SmallDetailLabel>();
  auto line3 = std::make_shared<platform::View>();
  column->addFillHeightSubivews({platform::View::spacer(), _filenameLabel, platform::View::spacer(), _urlLabel,
                                 platform::View::spacer(), line3, platform::View::spacer()});
  column->addConstraint(platform::LayoutConstraint::constraintWithItem(
      line3, platform::LayoutAttribute::Height, 0, _urlLabel, platform::LayoutAttribute::Height, 1.0, 0.0));

  _progressLabel = std::make_shared<platform::SmallDetailLabel>();
  _statusLabel = std::make_shared<platform::SmallTitleLabel>();
  _statusLabel->setTextAlignment(platform::TextAlignment::Right);
  line3->addFillWidthSubviews({_progressLabel, platform::View::spacerWithSize(10.0), _statusLabel});

  // The bar spans the whole row, 2 points tall, along its bottom edge.
  _progressView = std::make_shared<platform::ProgressBar>(platform::AppearanceKit::sharedInstance()->controlColor());
  _progressView->setTranslatesAutoresizingMaskIntoConstraints(false);
  contentView()->addSubview(_progressView);
  contentView()->addConstraints(platform::LayoutConstraint::horizontalConstraints({0, _progressView, 0}));
  contentView()->addConstraints(platform::LayoutConstraint::verticalConstraints({{_progressView, 2}, 1, 0}));
  // What a fresh cell shows until it is given an operation.
  _progressView->setProgress((std::rand() % 1001) * 0.001);
}

void DFDownloadOperationTableViewCell::setDownloadOperation(const Record& downloadOperation) {
  DCHECK_ON_MAIN();
  _downloadOperation = downloadOperation;
  if (!_downloadOperation) return;
  _filenameLabel->setText(_downloadOperation->filename().value_or(""));
  _urlLabel->setText(_downloadOperation->url().absoluteString());
  updateInfo();
}

void DFDownloadOperationTableViewCell::updateInfo() {
  DCHECK_ON_MAIN();
  const Record& op = _downloadOperation;
  if (!op) return;
  const int64_t size = op->size();
  const int64_t actualPosition = op->actualPosition();
  if (size != 0) {
    const float f = static_cast<float>(actualPosition) / static_cast<float>(size);
    const auto percent = static_cast<long long>(f * 100.0f);
    char text[256];
    std::snprintf(text, sizeof text, "%s / %s (%lld%%)", platform::fileSizeString(actualPosition, true).c_str(),
                  platform::fileSizeString(size, true).c_str(), percent);
    _progressLabel->setText(text);
    _progressView->setProgress(static_cast<double>(f));
  } else {
    _progressLabel->setText(platform::fileSizeString(actualPosition) + " / ?");
    _progressView->setProgress(1.0);
  }
  if (op->active())
    _statusLabel->setText(DFDownloadManager::sharedInstance()->downloadOperationInProgress(op)
                              ? DFLocalizedString("downloading")
                              : DFLocalizedString("queued"));
  else
    _statusLabel->setText(DFLocalizedString("stopped"));
}

void DFDownloadOperationTableViewCell::downloadOperationChanged(DFDownloadManager&, const Record& downloadOperation) {
  if (downloadOperation == _downloadOperation) updateInfo();
}

void DFDownloadOperationTableViewCell::downloadOperationCompleted(DFDownloadManager&, const Record& downloadOperation) {
  if (downloadOperation == _downloadOperation) updateInfo();
}

void DFDownloadOperationTableViewCell::downloadOperationStopped(DFDownloadManager&, const Record& downloadOperation) {
  if (downloadOperation == _downloadOperation) updateInfo();
}

void DFDownloadOperationTableViewCell::downloadOperationStarted(DFDownloadManager&, const Record& downloadOperation) {
  if (downloadOperation == _downloadOperation) updateInfo();
}
