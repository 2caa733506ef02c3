#include "module/platform/Text.h"

#include <cstdint>

namespace platform {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool isValidUTF8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    size_t length;
    uint32_t min;
    if (c < 0x80) { ++i; continue; }
    if ((c & 0xE0) == 0xC0) length = 2, min = 0x80;
    else if ((c & 0xF0) == 0xE0) length = 3, min = 0x800;
    else if ((c & 0xF8) == 0xF0) length = 4, min = 0x10000;
    else return false;
    if (i + length > text.size()) return false;
    uint32_t code = c & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
      unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

std::optional<std::string> removingPercentEncoding(std::string_view text) {
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
  if (!isValidUTF8(out)) return std::nullopt;
  return out;
}

std::string UTF8FromHeaderBytes(std::string_view text) {
  if (isValidUTF8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() * 2);
  for (unsigned char c : text) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace platform
