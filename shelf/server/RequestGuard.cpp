#include "shelf/server/RequestGuard.h"

#include <arpa/inet.h>
#include <sys/random.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <set>

#include "shelf/server/PercentEncoding.h"
#include "shelf/server/WebServer.h"

namespace shelf {
namespace {

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool startsWithNoCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && lower(s.substr(0, prefix.size())) == prefix;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// The canonical text of an IP literal ("[...]" for IPv6), or none.
std::optional<std::string> canonicalIp(std::string_view text, bool bracketed) {
  const std::string s(text);
  char out[INET6_ADDRSTRLEN];
  unsigned char raw[16];
  if (!bracketed && inet_pton(AF_INET, s.c_str(), raw) == 1) return inet_ntop(AF_INET, raw, out, sizeof out);
  if (inet_pton(AF_INET6, s.c_str(), raw) == 1)
    return "[" + std::string(inet_ntop(AF_INET6, raw, out, sizeof out)) + "]";
  return std::nullopt;
}

struct Authority {
  std::string host;  // canonical: lower-case name, dotted IPv4 or bracketed IPv6
  uint16_t port = 80;
};

// "name", "name:port", "1.2.3.4:port" or "[v6]:port"; none when malformed.
std::optional<Authority> parseAuthority(std::string_view s) {
  Authority result;
  std::string_view port;
  if (s.starts_with('[')) {
    const auto close = s.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    auto ip = canonicalIp(s.substr(1, close - 1), true);
    if (!ip) return std::nullopt;
    result.host = *ip;
    s.remove_prefix(close + 1);
    if (!s.empty() && s.front() != ':') return std::nullopt;
    if (!s.empty()) port = s.substr(1);
    else port = "80";
  } else {
    const auto colon = s.find(':');
    const auto name = s.substr(0, colon);
    port = colon == std::string_view::npos ? "80" : s.substr(colon + 1);
    const bool valid = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_';
    });
    if (!valid) return std::nullopt;
    result.host = canonicalIp(name, false).value_or(lower(name));
  }
  const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), result.port);
  if (port.empty() || !std::isdigit(static_cast<unsigned char>(port.front())) || ec != std::errc() ||
      end != port.data() + port.size())
    return std::nullopt;
  return result;
}

bool tokenInAuthorization(std::string_view header, std::string_view token) {
  header = trim(header);
  if (!startsWithNoCase(header, "bearer ")) return false;
  return constantTimeEquals(trim(header.substr(7)), token);
}

bool sessionInCookies(std::string_view header, std::string_view name, const SessionTable& sessions) {
  bool found = false;
  while (!header.empty()) {
    const auto end = header.find(';');
    const auto pair = trim(header.substr(0, end));
    const auto eq = pair.find('=');
    if (eq != std::string_view::npos && trim(pair.substr(0, eq)) == name)
      found |= sessions.contains(trim(pair.substr(eq + 1)));
    header = end == std::string_view::npos ? std::string_view() : header.substr(end + 1);
  }
  return found;
}

GuardVerdict deny(std::string reason) { return {false, false, std::move(reason)}; }

}  // namespace

bool isWildcardAddress(std::string_view address) {
  const auto ip = canonicalIp(address, false);
  return ip == "0.0.0.0" || ip == "[::]";
}

