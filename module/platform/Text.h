// Text helpers for bytes that arrive from servers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

bool isValidUTF8(std::string_view text);

// `text` with its percent escapes replaced; none on a malformed escape or when
// the result is not UTF-8.
std::optional<std::string> removingPercentEncoding(std::string_view text);

// `text` itself when it is UTF-8; otherwise its bytes read as ISO-8859-1 (the
// historic charset of HTTP header values), converted to UTF-8.
std::string UTF8FromHeaderBytes(std::string_view text);

}  // namespace platform
