#include "shelf/host/FileResolver.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "module/platform/URL.h"
#include "module/platform/ui/Bundle.h"

namespace fs = std::filesystem;

namespace shelf {

FileResolver::FileResolver(std::string webRoot, std::string documentsDirectory)
    : webRoot_(std::move(webRoot)), documents_(std::move(documentsDirectory)) {}

std::optional<std::string> FileResolver::fileInside(const std::string& base, const std::string& relative) {
  if (relative.empty() || relative.find('\0') != std::string::npos) return std::nullopt;
  std::error_code error;
  const fs::path root = fs::canonical(base, error);
  if (error) return std::nullopt;
  // canonical() resolves "..", "." and every symbolic link, so the prefix test is exact.
  const fs::path file = fs::canonical(root / fs::path(relative).relative_path(), error);
  if (error || !fs::is_regular_file(file, error)) return std::nullopt;
  auto [rootEnd, fileIt] = std::mismatch(root.begin(), root.end(), file.begin(), file.end());
  if (rootEnd != root.end()) return std::nullopt;
  return file.string();
}

std::optional<std::string> FileResolver::documentInside(const std::string& documents, const std::string& relative) {
  auto file = fileInside(documents, relative);
  struct stat info {};
  if (!file || ::stat(file->c_str(), &info) != 0 || info.st_nlink != 1) return std::nullopt;
  return file;
}

std::string FileResolver::contentTypeForPath(const std::string& path) {
  static const std::map<std::string, std::string> kTypes = {
      {"html", "text/html; charset=utf-8"}, {"js", "text/javascript; charset=utf-8"}, {"mjs", "text/javascript; charset=utf-8"},
      {"css", "text/css; charset=utf-8"},   {"svg", "image/svg+xml"},                  {"json", "application/json"},
      {"txt", "text/plain; charset=utf-8"}, {"pdf", "application/pdf"},                {"png", "image/png"},
      {"jpg", "image/jpeg"},                {"jpeg", "image/jpeg"},                    {"gif", "image/gif"},
      {"webp", "image/webp"},               {"mp3", "audio/mpeg"},                     {"mp4", "video/mp4"},
      {"mov", "video/quicktime"},           {"zip", "application/zip"},                {"md", "text/plain; charset=utf-8"},
      {"webmanifest", "application/manifest+json"}};
  std::string extension = platform::pathExtension(path);
  std::transform(extension.begin(), extension.end(), extension.begin(), [](unsigned char c) { return std::tolower(c); });
  auto found = kTypes.find(extension);
  return found == kTypes.end() ? "application/octet-stream" : found->second;
}

std::optional<ServedFile> FileResolver::resolve(const HttpRequest& request) const {
  const std::string& path = request.path;
  if (path.starts_with("/documents/")) {
    auto file = documentInside(documents_, path.substr(std::string("/documents/").size()));
    if (!file) return std::nullopt;
    auto download = request.query.find("download");
    ServedFile served{*file, contentTypeForPath(*file), download != request.query.end() && download->second == "1"};
    // A downloaded page must not run in the host's origin: it could drive the application.
    served.sandbox = true;
    served.singleLink = true;
    return served;
  }
  if (path.starts_with("/bundles/")) {
    // /bundles/<identifier>/images/<name>.svg
    const std::string rest = path.substr(std::string("/bundles/").size());
    const auto slash = rest.find("/images/");
    if (slash == std::string::npos || !rest.ends_with(".svg")) return std::nullopt;
    auto bundle = platform::Bundle::bundleWithIdentifier(rest.substr(0, slash));
    const std::string name = rest.substr(slash + 8, rest.size() - slash - 8 - 4);
    if (!bundle || !platform::Bundle::isImageName(name)) return std::nullopt;
    auto file = fileInside(bundle->bundlePath(), "images/" + name + ".svg");
    if (!file) return std::nullopt;
    return ServedFile{*file, "image/svg+xml", false};
  }
  const std::string relative = path == "/" ? "index.html" : path.substr(1);
  if (relative.ends_with(".md")) return std::nullopt;  // notes for developers, not the front end
  auto file = fileInside(webRoot_, relative);
  if (!file) return std::nullopt;
  return ServedFile{*file, contentTypeForPath(*file), false};
}

}  // namespace shelf
