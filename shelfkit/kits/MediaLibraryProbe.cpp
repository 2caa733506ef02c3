#include "module/platform/MediaLibraryProbe.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace platform {
namespace {

std::atomic<bool> gEnabled{true};

bool libraryLoadable() {
  // The soname of the FFmpeg generation the media library is built against.
  static const bool loadable = dlopen("libavformat.so.59", RTLD_LAZY | RTLD_LOCAL) != nullptr;
  return loadable;
}

}  // namespace

bool MediaLibraryProbe::isPresent() {
  const char* off = std::getenv("SHELF_NO_MEDIA");
  if (off && *off && std::strcmp(off, "0") != 0) return false;
  return gEnabled && libraryLoadable();
}

void MediaLibraryProbe::setEnabled(bool enabled) { gEnabled = enabled; }

}  // namespace platform
