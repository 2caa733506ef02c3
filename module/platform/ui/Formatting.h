// The host's formatting helpers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "module/platform/URL.h"

namespace platform {

// A human-readable size: "0 bytes", "1 byte", "999 bytes", "1.5 KB", "12 MB", "1.23 GB"
// (decimal units), in the host's language: "1,5 KB" and "0 Byte" in German. With `fixPrecision`, kilobytes and above always show two
// decimals ("1.50 KB"), so a changing number keeps its width.
std::string fileSizeString(int64_t bytes);
std::string fileSizeString(int64_t bytes, bool fixPrecision);

// A URL made of text a user typed: surrounding white space is dropped, a
// missing scheme means http, characters a URL may not hold are escaped. None
// when no http(s) URL with a host can be formed.
std::optional<URL> URLWithUnsafeString(const std::string& text);

}  // namespace platform
