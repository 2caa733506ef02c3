#include "module/platform/URL.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

#include "module/platform/Text.h"

namespace platform {
namespace {

struct UrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

std::string part(CURLU* url, CURLUPart which, unsigned flags = 0) {
  char* value = nullptr;
  if (curl_url_get(url, which, &value, flags) != CURLUE_OK || !value) return "";
  std::string text(value);
  curl_free(value);
  return text;
}

}  // namespace

std::optional<URL> URL::URLWithString(const std::string& text) {
  // libcurl decodes a percent-encoded host, so its text form may read
  // differently a second time; parse again until it stands still.
  // Parsing depends on the text alone, so the first text that comes back
  // unchanged (as every stored address does, at once) stands still.
  std::string previous = text;
  auto url = parse(text);
  for (int round = 0; url && round < 4; ++round) {
    if (url->absolute_ == previous) {
      // Kept as text in records and shown to users: no control bytes, valid UTF-8.
      const bool printable = std::none_of(url->absolute_.begin(), url->absolute_.end(), [](char c) {
        return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f;
      });
      if (!printable || !isValidUTF8(url->absolute_)) return std::nullopt;
      return url;
    }
    previous = url->absolute_;
    url = parse(previous);
  }
  return std::nullopt;
}

std::optional<URL> URL::parse(const std::string& text) {
  if (text.empty() || text.find('\0') != std::string::npos) return std::nullopt;
  std::unique_ptr<CURLU, UrlDeleter> handle(curl_url());
  if (!handle) return std::nullopt;
  if (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return std::nullopt;
  URL url;
  url.absolute_ = part(handle.get(), CURLUPART_URL);
  url.scheme_ = part(handle.get(), CURLUPART_SCHEME);
  url.host_ = part(handle.get(), CURLUPART_HOST);
  url.path_ = part(handle.get(), CURLUPART_PATH, CURLU_URLDECODE);
  if (url.path_.empty()) url.path_ = "/";
  if (url.absolute_.empty() || url.scheme_.empty()) return std::nullopt;
  return url;
}

std::string URL::lastPathComponent() const { return lastPathComponentOfPath(path_); }

std::string lastPathComponentOfPath(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  if (trimmed == "/") return "/";
  auto slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string pathExtension(const std::string& path) {
  std::string last = lastPathComponentOfPath(path);
  auto dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return "";
  return last.substr(dot + 1);
}

std::string deletingPathExtension(const std::string& path) {
  std::string extension = pathExtension(path);
  if (extension.empty()) return path;
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  return trimmed.substr(0, trimmed.size() - extension.size() - 1);
}

}  // namespace platform
