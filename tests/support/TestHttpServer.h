// An HTTP/1.1 server for tests: 127.0.0.1 on a port chosen at run time, its own I/O thread,
// stops (and joins) in its destructor. Serves repeatable pattern bytes and injects faults.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct RecordedRequest {
  std::string target;  // path + query as received
  std::vector<std::pair<std::string, std::string>> headers;
  std::optional<std::string> header(std::string_view name) const;  // case-insensitive, first match
  int connection = 0;  // index of the TCP connection it came on (0, 1, 2...): lets tests assert keep-alive reuse
};

struct Behaviour {
  int64_t size = 0;                   // length of the pattern body (offsets 0..size-1)
  std::optional<std::string> body{};  // explicit body instead of the pattern (size then ignored)
  bool honourRange = true;            // when false, a Range header is ignored: 200 + whole body
  // 0 = automatic: 206 for a satisfied range, 200 otherwise, 416 for an unsatisfiable one. Any other value only
  // replaces the status line; headers and body stay as computed.
  int status = 0;
  // Sent verbatim as Content-Range instead of the computed one, on any response but a redirect (a 200 included).
  std::optional<std::string> contentRange{};
  bool omitContentRange = false;  // send no Content-Range at all (206 or 416)
  // Send this many bytes more (>0) or fewer (<0) than the announced range; Content-Length follows the bytes
  // actually sent. Bytes past the end of the body continue the pattern.
  int64_t bodyDelta = 0;
  // Close the connection abruptly after this many body bytes of this response (Content-Length still announces the
  // full length). A value at or past the end closes right after the last byte, without Connection: close.
  std::optional<int64_t> dropAfterBytes{};
  std::chrono::milliseconds stallBeforeBody{0};  // wait after sending the head before the body
  // After this many body bytes, stop sending until the server is destroyed or releaseStalls() is called. Ignored
  // when past the end of the body; exactly at the end, it holds the connection after the last byte.
  std::optional<int64_t> stallAtByte{};
  std::string mimeType = "application/octet-stream";                // Content-Type; empty = no Content-Type header
  std::vector<std::pair<std::string, std::string>> extraHeaders{};  // e.g. Content-Disposition
  std::optional<std::string> redirectTo{};  // answer redirectStatus with this Location (absolute or relative path)
  int redirectStatus = 302;
};

class TestHttpServer {
 public:
  TestHttpServer();   // binds 127.0.0.1:0, starts its thread
  ~TestHttpServer();  // stops, releases stalls, closes connections, joins
  TestHttpServer(const TestHttpServer&) = delete;
  TestHttpServer& operator=(const TestHttpServer&) = delete;

  std::string url(std::string_view path) const;  // "http://127.0.0.1:PORT" + path

  // Static behaviour for a path (exact match of the path part of the target, query ignored).
  void setRoute(std::string path, Behaviour behaviour);
  // Dynamic behaviour: called on the server thread for every request on that path, with the request and its
  // index among requests to that path (0-based). Replaces a static route for the same path and vice versa.
  void setHandler(std::string path, std::function<Behaviour(const RecordedRequest&, int index)> handler);

  // The requests to that path so far, in arrival order; every request when the path is empty.
  std::vector<RecordedRequest> requests(std::string_view path = {}) const;
  // Body bytes handed to sockets for that path; counted before the write, so never behind what a client has
  // received (ahead by at most one 64 KiB block for a client that went away).
  int64_t bodyBytesSent(std::string_view path) const;
  // Lets every response already under way run past its stallAtByte, waking those stalled now; responses to
  // requests that arrive later stall anew.
  void releaseStalls();

  // The pattern: the byte at offset o comes from a 64-bit mix of o, so a body shifted by any offset no longer matches.
  static std::string pattern(int64_t offset, int64_t length);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
