// The Content-Range rule shared by the probe and the chunk check: a value that
// begins with "bytes", split at every ' ', '-' and '/' into exactly four
// pieces, pieces 1 to 3 read as 64-bit decimal integers.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

struct DFContentRange {
  int64_t first = 0;
  int64_t last = 0;
  int64_t total = 0;  // "*" (unknown) reads as 0
};

// None when the value does not begin with "bytes" or does not split into four pieces.
std::optional<DFContentRange> DFParseContentRange(std::string_view value);

// The leading decimal digits of `text` (after optional white space and sign)
// as a 64-bit integer, saturating on overflow; 0 when there are none.
int64_t DFLongLongValue(std::string_view text);
