// Names audio files after their "title" and "artist" tags. Reads tags through
// the media library, so it exists only when the host has that library.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "module/platform/URL.h"

class DFPrettyFilenameGenerator {
 public:
  virtual ~DFPrettyFilenameGenerator() = default;

  // The shared generator, or none when the media library is not loaded.
  static std::shared_ptr<DFPrettyFilenameGenerator> sharedInstance();

  // Calls `completionBlock` with the final name: on the main queue when a
  // name was attempted, at once when not.
  virtual void generatePrettyFilenameForURL(const platform::URL& url, const std::string& filename,
                                            std::function<void(const std::string&)> completionBlock) = 0;
};
