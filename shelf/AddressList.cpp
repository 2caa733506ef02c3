#include "shelf/AddressList.h"

#include <fstream>
#include <iostream>

namespace {

constexpr std::string_view kBlanks = " \t\r\f\v";

bool readAll(std::istream& in, std::string* text, std::size_t maxBytes) {
  char buffer[65536];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text->append(buffer, static_cast<std::size_t>(in.gcount()));
    if (text->size() > maxBytes) return false;
  }
  return true;
}

}  // namespace

std::vector<ListedAddress> parseAddressList(std::string_view text) {
  std::vector<ListedAddress> addresses;
  int number = 0;
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    ++number;
    const auto first = line.find_first_not_of(kBlanks);
    if (first == std::string_view::npos || line[first] == '#') continue;
    line = line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
    addresses.push_back({std::string(line), number});
  }
  return addresses;
}

bool readAddressList(const std::string& path, std::vector<ListedAddress>* addresses, std::string* error,
                     std::size_t maxBytes) {
  std::string text;
  bool complete = false;
  if (path == "-") {
    complete = readAll(std::cin, &text, maxBytes);
  } else {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      *error = "cannot read the list " + path;
      return false;
    }
    complete = readAll(in, &text, maxBytes);
    if (in.bad()) {
      *error = "cannot read the list " + path;
      return false;
    }
  }
  if (!complete) {
    *error = "the list " + path + " is larger than " + std::to_string(maxBytes >> 20) + " MiB";
    return false;
  }
  *addresses = parseAddressList(text);
  return true;
}
