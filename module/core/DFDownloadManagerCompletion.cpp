// The manager's completion: failure waits, success places the file under a
// free name in the documents folder, and removal cleans up.
#include <sys/stat.h>

#include "module/core/DFDownloadManager.h"
#include "module/core/DFLocalizedString.h"
#include "module/core/DFSafeFilename.h"
#include "module/platform/Clock.h"
#include "module/platform/FileManager.h"
#include "module/platform/MainQueue.h"
#include "module/platform/Log.h"
#include "module/ui/DFRecentItemsSource.h"

namespace {

constexpr auto kRetryDelay = std::chrono::milliseconds(10000);
constexpr int kMaxCollisions = 100000;

}  // namespace

std::string DFDownloadManager::destinationPathForDownloadOperation(const Record& downloadOperation) const {
  auto files = platform::FileManager::defaultManager();
  const std::string name = DFSafeFilename(downloadOperation->outputFilename().value_or(""));
  const std::string extension = platform::pathExtension(name);
  const std::string base = files->documentsDirectory() + "/" + (extension.empty() ? name : platform::deletingPathExtension(name));
  const std::string dotExtension = extension.empty() ? "" : "." + extension;
  std::string candidate = base + dotExtension;
  for (int n = 1; files->fileExistsAtPath(candidate) && n < kMaxCollisions; ++n)
    candidate = base + "(" + std::to_string(n) + ")" + dotExtension;
  return candidate;
}

void DFDownloadManager::completeDownloadOperation(const Record& downloadOperation,
                                                  const std::optional<std::string>& withError) {
  DCHECK_ON_MAIN();
  if (withError) {
    _lastErrors[downloadOperation->uniqueId()] = *withError;
    downloadOperation->setRetryDate(platform::now() + kRetryDelay);
    updateDownloads();
    return;
  }
  _lastErrors.erase(downloadOperation->uniqueId());

  auto files = platform::FileManager::defaultManager();
  const std::string tmpFilePath = tmpFilePathForFilename(downloadOperation->uniqueId());
  const std::string marker = placementMarkerPath(downloadOperation->uniqueId());
  // Never replace an existing file: a name taken between the choice and the
  // move sends us on to the next number.
  std::string destination;
  auto placed = platform::FileManager::PlaceResult::Failed;
  for (int attempt = 0; attempt < 100; ++attempt) {
    destination = destinationPathForDownloadOperation(downloadOperation);
    // Should the process end between the move and the record's removal, the
    // next start finds the file placed rather than fetching it again.
    files->writeContentsAtomically(marker, destination);
    placed = files->placeItemAtPath(tmpFilePath, destination);
    if (placed != platform::FileManager::PlaceResult::Exists) break;
  }
  if (placed != platform::FileManager::PlaceResult::Placed) {
    // The file stays with its record and is placed on a later try, once there is room.
    platform::log("download manager: could not place " + destination);
    files->removeItemAtPath(marker);
    completeDownloadOperation(downloadOperation, DFLocalizedString("The file could not be placed in the Documents folder"));
    return;
  }
  removeDownloadOperation(downloadOperation);
  const std::string uniqueId = files->uniqueIdOfItemAtPath(destination).value_or("");
  DFRecentItemsSource::sharedInstance()->addItemWithFilename(destination, uniqueId);
  // The record's removal is committed at the end of this turn; the marker goes after it.
  platform::dispatchAsyncMain([marker] { platform::FileManager::defaultManager()->removeItemAtPath(marker); });
}

std::string DFDownloadManager::placementMarkerPath(const std::string& uniqueId) {
  return tmpFilePathForFilename(uniqueId + kPlacementMarkerSuffix);
}

bool DFDownloadManager::finishInterruptedPlacement(const Record& downloadOperation) {
  auto files = platform::FileManager::defaultManager();
  const std::string marker = placementMarkerPath(downloadOperation->uniqueId());
  auto destination = files->contentsAtPath(marker);
  if (!destination) return false;
  files->removeItemAtPath(marker);
  // The move happened when the temporary file is gone and the destination is there.
  if (files->fileExistsAtPath(tmpFilePathForFilename(downloadOperation->uniqueId()))) {
    // A copy across file systems may have been cut short: it went to a hidden name.
    const auto slash = destination->rfind('/');
    files->removeItemAtPath(destination->substr(0, slash + 1) + "." + downloadOperation->uniqueId() + ".part");
    return false;
  }
  if (!files->fileExistsAtPath(*destination)) return false;
  platform::log("download manager: " + *destination + " was placed before the last exit; its record is removed");
  if (_database) _database->removeItemWithUniqueId(downloadOperation->uniqueId());
  const std::string uniqueId = files->uniqueIdOfItemAtPath(*destination).value_or("");
  DFRecentItemsSource::sharedInstance()->addItemWithFilename(*destination, uniqueId);
  return true;
}

void DFDownloadManager::removeDownloadOperation(const Record& downloadOperation) {
  DCHECK_ON_MAIN();
  if (_database) _database->removeItemWithUniqueId(downloadOperation->uniqueId());
  std::erase(_downloadOperations, downloadOperation);
  const std::string tmpFilePath = tmpFilePathForFilename(downloadOperation->uniqueId());
  stopDataLoadingForDownloadOperation(downloadOperation);
  platform::FileManager::defaultManager()->removeItemAtPath(tmpFilePath);
  _lastErrors.erase(downloadOperation->uniqueId());
  notifyDelegates([&](DFDownloadManagerDelegate& d) { d.downloadOperationRemoved(*this, downloadOperation); });
  updateDownloads();
}

std::optional<std::string> DFDownloadManager::lastErrorOfDownloadOperation(const Record& downloadOperation) const {
  auto it = _lastErrors.find(downloadOperation->uniqueId());
  if (it == _lastErrors.end()) return std::nullopt;
  return it->second;
}
