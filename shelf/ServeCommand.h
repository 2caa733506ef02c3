// `shelf serve`: the host with its web UI.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct ServeOptions {
  std::optional<std::string> root;
  std::optional<std::string> documents;
  std::string listen = "127.0.0.1";
  std::optional<uint16_t> port;  // none: 8787 if free, else any; 0: any
  std::string language;  // empty: the process locale
};

// Returns the process exit status.
int runServe(const ServeOptions& options);
