// MIME type to preferred file-name extension: a built-in table of common types,
// then the system's mime.types (Debian's media-types package) for the rest.
#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

#include "module/platform/MIMETypes.h"
#include "shelfkit/runtime/MimeTypeTable.h"

namespace shelfkit {
namespace {

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

}  // namespace

std::unordered_map<std::string, std::vector<std::string>> parseMimeTypes(std::istream& in) {
  std::unordered_map<std::string, std::vector<std::string>> types;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string type, extension;
    if (!(words >> type)) continue;
    std::vector<std::string> extensions;
    while (words >> extension) extensions.push_back(extension);
    if (!extensions.empty()) types.emplace(lower(type), std::move(extensions));
  }
  return types;
}

const std::vector<std::pair<std::string, std::string>>& builtInPreferredExtensions() {
  static const std::vector<std::pair<std::string, std::string>> table = {
      {"application/pdf", "pdf"}, {"application/zip", "zip"}, {"application/gzip", "gz"},
      {"application/x-tar", "tar"}, {"application/x-7z-compressed", "7z"}, {"application/x-rar-compressed", "rar"},
      {"application/json", "json"}, {"application/xml", "xml"}, {"application/msword", "doc"},
      {"application/rtf", "rtf"}, {"application/epub+zip", "epub"}, {"application/vnd.ms-excel", "xls"},
      {"application/vnd.ms-powerpoint", "ppt"},
      {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", "docx"},
      {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", "xlsx"},
      {"application/vnd.openxmlformats-officedocument.presentationml.presentation", "pptx"},
      {"application/vnd.oasis.opendocument.text", "odt"}, {"application/vnd.android.package-archive", "apk"},
      {"application/vnd.apple.mpegurl", "m3u8"}, {"application/x-mpegurl", "m3u8"},
      {"application/javascript", "js"}, {"text/plain", "txt"}, {"text/html", "html"}, {"text/css", "css"},
      {"text/csv", "csv"}, {"text/xml", "xml"}, {"text/markdown", "md"}, {"image/jpeg", "jpeg"},
      {"image/png", "png"}, {"image/gif", "gif"}, {"image/webp", "webp"}, {"image/svg+xml", "svg"},
      {"image/tiff", "tiff"}, {"image/bmp", "bmp"}, {"image/heic", "heic"},
      // Debian lists mpga, adts, qt and mpv first; these are the names people know.
      {"audio/mpeg", "mp3"}, {"audio/aac", "aac"}, {"video/quicktime", "mov"}, {"video/x-matroska", "mkv"},
      {"audio/mp4", "m4a"}, {"audio/ogg", "oga"}, {"audio/flac", "flac"}, {"audio/x-wav", "wav"},
      {"video/mp4", "mp4"}, {"video/webm", "webm"}, {"video/mp2t", "ts"}, {"font/woff2", "woff2"},
      {"font/ttf", "ttf"},
  };
  return table;
}

bool isGenericMIMEType(const std::string& lowerCaseType) {
  static const char* const kGeneric[] = {
      "application/octet-stream", "binary/octet-stream",     "application/x-octet-stream",
      "application/binary",       "application/x-binary",    "application/unknown",
      "application/x-unknown",    "application/download",    "application/x-download",
      "application/force-download",
  };
  return std::find(std::begin(kGeneric), std::end(kGeneric), lowerCaseType) != std::end(kGeneric);
}

std::unordered_map<std::string, std::string> makeMimeTypeTable(std::istream* systemFile) {
  std::unordered_map<std::string, std::string> table;
  for (const auto& [type, extension] : builtInPreferredExtensions()) table.emplace(type, extension);
  if (systemFile)
    for (auto& [type, extensions] : parseMimeTypes(*systemFile)) table.emplace(type, extensions.front());
  std::erase_if(table, [](const auto& entry) { return isGenericMIMEType(entry.first); });
  return table;
}

}  // namespace shelfkit

namespace platform {

std::optional<std::string> preferredFilenameExtensionForMIMEType(const std::string& mimeType) {
  static const auto table = [] {
    std::ifstream systemFile("/etc/mime.types");
    return shelfkit::makeMimeTypeTable(systemFile ? &systemFile : nullptr);
  }();
  auto it = table.find(shelfkit::lower(mimeType));
  if (it == table.end()) return std::nullopt;
  return it->second;
}

}  // namespace platform
