// `shelf get URL… [-i FILE] [-o DIR]`: download into DIR through the module,
// headless, then exit. The run's state lives in DIR/.shelf-get, so the same
// command run again resumes what an interrupted run left.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct GetOptions {
  std::vector<std::string> urls;
  std::optional<std::string> inputFile;  // one address a line; "-": standard input
  std::string outputDirectory = ".";
  int tries = 5;  // failures in a row before giving up on a download; 0 = keep retrying
  bool restart = false;  // drop what earlier runs kept of these addresses
  bool quiet = false;
  bool verbose = false;
};

// What the exit status of `shelf get` means.
enum GetStatus : int {
  kGetAllPlaced = 0,
  kGetSomeFailed = 1,   // refused by the module, or given up after N failures in a row
  kGetBadInput = 2,     // bad address or list, unusable folder, another run holds the folder
  kGetInterrupted = 130,  // SIGINT or SIGTERM; the partial data is kept
};

// The exit statuses, as `shelf get --help` and the README tell them.
extern const char* const kGetStatusHelp;

// Returns the process exit status.
int runGet(const GetOptions& options);
