// The access token a non-loopback listener requires.
#pragma once

#include <optional>
#include <string>

#include "shelfkit/runtime/RootLayout.h"

namespace shelf {

// The root's token: generated at first use (128 random bits in hex), kept in
// Library/AccessToken, readable by the owner only.
std::string accessToken(const shelfkit::RootLayout& layout);
// The token if one was generated, else none.
std::optional<std::string> existingAccessToken(const shelfkit::RootLayout& layout);

}  // namespace shelf
