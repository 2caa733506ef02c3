// The module's resource bundle: its images and its strings, found by the
// module's bundle identifier.
#pragma once

#include <memory>
#include <string>

#include "module/platform/ui/Bundle.h"

inline constexpr const char* kDFBundleIdentifier = "org.shelf.downloader";

// The bundle, looked up once per process. The first call registers it with the
// host: the folder that holds the module's library.
std::shared_ptr<platform::Bundle> DFModuleBundle();
