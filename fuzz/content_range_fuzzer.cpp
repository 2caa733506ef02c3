// Content-Range values of any bytes: the parser answers none or three numbers,
// and only for values that begin with "bytes".
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "module/probe/DFContentRange.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view value(reinterpret_cast<const char*>(data), size);
  auto range = DFParseContentRange(value);
  if (range && !value.starts_with("bytes")) std::abort();
  (void)DFLongLongValue(value);
  return 0;
}
