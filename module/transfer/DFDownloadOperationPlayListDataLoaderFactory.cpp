// The part of the playlist loader that lives in libdownloader.so: it asks the
// media library, when present, to make the loader.
#include "module/core/DFMediaLibrary.h"
#include "module/transfer/DFDownloadOperationPlayListDataLoader.h"

std::shared_ptr<DFDownloadOperationDataLoader>
DFDownloadOperationPlayListDataLoader::createPlayListDataLoaderWithDownloadOperation(
    std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
    std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate) {
  const DFMediaLibrary* library = DFMediaLibrary::shared();
  if (!library) return nullptr;
  return library->createPlayListDataLoader(downloadOperation, tmpFilePath, delegate);
}
