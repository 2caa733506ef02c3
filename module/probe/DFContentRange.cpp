#include "module/probe/DFContentRange.h"

#include <limits>

int64_t DFLongLongValue(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  uint64_t value = 0;
  const uint64_t limit = negative ? uint64_t(std::numeric_limits<int64_t>::max()) + 1
                                  : uint64_t(std::numeric_limits<int64_t>::max());
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    unsigned digit = static_cast<unsigned>(text[i] - '0');
    if (value > (limit - digit) / 10) {
      value = limit;
      break;
    }
    value = value * 10 + digit;
  }
  if (negative) return value == limit ? std::numeric_limits<int64_t>::min() : -static_cast<int64_t>(value);
  return static_cast<int64_t>(value);
}

std::optional<DFContentRange> DFParseContentRange(std::string_view value) {
  if (!value.starts_with("bytes")) return std::nullopt;
  std::string_view pieces[4];
  size_t count = 0, start = 0;
  for (size_t i = 0; i <= value.size(); ++i) {
    if (i < value.size() && value[i] != ' ' && value[i] != '-' && value[i] != '/') continue;
    if (count == 4) return std::nullopt;  // a fifth piece
    pieces[count++] = value.substr(start, i - start);
    start = i + 1;
  }
  if (count != 4) return std::nullopt;
  return DFContentRange{DFLongLongValue(pieces[1]), DFLongLongValue(pieces[2]), DFLongLongValue(pieces[3])};
}
