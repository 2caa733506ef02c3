// The host's web server: Boost.Beast on its own I/O thread. It serves the front
// end and files, hands /api/ requests to the host and carries one WebSocket per
// browser tab at /ws. It never touches module state: every handler is expected
// to post to the main thread and answer from there.
//
// Every request and WebSocket upgrade is checked before anything else:
//  - `Host` must name the listening address or localhost/127.0.0.1 with the port
//    (on a wildcard address any host name is accepted; the token still applies);
//  - `Origin`, when present, must be http://<an accepted Host value>;
//  - on a non-loopback address, the access token must come with the request:
//    `Authorization: Bearer T` or `?token=T`; a GET of a page with `?token=T` is answered
//    with a session cookie (a random value, not the token) and a redirect to the
//    address without the token, so the printed address works in a browser;
//  - an API request that changes state must be sent as application/json and
//    not be marked by the browser as made by another site.
// Anything else gets 403 (or 415) and is not passed on. No response may be
// shown in a frame.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace shelf {

struct HttpRequest {
  std::string method;                         // "GET", "POST", ...
  std::string path;                           // percent-decoded, without the query
  std::map<std::string, std::string> query;   // decoded
  std::map<std::string, std::string> headers; // keys in lower case
  std::string body;
};

struct HttpResponse {
  int status = 200;
  std::string contentType = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

// A file the server may send: found by the host's resolver.
struct ServedFile {
  std::filesystem::path path;
  std::string contentType;
  bool attachment = false;  // Content-Disposition: attachment (save rather than open)
  bool sandbox = false;     // sent with "Content-Security-Policy: sandbox": no scripts, an origin of its own
  bool singleLink = false;  // sent only when, once opened, it has no other hard link
};

// Why a WebSocket is closed; sent to the client as the close code.
enum class CloseReason : uint16_t {
  Normal = 1000,
  PolicyViolation = 1008,  // the client sent more than the host will hold for it
};

// One browser tab. Thread-safe; sending after close does nothing.
class WebSocketConnection {
 public:
  virtual ~WebSocketConnection() = default;
  virtual uint64_t id() const = 0;
  virtual void send(std::string text) = 0;
  virtual void close(CloseReason reason = CloseReason::Normal) = 0;
};

struct WebServerOptions {
  std::string listenAddress = "127.0.0.1";
  uint16_t port = 0;                       // 0: any free port
  std::optional<std::string> accessToken;  // required when the address is not loopback
  std::optional<bool> requireToken;        // none: iff the address is not loopback
};

struct WebServerHandlers {
  // /api/...: called on the server thread; `respond` may be called from any thread, once.
  std::function<void(HttpRequest, std::function<void(HttpResponse)> respond)> api;
  // GET of any other path: the file to send, or none for 404. Called on the
  // server thread; must only resolve paths (no module state).
  std::function<std::optional<ServedFile>(const HttpRequest&)> resolveFile;
  // WebSocket events, on the server thread.
  std::function<void(std::shared_ptr<WebSocketConnection>)> opened;
  std::function<void(uint64_t id, std::string text)> message;
  std::function<void(uint64_t id)> closed;
};

class WebServer {
 public:
  // What one client may make the server hold. The API takes small JSON bodies
  // and a tab sends small messages: a request body or a WebSocket message is at
  // most kMessageLimit (413 or a closed socket past it). At most kMaxConnections
  // are open at once; more are closed as soon as they are accepted. A tab that
  // does not read what it is sent is disconnected once kOutboxLimit waits for it.
  static constexpr uint64_t kMessageLimit = 64 << 10;
  static constexpr size_t kMaxConnections = 128;
  static constexpr size_t kOutboxLimit = 4 << 20;

  // Binds and starts the I/O thread. Returns none, with `error` set, when the
  // address cannot be bound, or when it is not loopback and no token is given.
  static std::unique_ptr<WebServer> start(const WebServerOptions& options, WebServerHandlers handlers,
                                          std::string* error);
  virtual ~WebServer() = default;

  virtual uint16_t port() const = 0;
  // Accepts that failed so far (each is followed by a pause before the next).
  virtual uint64_t failedAccepts() const = 0;
  // The address to open, e.g. "http://127.0.0.1:8080/" (with "?token=..." when one is required).
  virtual std::string url() const = 0;
  // Closes every connection and joins the thread. Called by the destructor too.
  // REQUIRES: not called from a handler (the server thread).
  virtual void stop() = 0;
};

// True iff `address` is a loopback address (127.0.0.0/8, ::1) or "localhost".
bool isLoopbackAddress(const std::string& address);

}  // namespace shelf
