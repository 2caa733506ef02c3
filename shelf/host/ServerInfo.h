// The note a running host leaves in its Library (Server.json) so that
// `shelf add` finds it: the address it listens on and its port. The host
// removes a note left by an ended one as soon as it owns the root, so a note is
// believed only while the root's lock is held (RootLock::isHeld).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "shelfkit/runtime/RootLayout.h"

namespace shelf {

struct ServerInfo {
  std::string url;                    // the address to open, as printed
  std::string address = "127.0.0.1";  // the listening address, as configured
  uint16_t port = 0;
};

void writeServerInfo(const shelfkit::RootLayout& layout, const ServerInfo& info);
// The note when it is well formed (strings where strings belong, a port of 1 to
// 65535); none otherwise.
std::optional<ServerInfo> readServerInfo(const shelfkit::RootLayout& layout);
void removeServerInfo(const shelfkit::RootLayout& layout);

// Where a client on this machine reaches the server, e.g. "http://127.0.0.2:8787":
// the recorded address, or loopback when it listens on every interface.
std::string localBaseURL(const ServerInfo& info);

}  // namespace shelf
