#include "module/ui/DFBundle.h"

#include <dlfcn.h>

#include <filesystem>
#include <mutex>

#include "module/core/DFLocalizedString.h"

std::shared_ptr<platform::Bundle> DFModuleBundle() {
  static std::once_flag once;
  static std::shared_ptr<platform::Bundle>* bundle = nullptr;  // lives as long as the process
  std::call_once(once, [] {
    if (!platform::Bundle::bundleWithIdentifier(kDFBundleIdentifier)) {
      Dl_info info{};
      std::string directory = ".";
      if (dladdr(reinterpret_cast<void*>(&DFModuleBundle), &info) && info.dli_fname)
        directory = std::filesystem::path(info.dli_fname).parent_path().string();
      platform::Bundle::registerBundle(kDFBundleIdentifier, directory, kDFTextDomain);
    }
    bundle = new std::shared_ptr<platform::Bundle>(platform::Bundle::bundleWithIdentifier(kDFBundleIdentifier));
  });
  return *bundle;
}

std::string DFLocalizedString(const char* english) {
  auto bundle = DFModuleBundle();
  return bundle ? bundle->localizedStringForKey(english, "") : std::string(english);
}
