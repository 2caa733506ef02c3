// Lists of addresses for `shelf get -i FILE`: one address a line; blank lines
// and lines whose first non-blank character is '#' are skipped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct ListedAddress {
  std::string text;  // without surrounding white space
  int line = 0;      // 1-based
};

std::vector<ListedAddress> parseAddressList(std::string_view text);

// Reads the list at `path` ("-": standard input). Returns false with `error`
// set when it cannot be read or is larger than `maxBytes`.
bool readAddressList(const std::string& path, std::vector<ListedAddress>* addresses, std::string* error,
                     std::size_t maxBytes = 16 << 20);
