#include "module/platform/MediaLibraryProbe.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace platform {
namespace {

std::atomic<bool> gEnabled{true};

constexpr const char* kLibrary = "libavformat.so.59";  // the FFmpeg generation the media library is built for

// The folders the dynamic linker searches for this program's libraries.
std::vector<std::string> librarySearchPath() {
  std::vector<std::string> folders;
  void* self = dlopen(nullptr, RTLD_LAZY);
  Dl_serinfo size;
  if (self && dlinfo(self, RTLD_DI_SERINFOSIZE, &size) == 0) {
    std::vector<char> buffer(size.dls_size);
    auto* info = reinterpret_cast<Dl_serinfo*>(buffer.data());
    if (dlinfo(self, RTLD_DI_SERINFOSIZE, info) == 0 && dlinfo(self, RTLD_DI_SERINFO, info) == 0)
      for (unsigned i = 0; i < info->dls_cnt; ++i) folders.emplace_back(info->dls_serpath[i].dls_name);
  }
  if (self) dlclose(self);
  return folders;
}

// Looks for the library without loading it: loading FFmpeg maps some 150
// libraries, which a process that never meets a playlist should not pay for.
bool libraryLoadable() {
  static const bool loadable = [] {
    if (void* loaded = dlopen(kLibrary, RTLD_LAZY | RTLD_NOLOAD)) {
      dlclose(loaded);
      return true;
    }
    for (const auto& folder : librarySearchPath())
      if (::access((folder + "/" + kLibrary).c_str(), R_OK) == 0) return true;
    return false;
  }();
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
