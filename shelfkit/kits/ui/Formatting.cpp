#include "module/platform/ui/Formatting.h"

#include <cmath>
#include <cctype>
#include <cstdio>
#include <iterator>

#include "module/platform/Localization.h"

namespace platform {
namespace {

std::string formatted(const char* format, double value, const char* unit) {
  char text[64];
  std::snprintf(text, sizeof text, format, value, unit);
  return text;
}

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// Escapes what may not stand in a URL after its authority: spaces, controls,
// quotes and brackets that browsers escape, bytes beyond ASCII and lone '%'.
std::string escapeUnsafe(const std::string& text) {
  static const char* kHex = "0123456789ABCDEF";
  std::string escaped;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool escapeSign = c == '%' && !(i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2]));
    if (c <= 0x20 || c >= 0x7f || std::string_view("\"<>\\^`{|}").find(static_cast<char>(c)) != std::string_view::npos ||
        escapeSign) {
      escaped += '%';
      escaped += kHex[c >> 4];
      escaped += kHex[c & 15];
    } else {
      escaped += static_cast<char>(c);
    }
  }
  return escaped;
}

// The host's texts hold the names of the units and the decimal separator ("," in German).
std::string hostText(const char* english) { return localizedString("shelf", english); }

// The size with a point as the decimal separator.
std::string sizeWithPoint(int64_t bytes, bool fixPrecision) {
  if (bytes > -1000 && bytes < 1000) return std::to_string(bytes) + " " + hostText(bytes == 1 ? "byte" : "bytes");
  static const char* kUnits[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
  double value = static_cast<double>(bytes) / 1000.0;
  size_t unit = 0;
  while (std::fabs(value) >= 999.995 && unit + 1 < std::size(kUnits)) {
    value /= 1000.0;
    ++unit;
  }
  if (fixPrecision) return formatted("%.2f %s", value, kUnits[unit]);
  if (std::fabs(value) >= 99.95) return formatted("%.0f %s", value, kUnits[unit]);
  std::string text = formatted("%.1f %s", value, kUnits[unit]);
  if (auto zero = text.find(".0 "); zero != std::string::npos) text.erase(zero, 2);
  return text;
}

}  // namespace

std::string fileSizeString(int64_t bytes, bool fixPrecision) {
  std::string text = sizeWithPoint(bytes, fixPrecision);
  const std::string separator = hostText(".");
  if (auto point = text.find('.'); point != std::string::npos && separator != ".") text.replace(point, 1, separator);
  return text;
}

std::string fileSizeString(int64_t bytes) { return fileSizeString(bytes, false); }

std::optional<URL> URLWithUnsafeString(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t\r\n\f\v");
  if (begin == std::string::npos) return std::nullopt;
  const auto end = text.find_last_not_of(" \t\r\n\f\v");
  std::string trimmed = text.substr(begin, end - begin + 1);
  if (trimmed.find('\0') != std::string::npos) return std::nullopt;

  auto schemeEnd = trimmed.find("://");
  const auto firstSpecial = trimmed.find_first_of("/?#");
  if (schemeEnd == std::string::npos || (firstSpecial != std::string::npos && firstSpecial < schemeEnd)) {
    trimmed = "http://" + trimmed;
    schemeEnd = 4;
  }
  // The authority is left to the URL parser (it knows host names); the rest is escaped.
  const auto authorityEnd = trimmed.find_first_of("/?#", schemeEnd + 3);
  std::string candidate = authorityEnd == std::string::npos
                              ? trimmed
                              : trimmed.substr(0, authorityEnd) + escapeUnsafe(trimmed.substr(authorityEnd));
  auto url = URL::URLWithString(candidate);
  if (!url || url->host().empty()) return std::nullopt;
  if (url->scheme() != "http" && url->scheme() != "https") return std::nullopt;
  return url;
}

}  // namespace platform
