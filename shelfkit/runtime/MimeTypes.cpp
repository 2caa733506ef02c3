// MIME type to preferred file-name extension: the system's mime.types (Debian's
// media-types package), with a built-in table of common types when it is missing.
#include <algorithm>
#include <cctype>
#include <fstream>
#include <mutex>
#include <sstream>
#include <unordered_map>

#include "module/platform/MIMETypes.h"

namespace platform {
namespace {

constexpr std::pair<const char*, const char*> kBuiltIn[] = {
    {"application/pdf", "pdf"},        {"application/zip", "zip"},
    {"application/gzip", "gz"},        {"application/x-tar", "tar"},
    {"application/x-7z-compressed", "7z"}, {"application/x-rar-compressed", "rar"},
    {"application/json", "json"},      {"application/xml", "xml"},
    {"application/msword", "doc"},     {"application/rtf", "rtf"},
    {"application/epub+zip", "epub"},  {"application/vnd.ms-excel", "xls"},
    {"application/vnd.ms-powerpoint", "ppt"},
    {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", "docx"},
    {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", "xlsx"},
    {"application/vnd.openxmlformats-officedocument.presentationml.presentation", "pptx"},
    {"application/vnd.oasis.opendocument.text", "odt"},
    {"application/vnd.android.package-archive", "apk"},
    {"application/vnd.apple.mpegurl", "m3u8"}, {"application/x-mpegurl", "m3u8"},
    {"application/javascript", "js"},  {"text/plain", "txt"},
    {"text/html", "html"},             {"text/css", "css"},
    {"text/csv", "csv"},               {"text/xml", "xml"},
    {"text/markdown", "md"},           {"image/jpeg", "jpeg"},
    {"image/png", "png"},              {"image/gif", "gif"},
    {"image/webp", "webp"},            {"image/svg+xml", "svg"},
    {"image/tiff", "tiff"},            {"image/bmp", "bmp"},
    {"image/heic", "heic"},            {"audio/mpeg", "mpga"},
    {"audio/mp4", "m4a"},              {"audio/aac", "aac"},
    {"audio/ogg", "oga"},              {"audio/flac", "flac"},
    {"audio/x-wav", "wav"},            {"video/mp4", "mp4"},
    {"video/quicktime", "qt"},         {"video/webm", "webm"},
    {"video/x-matroska", "mkv"},       {"video/mp2t", "ts"},
    {"font/woff2", "woff2"},           {"font/ttf", "ttf"},
};

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

using Table = std::unordered_map<std::string, std::string>;

Table load() {
  Table table;
  std::ifstream in("/etc/mime.types");
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string type, extension;
    if (words >> type >> extension) table.emplace(lower(type), extension);  // the first is preferred
  }
  for (const auto& [type, extension] : kBuiltIn) table.emplace(type, extension);
  return table;
}

}  // namespace

std::optional<std::string> preferredFilenameExtensionForMIMEType(const std::string& mimeType) {
  static const Table table = load();
  auto it = table.find(lower(mimeType));
  if (it == table.end()) return std::nullopt;
  return it->second;
}

}  // namespace platform
