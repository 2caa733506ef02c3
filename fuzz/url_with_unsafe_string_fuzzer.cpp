// Typed address text of any bytes: an accepted address is http(s) with a host,
// holds no white space or controls, and is a fixed point of both parsers.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "module/platform/URL.h"
#include "module/platform/ui/Formatting.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  auto url = platform::URLWithUnsafeString(text);
  if (!url) return 0;

  CHECK(url->scheme() == "http" || url->scheme() == "https");
  CHECK(!url->host().empty());
  CHECK(!url->path().empty());
  const std::string& absolute = url->absoluteString();
  CHECK(absolute.starts_with(url->scheme() + "://"));
  for (unsigned char c : absolute) CHECK(c > 0x20 && c != 0x7f);

  // What was accepted reads back unchanged, as a plain URL and as typed text.
  auto reparsed = platform::URL::URLWithString(absolute);
  CHECK(reparsed);
  CHECK(reparsed->absoluteString() == absolute);
  CHECK(reparsed->scheme() == url->scheme());
  CHECK(reparsed->host() == url->host());
  CHECK(reparsed->path() == url->path());
  auto retyped = platform::URLWithUnsafeString(absolute);
  CHECK(retyped);
  CHECK(*retyped == *url);

  // Surrounding white space is not part of the address.
  auto padded = platform::URLWithUnsafeString(" \t" + text + "\r\n");
  CHECK(padded && *padded == *url);

  (void)platform::pathExtension(url->lastPathComponent());
  return 0;
}
