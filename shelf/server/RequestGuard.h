// The check every request and WebSocket upgrade passes before it is routed:
// Host, Origin and, when the server requires one, the access token. Pure
// functions of the request's headers, so they are tested without a socket.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace shelf {

struct GuardPolicy {
  std::string listenAddress;          // as configured: an IP literal or "localhost"
  uint16_t port = 0;                  // the bound port
  std::optional<std::string> token;   // set iff every request must carry it
  std::string cookieName = "shelf_session";  // this server's session cookie
};

// The session cookie values a server handed out, in memory only: a browser
// never holds the stored token, and a cookie that leaks (cookies are not kept
// apart by port) is worthless once the host stops.
class SessionTable {
 public:
  static constexpr size_t kMaxSessions = 64;  // past it the oldest session ends

  // A new session: 128 random bits in hex.
  std::string create();
  // True iff `value` is a live session; the time taken depends on the count only.
  bool contains(std::string_view value) const;

 private:
  std::deque<std::string> values_;
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
  bool startSession = false;  // the token came right as ?token=: a GET of a page starts a session
  std::string reason;         // why not, for the 403 body
};

// Host must name the listening address, localhost or 127.0.0.1 (and [::1]
// on loopback) with the bound port; a missing port means 80. On a wildcard
// address any host name is accepted, and Origin must then name the Host sent.
// Origin, when present, must be http:// followed by an accepted Host value.
// With a token, `Authorization: Bearer T` or ?token=T must carry it, or the
// cookie policy.cookieName a live session of `sessions`; an empty token
// matches nothing.
GuardVerdict checkRequest(const GuardPolicy& policy, const GuardInput& input, const SessionTable& sessions);

// The extra check of an API request that changes state (any method but GET and
// HEAD): its Content-Type must be application/json, which no page can send to
// another origin without the browser asking first, and its Sec-Fetch-Site, when
// present, must not say that another site made it. Returns 0 when it passes,
// else the status to answer (415 or 403) with `reason`.
int checkStateChange(std::string_view method, const std::optional<std::string>& contentType,
                     const std::optional<std::string>& fetchSite, std::string* reason);

// An origin-form target without its token=... query parameters, e.g.
// "/a?token=T&b=1" -> "/a?b=1": where a request that carried the token is sent.
std::string targetWithoutToken(std::string_view target);

// True iff `address` is 0.0.0.0 or ::, which listen on every interface.
bool isWildcardAddress(std::string_view address);

// True iff a == b; the time taken depends on the lengths only.
bool constantTimeEquals(std::string_view a, std::string_view b);

}  // namespace shelf
