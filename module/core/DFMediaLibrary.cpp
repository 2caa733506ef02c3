#include "module/core/DFMediaLibrary.h"

#include <dlfcn.h>

#include <mutex>

#include "module/platform/Log.h"
#include "module/platform/MediaLibraryProbe.h"

namespace {

using CreateEntry = decltype(&DFMediaCreatePlayListDataLoader);
using TagsEntry = decltype(&DFMediaReadAudioTags);
CreateEntry gCreate = nullptr;
TagsEntry gTags = nullptr;

std::shared_ptr<DFDownloadOperationDataLoader> createThroughLibrary(
    const std::shared_ptr<DFDownloadOperation>& downloadOperation, const std::string& tmpFilePath,
    const std::weak_ptr<DFDownloadOperationDataLoaderDelegate>& delegate) {
  std::unique_ptr<std::shared_ptr<DFDownloadOperationDataLoader>> loader(
      gCreate(&downloadOperation, &tmpFilePath, &delegate));
  return loader ? *loader : nullptr;
}

std::optional<DFAudioTags> readTagsThroughLibrary(const std::string& url) {
  DFAudioTags tags;
  if (!gTags(&url, &tags)) return std::nullopt;
  return tags;
}

// The folder libdownloader.so was loaded from.
std::string moduleDirectory() {
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void*>(&moduleDirectory), &info) || !info.dli_fname) return ".";
  std::string path = info.dli_fname;
  auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

const DFMediaLibrary* load() {
  std::string path = moduleDirectory() + "/libdownloader_media.so";
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    platform::log(std::string("media library: cannot load: ") + dlerror());
    return nullptr;
  }
  gCreate = reinterpret_cast<CreateEntry>(dlsym(handle, "DFMediaCreatePlayListDataLoader"));
  gTags = reinterpret_cast<TagsEntry>(dlsym(handle, "DFMediaReadAudioTags"));
  if (!gCreate || !gTags) {
    platform::log("media library: " + path + " lacks its entry points");
    return nullptr;
  }
  static DFMediaLibrary library{&createThroughLibrary, &readTagsThroughLibrary};
  return &library;
}

}  // namespace

const DFMediaLibrary* DFMediaLibrary::shared() {
  if (!platform::MediaLibraryProbe::isPresent()) return nullptr;
  static std::once_flag once;
  static const DFMediaLibrary* library = nullptr;
  std::call_once(once, [] { library = load(); });
  return library;
}