bool isLoopbackAddress(const std::string& address) {
  if (lower(address) == "localhost") return true;
  unsigned char raw[16];
  if (inet_pton(AF_INET, address.c_str(), raw) == 1) return raw[0] == 127;
  if (inet_pton(AF_INET6, address.c_str(), raw) != 1) return false;
  static const unsigned char loopback6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  static const unsigned char mapped4[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return std::equal(raw, raw + 16, loopback6) || (std::equal(raw, raw + 12, mapped4) && raw[12] == 127);
}

bool constantTimeEquals(std::string_view a, std::string_view b) {
  unsigned diff = a.size() != b.size();
  const size_t n = std::max(a.size(), b.size());
  for (size_t i = 0; i < n; ++i)
    diff |= static_cast<unsigned char>(i < a.size() ? a[i] : 0) ^ static_cast<unsigned char>(i < b.size() ? b[i] : 0);
  return diff == 0;
}

std::string SessionTable::create() {
  // The kernel's random source; getrandom needs no descriptor, so it works when they run out.
  unsigned char bytes[16] = {};
  for (size_t got = 0; got < sizeof bytes;) {
    const ssize_t n = ::getrandom(bytes + got, sizeof bytes - got, 0);
    if (n > 0) got += static_cast<size_t>(n);
  }
  std::string value;
  char hex[3];
  for (unsigned char byte : bytes) {
    std::snprintf(hex, sizeof hex, "%02x", byte);
    value += hex;
  }
  if (values_.size() >= kMaxSessions) values_.pop_front();
  values_.push_back(value);
  return value;
}

bool SessionTable::contains(std::string_view value) const {
  bool found = false;
  for (const auto& session : values_) found |= constantTimeEquals(session, value);
  return found && !value.empty();
}

int checkStateChange(std::string_view method, const std::optional<std::string>& contentType,
                     const std::optional<std::string>& fetchSite, std::string* reason) {
  if (method == "GET" || method == "HEAD") return 0;
  if (fetchSite) {
    const std::string site = lower(trim(*fetchSite));
    if (site == "cross-site" || site == "same-site") {
      *reason = "forbidden: made by another site";
      return 403;
    }
  }
  const std::string_view type = contentType ? std::string_view(*contentType) : std::string_view();
  if (lower(trim(type.substr(0, type.find(';')))) != "application/json") {
    *reason = "a request that changes something must be sent as Content-Type: application/json";
    return 415;
  }
  return 0;
}

std::string targetWithoutToken(std::string_view target) {
  const auto mark = target.find('?');
  std::string result(target.substr(0, mark));
  if (mark == std::string_view::npos) return result;
  char separator = '?';
  for (auto rest = target.substr(mark + 1); !rest.empty();) {
    const auto amp = rest.find('&');
    const auto pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
    if (pair.empty() || percentDecode(pair.substr(0, pair.find('=')), true) == "token") continue;
    result += separator;
    result += pair;
    separator = '&';
  }
  return result;
}

GuardVerdict checkRequest(const GuardPolicy& policy, const GuardInput& input, const SessionTable& sessions) {
  const bool wildcard = isWildcardAddress(policy.listenAddress);
  std::set<std::string> names = {"localhost", "127.0.0.1"};
  if (auto ip = canonicalIp(policy.listenAddress, false)) names.insert(*ip);
  else names.insert(lower(policy.listenAddress));
  if (isLoopbackAddress(policy.listenAddress)) names.insert("[::1]");
  auto accepted = [&](const std::optional<Authority>& a) {
    return a && a->port == policy.port && (wildcard || names.count(a->host));
  };

  const auto host = input.host ? parseAuthority(*input.host) : std::nullopt;
  if (!accepted(host)) return deny("unexpected Host");
  if (input.origin) {
    constexpr std::string_view scheme = "http://";
    if (!startsWithNoCase(*input.origin, scheme)) return deny("unexpected Origin");
    const auto origin = parseAuthority(std::string_view(*input.origin).substr(scheme.size()));
    if (!accepted(origin) || (wildcard && origin->host != host->host)) return deny("unexpected Origin");
  }
  if (!policy.token) return {true, false, {}};

  const std::string_view token = *policy.token;
  if (token.empty()) return deny("no access token configured");
  const bool fromQuery = input.queryToken && constantTimeEquals(*input.queryToken, token);
  if (fromQuery || (input.authorization && tokenInAuthorization(*input.authorization, token)) ||
      (input.cookie && sessionInCookies(*input.cookie, policy.cookieName, sessions)))
    return {true, fromQuery, {}};
  return deny("access token required");
}

}  // namespace shelf
