// Names audio files after their tags: "Artist - Title.ext", or "Title.ext"
// without an artist. The tags are read from the download's own address by the
// media library, so the shared generator exists only when that library does.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

#include "module/core/DFMediaLibrary.h"
#include "module/platform/OperationQueue.h"
#include "module/platform/URL.h"

class DFPrettyFilenameGenerator {
 public:
  using TagReader = std::function<std::optional<DFAudioTags>(const std::string& url)>;

  // The shared generator, or none when the media library is not present.
  static std::shared_ptr<DFPrettyFilenameGenerator> sharedInstance();

  // Replaces the shared generator until called again with null.
  static void setSharedInstanceForTesting(std::shared_ptr<DFPrettyFilenameGenerator> generator);

  // A generator reading tags with `readTags` (the media library's, or a test's).
  explicit DFPrettyFilenameGenerator(TagReader readTags);
  virtual ~DFPrettyFilenameGenerator() = default;

  // True iff the lower-cased extension of `filename` is an audio extension.
  bool canGeneratePrettyFilename(const std::string& filename) const;

  // Calls `completionBlock` with the final name: at once on the calling thread
  // when no name is attempted, otherwise on the main queue once the tags are read.
  virtual void generatePrettyFilenameForURL(const platform::URL& url, const std::string& filename,
                                    std::function<void(const std::string&)> completionBlock);

  static const std::unordered_set<std::string>& audioFileExtensions();

 private:
  const std::shared_ptr<platform::OperationQueue> _operationQueue;
  const std::unordered_set<std::string>& _audioFileExtensions;
  const TagReader _readTags;
};
