// The rules of the URL sessions' read-ahead: which requests walk a file in
// byte ranges, which answers are exactly what was asked, and how many ranges
// to keep in flight for the link.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "module/platform/URLSession.h"

namespace shelfkit {

struct ByteRange {
  uint64_t first = 0;
  uint64_t last = 0;  // inclusive
  uint64_t length() const { return last - first + 1; }
  bool operator==(const ByteRange&) const = default;
};

// The range of a request whose Range header reads exactly "bytes=FIRST-LAST";
// none for an open or multi-part range, or no Range header.
std::optional<ByteRange> boundedRangeOfRequest(const platform::URLRequest& request);

// A Content-Range value "bytes FIRST-LAST/TOTAL" with a known total; none for anything else.
struct ContentRangeValue {
  ByteRange range;
  uint64_t total = 0;
};
std::optional<ContentRangeValue> parseExactContentRange(std::string_view value);

// How many ranges of `chunk` bytes to request ahead of the one asked for so
// that the link carries as much as kReadAheadStreams continuous streams
// would: a connection sits idle for a round trip before every range, so each
// stream takes 1 + roundTrip * rate / chunk ranges in flight. Where
// connections share one bottleneck, the measured per-connection rate falls as
// they multiply, and the depth with it. Within [1, maxDepth].
inline constexpr double kReadAheadStreams = 4;
size_t readAheadDepth(std::chrono::duration<double> roundTrip, double bytesPerSecond, uint64_t chunk,
                      size_t maxDepth);

// The same request for another range.
platform::URLRequest requestForRange(const platform::URLRequest& request, ByteRange range);

// True iff both ask for the same resource with the same headers.
bool sameRequest(const platform::URLRequest& a, const platform::URLRequest& b);

}  // namespace shelfkit
