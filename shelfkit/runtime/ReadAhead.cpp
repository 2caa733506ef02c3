#include "shelfkit/runtime/ReadAhead.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace shelfkit {
namespace {

// Reads a decimal number that must fill `text` exactly.
std::optional<uint64_t> number(std::string_view text) {
  uint64_t value = 0;
  if (text.empty()) return std::nullopt;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<ByteRange> range(std::string_view text) {
  const auto dash = text.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  auto first = number(text.substr(0, dash)), last = number(text.substr(dash + 1));
  if (!first || !last || *last < *first) return std::nullopt;
  return ByteRange{*first, *last};
}

bool isRange(const std::string& field) { return strcasecmp(field.c_str(), "Range") == 0; }

}  // namespace

std::optional<ByteRange> boundedRangeOfRequest(const platform::URLRequest& request) {
  std::optional<ByteRange> found;
  int count = 0;
  for (const auto& [field, value] : request.headers) {
    if (!isRange(field)) continue;
    ++count;
    std::string_view text = value;
    if (!text.starts_with("bytes=")) return std::nullopt;
    found = range(text.substr(6));
  }
  return count == 1 ? found : std::nullopt;
}

std::optional<ContentRangeValue> parseExactContentRange(std::string_view value) {
  if (!value.starts_with("bytes ")) return std::nullopt;
  value.remove_prefix(6);
  const auto slash = value.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  auto parsed = range(value.substr(0, slash));
  auto total = number(value.substr(slash + 1));
  if (!parsed || !total || parsed->last >= *total) return std::nullopt;
  return ContentRangeValue{*parsed, *total};
}

size_t readAheadDepth(std::chrono::duration<double> roundTrip, double bytesPerSecond, uint64_t chunk,
                      size_t maxDepth) {
  if (maxDepth == 0) return 0;
  if (chunk == 0 || !(bytesPerSecond > 0) || !(roundTrip.count() >= 0)) return 1;
  // A connection that waits a round trip before each range is busy for
  // chunk / (chunk + roundTrip * rate) of the time; this many ranges in
  // flight keep kStreams connections' worth of the link busy.
  const double perStream = 1 + roundTrip.count() * bytesPerSecond / static_cast<double>(chunk);
  const double ranges = std::ceil(kReadAheadStreams * perStream) - 1;
  return static_cast<size_t>(std::clamp(ranges, 1.0, static_cast<double>(maxDepth)));
}

platform::URLRequest requestForRange(const platform::URLRequest& request, ByteRange range) {
  platform::URLRequest copy(request.url);
  copy.rangeDestinationPath = request.rangeDestinationPath;
  for (const auto& [field, value] : request.headers)
    if (!isRange(field)) copy.headers.emplace_back(field, value);
  copy.setValue("bytes=" + std::to_string(range.first) + "-" + std::to_string(range.last), "Range");
  return copy;
}

bool sameRequest(const platform::URLRequest& a, const platform::URLRequest& b) {
  return a.url.absoluteString() == b.url.absoluteString() && a.headers == b.headers &&
         a.rangeDestinationPath == b.rangeDestinationPath;
}

}  // namespace shelfkit
