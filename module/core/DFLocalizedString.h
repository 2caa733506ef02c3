// The module's user-visible texts: the English text is the key and the fallback.
#pragma once

#include <string>

inline constexpr const char* kDFTextDomain = "downloader";

// The translation of `english` from the module's bundle, or `english` itself.
std::string DFLocalizedString(const char* english);
