#pragma once

#include <fstream>
#include <iterator>
#include <string>

// The whole content of a file; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), {});
}
