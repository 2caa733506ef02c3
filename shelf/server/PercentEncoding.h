// Percent-encoding for paths, queries and header values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace shelf {

// Percent-decodes `s` ('+' is a space when `plusIsSpace`, as in queries); none
// when malformed or when it holds a NUL.
std::optional<std::string> percentDecode(std::string_view s, bool plusIsSpace);
// Keeps only unreserved characters, so the result fits a path segment, a query
// and a filename* value.
std::string percentEncode(std::string_view s);

}  // namespace shelf
