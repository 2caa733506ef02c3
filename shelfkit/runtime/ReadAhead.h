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

// How many ranges of `chunk` bytes to request ahead so that a new request is
// always under way while the link delivers the previous ones: one more than
// the ranges one round trip would carry at the measured per-connection rate,
// within [1, maxDepth].
size_t readAheadDepth(std::chrono::duration<double> roundTrip, double bytesPerSecond, uint64_t chunk,
                      size_t maxDepth);

// The same request for another range.
platform::URLRequest requestForRange(const platform::URLRequest& request, ByteRange range);

// True iff both ask for the same resource with the same headers.
bool sameRequest(const platform::URLRequest& a, const platform::URLRequest& b);

}  // namespace shelfkit
