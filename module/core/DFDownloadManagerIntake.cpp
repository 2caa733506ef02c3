// The manager's intake: forbidden sites, the probe under "Checking URL...",
// and queueing at the back.
#include <array>

#include "module/core/DFDownloadManager.h"
#include "module/core/DFLocalizedString.h"
#include "module/platform/Presenters.h"
#include "module/probe/DFFilenameRules.h"

namespace {

void requestInterstitial() {
  if (auto ads = platform::AdPresenter::sharedInstance()) ads->requestInterstitialBanner();
}

const char* const kTip =
    "Manage your downloads through the main menu item \"Downloads\".\n"
    "The downloaded files will be moved to the \"Documents\" folder.";

}  // namespace

bool DFDownloadManager::forbiddenURL(const platform::URL& url) {
  static const std::array<const char*, 4> keywords = {"googlevideo", "youtube", "soundcloud", "vimeo"};
  const std::string host = DFLowercaseASCII(url.host());
  if (host.empty()) return false;
  for (const char* keyword : keywords)
    if (host.find(keyword) != std::string::npos) return true;
  return false;
}

void DFDownloadManager::downloadFileWithURL(const platform::URL& url, CompletionBlock completionBlock) {
  downloadFileWithURL(url, std::nullopt, std::move(completionBlock));
}

void DFDownloadManager::downloadFileWithURL(const platform::URL& url,
                                            std::optional<DFDownloadOperationInfoLoader::MIMETypes> permittedMIMETypes,
                                            CompletionBlock completionBlock) {
  DCHECK_ON_MAIN();
  auto complete = [completionBlock](const Record& record, const std::optional<std::string>& message) {
    if (completionBlock) completionBlock(record, message);
  };

  if (forbiddenURL(url)) {
    const std::string message = DFLocalizedString("Download from this website is prohibited by its terms of use");
    platform::ProgressOverlay::showAlert(message, [complete, message] {
      requestInterstitial();
      complete(nullptr, message);
    });
    return;
  }

  auto record = DFDownloadOperation::initWithURL(url);
  std::weak_ptr<DFDownloadOperationInfoLoaderDelegate> delegate =
      std::static_pointer_cast<DFDownloadOperationInfoLoaderDelegate>(shared_from_this());
  auto loader = DFDownloadOperationInfoLoader::initWithDownloadOperation(record, std::move(permittedMIMETypes), delegate);
  platform::ValueHolder holder(loader);

  std::weak_ptr<DFDownloadManager> weak = shared_from_this();
  platform::ProgressOverlay::showMessage(DFLocalizedString("Checking URL..."), [weak, loader, holder, complete] {
    auto self = weak.lock();
    if (!self) return;
    loader->cancel();
    self->_downloadOperationInfoLoaders.erase(holder);
    requestInterstitial();
    complete(nullptr, DFLocalizedString("Cancelled"));
  });

  _downloadOperationInfoLoaders.emplace(holder, [complete](const Record& added, const std::optional<std::string>& message) {
    if (added) {
      platform::ProgressOverlay::showAlert(DFLocalizedString("File added to download queue"), [complete, added] {
        platform::TipsPresenter::showTip(DFLocalizedString(kTip), [complete, added] {
          requestInterstitial();
          complete(added, std::nullopt);
        });
      });
    } else {
      platform::ProgressOverlay::showAlert(message, [complete, message] {
        requestInterstitial();
        complete(nullptr, message);
      });
    }
  });
}

void DFDownloadManager::downloadOperationInfoLoader(DFDownloadOperationInfoLoader& loader,
                                                    const std::optional<std::string>& completeWithError) {
  DCHECK_ON_MAIN();
  platform::ValueHolder holder(loader.shared_from_this());
  auto entry = _downloadOperationInfoLoaders.find(holder);
  if (entry == _downloadOperationInfoLoaders.end()) return;  // cancelled: nobody waits for it
  CompletionBlock result = std::move(entry->second);
  _downloadOperationInfoLoaders.erase(entry);

  Record record = loader.downloadOperation();
  if (completeWithError || !record->filename() || record->filename()->empty()) {
    result(nullptr, completeWithError);
    return;
  }
  record->setActive(true);
  if (_database) {
    record->setStoredArchiveVersion(record->archiveVersion());
    _database->insertItemWithUniqueId(record->uniqueId(), *record);
  }
  _downloadOperations.push_back(record);
  // Every record is renumbered and rewritten; one whose stored archive is
  // current would be written unchanged, so it is skipped.
  for (size_t i = 0; i < _downloadOperations.size(); ++i) {
    const Record& r = _downloadOperations[i];
    r->setPriority(static_cast<int64_t>(i));
    if (r->storedArchiveVersion() != r->archiveVersion()) storeDownloadOperation(r);
  }
  notifyDelegates([&](DFDownloadManagerDelegate& d) { d.downloadOperationAdded(*this, record); });
  updateDownloads();
  result(record, std::nullopt);
}
