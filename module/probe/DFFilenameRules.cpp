#include "module/probe/DFFilenameRules.h"

#include "module/platform/Text.h"

namespace {

std::string_view trimSpacesAndTabs(std::string_view s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string_view::npos) return {};
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<std::string> DFRemovingPercentEncoding(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size() || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0) return std::nullopt;
    out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
    i += 2;
  }
  if (!platform::isValidUTF8(out)) return std::nullopt;
  return out;
}

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
    auto decoded = DFRemovingPercentEncoding(std::string_view(result).substr(7));
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
