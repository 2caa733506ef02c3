// The check every request and WebSocket upgrade passes before it is routed:
// Host, Origin and, when the server requires one, the access token. Pure
// functions of the request's headers, so they are tested without a socket.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace shelf {

struct GuardPolicy {
  std::string listenAddress;          // as configured: an IP literal or "localhost"
  uint16_t port = 0;                  // the bound port
  std::optional<std::string> token;   // set iff every request must carry it
};

// The parts of a request the guard looks at; absent headers are none.
struct GuardInput {
  std::optional<std::string> host;
  std::optional<std::string> origin;
  std::optional<std::string> authorization;
  std::optional<std::string> cookie;      // every Cookie header, joined with "; "
  std::optional<std::string> queryToken;  // the decoded ?token= value
};

struct GuardVerdict {
  bool allowed = false;
  bool setCookie = false;   // the token came right as ?token=: the answer sets the cookie
  std::string reason;       // why not, for the 403 body
};

// Host must name the listening address, localhost or 127.0.0.1 (and [::1]
// on loopback) with the bound port; a missing port means 80. On a wildcard
// address any host name is accepted, and Origin must then name the Host sent.
// Origin, when present, must be http:// followed by an accepted Host value.
// With a token, one of `Authorization: Bearer T`, cookie shelf_token=T or
// ?token=T must carry it; an empty token matches nothing.
GuardVerdict checkRequest(const GuardPolicy& policy, const GuardInput& input);

// True iff `address` is 0.0.0.0 or ::, which listen on every interface.
bool isWildcardAddress(std::string_view address);

// True iff a == b; the time taken depends on the lengths only.
bool constantTimeEquals(std::string_view a, std::string_view b);

}  // namespace shelf
