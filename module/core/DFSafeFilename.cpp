#include "module/core/DFSafeFilename.h"

#include "module/platform/URL.h"

namespace {

constexpr size_t kNameMax = 255;      // bytes, as Linux file systems allow
constexpr size_t kSuffixRoom = 12;    // "(" + up to 10 digits + ")"

// `text` cut to at most `bytes` bytes without splitting a UTF-8 sequence.
std::string truncateUTF8(const std::string& text, size_t bytes) {
  if (text.size() <= bytes) return text;
  size_t end = bytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

}  // namespace

std::string DFSafeFilename(const std::string& name) {
  std::string safe = name;
  for (char& c : safe)
    if (c == '/' || c == '\0') c = '_';
  if (safe.empty() || safe == "." || safe == "..") safe = "Download";
  if (safe.size() + kSuffixRoom <= kNameMax) return safe;

  std::string extension = platform::pathExtension(safe);
  std::string stem = extension.empty() ? safe : platform::deletingPathExtension(safe);
  if (extension.size() > kNameMax / 4) {  // an absurd extension is part of the name
    extension.clear();
    stem = safe;
  }
  const size_t room = kNameMax - kSuffixRoom - (extension.empty() ? 0 : extension.size() + 1);
  stem = truncateUTF8(stem, room);
  return extension.empty() ? stem : stem + "." + extension;
}
