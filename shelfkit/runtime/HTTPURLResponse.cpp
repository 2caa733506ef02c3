#include <strings.h>

#include <algorithm>
#include <cstdlib>

#include "module/platform/Text.h"
#include "module/platform/URLResponse.h"

namespace platform {
namespace {

std::string trim(std::string_view s) {
  size_t b = s.find_first_not_of(" \t");
  size_t e = s.find_last_not_of(" \t");
  return b == std::string_view::npos ? std::string() : std::string(s.substr(b, e - b + 1));
}

// The file name of a Content-Disposition value: filename* (RFC 5987) when
// present, else filename, unquoted.
std::string dispositionFilename(std::string_view value) {
  std::string plain, extended;
  size_t start = 0;
  while (start <= value.size()) {
    size_t end = value.find(';', start);
    if (end == std::string_view::npos) end = value.size();
    std::string part = trim(value.substr(start, end - start));
    start = end + 1;
    size_t eq = part.find('=');
    if (eq == std::string::npos) continue;
    std::string name = trim(std::string_view(part).substr(0, eq));
    std::string v = trim(std::string_view(part).substr(eq + 1));
    if (v.size() >= 2 && v.front() == '"' && v.back() == '"') v = v.substr(1, v.size() - 2);
    if (strcasecmp(name.c_str(), "filename*") == 0) {
      size_t quote = v.find("''");
      std::string encoded = quote == std::string::npos ? v : v.substr(quote + 2);
      extended = removingPercentEncoding(encoded).value_or(encoded);
    } else if (strcasecmp(name.c_str(), "filename") == 0) {
      plain = v;
    }
  }
  return extended.empty() ? plain : extended;
}

}  // namespace

std::string HTTPURLResponse::suggestedFilename() const {
  std::string name;
  if (auto disposition = valueForHTTPHeaderField("Content-Disposition")) name = dispositionFilename(*disposition);
  if (name.empty()) {
    std::string last = url_.lastPathComponent();
    if (last != "/") name = last;
  }
  if (name.empty()) name = url_.host();
  std::replace(name.begin(), name.end(), '/', '_');
  std::replace(name.begin(), name.end(), '\0', '_');
  return name.empty() ? "Unknown" : name;
}

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
