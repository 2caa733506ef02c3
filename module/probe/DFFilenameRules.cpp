#include "module/probe/DFFilenameRules.h"

#include "module/platform/Text.h"

namespace {

std::string_view trimSpacesAndTabs(std::string_view s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string_view::npos) return {};
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

}  // namespace

std::string DFLowercaseASCII(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}

std::optional<std::string> DFFilenameFromContentDisposition(std::string_view value) {
  if (value.empty()) return std::nullopt;
  std::string_view part;
  bool found = false;
  for (size_t start = 0; start <= value.size() && !found;) {
    size_t end = value.find(';', start);
    if (end == std::string_view::npos) end = value.size();
    std::string_view trimmed = trimSpacesAndTabs(value.substr(start, end - start));
    if (trimmed.starts_with("filename")) {
      part = trimmed;
      found = true;
    }
    start = end + 1;
  }
  if (!found) return std::nullopt;

  size_t separator = part.find("*=");
  const bool extended = separator != std::string_view::npos;
  if (!extended) separator = part.find('=');
  if (separator == std::string_view::npos) return std::nullopt;
  const size_t after = separator + (extended ? 2 : 1);
  if (after >= part.size()) return std::nullopt;

  std::string result(trimSpacesAndTabs(part.substr(after)));
  if (extended && result.starts_with("UTF-8''")) {
    auto decoded = platform::removingPercentEncoding(std::string_view(result).substr(7));
    if (!decoded) return std::nullopt;
    result = std::move(*decoded);
  }
  if (result.empty()) return std::nullopt;
  if (result.front() == '"') {
    result.erase(0, 1);
    if (result.empty()) return std::nullopt;
  }
  if (result.back() == '"') {
    result.pop_back();
    if (result.empty()) return std::nullopt;
  }
  return result;
}
