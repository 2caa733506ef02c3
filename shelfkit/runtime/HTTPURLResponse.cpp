#include <strings.h>

#include <cstdlib>

#include "module/platform/URLResponse.h"

namespace platform {
namespace {

std::string trim(std::string_view s) {
  size_t b = s.find_first_not_of(" \t");
  size_t e = s.find_last_not_of(" \t");
  return b == std::string_view::npos ? std::string() : std::string(s.substr(b, e - b + 1));
}

}  // namespace

HTTPURLResponse::HTTPURLResponse(URL url, int statusCode, std::vector<std::pair<std::string, std::string>> headerFields)
    : url_(std::move(url)), statusCode_(statusCode), headerFields_(std::move(headerFields)) {
  if (auto type = valueForHTTPHeaderField("Content-Type")) mimeType_ = trim(type->substr(0, type->find(';')));
  if (auto length = valueForHTTPHeaderField("Content-Length")) {
    char* end = nullptr;
    long long value = std::strtoll(length->c_str(), &end, 10);
    if (end != length->c_str() && value >= 0) expectedContentLength_ = value;
  }
}

std::optional<std::string> HTTPURLResponse::valueForHTTPHeaderField(std::string_view name) const {
  std::optional<std::string> value;
  for (const auto& [field, fieldValue] : headerFields_) {
    if (field.size() != name.size() || strncasecmp(field.data(), name.data(), name.size()) != 0) continue;
    value = value ? *value + ", " + fieldValue : fieldValue;
  }
  return value;
}

}  // namespace platform
