#include "shelfkit/runtime/MediaPlaylist.h"

#include <curl/curl.h>

#include <charconv>
#include <memory>

#include "module/platform/URL.h"

namespace shelfkit {
namespace {

struct UrlDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

std::string_view trimmed(std::string_view line) {
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
  while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
  return line;
}

std::optional<int64_t> number(std::string_view text) {
  int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

}  // namespace

bool looksLikePlaylist(std::string_view text) { return text.starts_with("#EXTM3U"); }

std::optional<std::string> resolveURL(const std::string& base, const std::string& reference) {
  std::unique_ptr<CURLU, UrlDeleter> handle(curl_url());
  if (!handle) return std::nullopt;
  const unsigned flags = CURLU_NON_SUPPORT_SCHEME;
  if (!base.empty() && curl_url_set(handle.get(), CURLUPART_URL, base.c_str(), flags) != CURLUE_OK)
    return std::nullopt;
  if (curl_url_set(handle.get(), CURLUPART_URL, reference.c_str(), flags) != CURLUE_OK) return std::nullopt;
  char* value = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_URL, &value, 0) != CURLUE_OK || !value) return std::nullopt;
  std::string result(value);
  curl_free(value);
  return result;
}

std::vector<PlaylistSegment> parseMediaPlaylist(std::string_view text, const std::string& playlistURL) {
  std::vector<PlaylistSegment> segments;
  if (!looksLikePlaylist(text)) return segments;
  bool segmentPending = false;
  std::optional<int64_t> rangeLength;
  int64_t rangeOffset = -1;  // -1: the range follows the previous one
  int64_t nextOffset = 0;  // where a byte range without an offset begins
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.starts_with("#EXTINF:")) {
      segmentPending = true;
    } else if (line.starts_with("#EXT-X-BYTERANGE:")) {
      std::string_view value = line.substr(17);
      const size_t at = value.find('@');
      rangeLength = number(value.substr(0, at));
      const auto offset = at == std::string_view::npos ? std::nullopt : number(value.substr(at + 1));
      rangeOffset = offset ? *offset : -1;
    } else if (line.empty() || line.starts_with("#")) {
      continue;
    } else if (segmentPending) {
      segmentPending = false;
      PlaylistSegment segment;
      if (rangeLength) {
        segment.offset = rangeOffset >= 0 ? rangeOffset : nextOffset;
        segment.length = rangeLength;
        nextOffset = segment.offset + *rangeLength;
      } else {
        nextOffset = 0;
      }
      rangeLength.reset();
      rangeOffset = -1;
      auto resolved = resolveURL(playlistURL, std::string(line));
      auto url = resolved ? platform::URL::URLWithString(*resolved) : std::nullopt;
      if (!url) continue;
      segment.url = url->absoluteString();
      segments.push_back(std::move(segment));
    }
  }
  return segments;
}

}  // namespace shelfkit
