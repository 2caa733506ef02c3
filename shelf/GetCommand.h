// `shelf get URL… [-o DIR] [--tries N]`: download into DIR through the module,
// headless, then exit.
#pragma once

#include <string>
#include <vector>

struct GetOptions {
  std::vector<std::string> urls;
  std::string outputDirectory = ".";
  int tries = 5;  // failures in a row before giving up on a download; 0 = keep retrying
  bool verbose = false;
};

// Returns the process exit status: 0 when every file was placed.
int runGet(const GetOptions& options);
