// The module's user-visible texts: the English text is the key and the fallback.
#pragma once

#include <string>

#include "module/platform/Localization.h"

inline constexpr const char* kDFTextDomain = "downloader";

inline std::string DFLocalizedString(const char* english) {
  return platform::localizedString(kDFTextDomain, english);
}
