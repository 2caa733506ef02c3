// The access token a non-loopback listener requires, and the note a running
// host leaves in its Library so that `shelf add` finds it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "shelfkit/runtime/RootLayout.h"

namespace shelf {

// The root's token: generated at first use (128 random bits in hex), kept in
// Library/AccessToken, readable by the owner only.
std::string accessToken(const shelfkit::RootLayout& layout);
// The token if one was generated, else none.
std::optional<std::string> existingAccessToken(const shelfkit::RootLayout& layout);

struct ServerInfo {
  std::string url;
  uint16_t port = 0;
};
void writeServerInfo(const shelfkit::RootLayout& layout, const ServerInfo& info);
std::optional<ServerInfo> readServerInfo(const shelfkit::RootLayout& layout);
void removeServerInfo(const shelfkit::RootLayout& layout);

}  // namespace shelf
