// Content-Disposition values of any bytes: the rule answers none or a non-empty name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "module/platform/Text.h"
#include "module/probe/DFFilenameRules.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view value(reinterpret_cast<const char*>(data), size);
  auto name = DFFilenameFromContentDisposition(value);
  if (name && name->empty()) std::abort();
  if (name && name->size() > value.size()) std::abort();  // decoding never grows the text
  if (auto decoded = platform::removingPercentEncoding(value); decoded && decoded->size() > value.size()) std::abort();
  return 0;
}
