// The pure parts of the file-name rules, free of any response object so they
// can be tested and fuzzed on their own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// The file name in a Content-Disposition value: the first part (split at
// every ';') that begins with "filename"; an extended "*=" value with the
// "UTF-8''" prefix is percent-decoded; surrounding double quotes are dropped.
// None when there is no usable name.
std::optional<std::string> DFFilenameFromContentDisposition(std::string_view value);

std::string DFLowercaseASCII(std::string text);
