// The module's media library (libdownloader_media.so, linked with FFmpeg),
// loaded from beside libdownloader.so at first use when the host has FFmpeg.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "module/transfer/DFDownloadOperationDataLoader.h"

// The title and artist tags of a media file, as stored (not checked for UTF-8).
struct DFAudioTags {
  std::optional<std::string> title;
  std::optional<std::string> artist;
};

struct DFMediaLibrary {
  using CreatePlayListDataLoader = std::shared_ptr<DFDownloadOperationDataLoader> (*)(
      const std::shared_ptr<DFDownloadOperation>& downloadOperation, const std::string& tmpFilePath,
      const std::weak_ptr<DFDownloadOperationDataLoaderDelegate>& delegate);
  // None when the file cannot be opened.
  using ReadAudioTags = std::optional<DFAudioTags> (*)(const std::string& url);

  // The loaded library, or none when the host has no media library or it
  // cannot be loaded. Thread-safe.
  static const DFMediaLibrary* shared();

  CreatePlayListDataLoader createPlayListDataLoader = nullptr;
  ReadAudioTags readAudioTags = nullptr;
};

// Entry points exported by libdownloader_media.so.
extern "C" {
std::shared_ptr<DFDownloadOperationDataLoader>* DFMediaCreatePlayListDataLoader(
    const std::shared_ptr<DFDownloadOperation>* downloadOperation, const std::string* tmpFilePath,
    const std::weak_ptr<DFDownloadOperationDataLoaderDelegate>* delegate);
bool DFMediaReadAudioTags(const std::string* url, DFAudioTags* tags);
}
