// `shelf add URL…`: hands addresses to the running host through its JSON API.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct AddOptions {
  std::vector<std::string> urls;
  std::optional<std::string> root;
  std::vector<std::string> permittedMIMETypes;  // empty: every type
};

// Returns 0 when every address was queued, 1 when one was refused, 2 for bad
// input or no running host.
int runAdd(const AddOptions& options);
