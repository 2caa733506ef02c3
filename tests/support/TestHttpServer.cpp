#include "tests/support/TestHttpServer.h"

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <charconv>
#include <exception>
#include <map>
#include <mutex>
#include <thread>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr int64_t kBlockSize = 64 * 1024;

uint64_t mix64(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

void fillPattern(char* out, int64_t offset, int64_t length) {
  // One mix per 8-byte word; the word for o / 8 supplies byte o % 8.
  for (int64_t i = 0; i < length;) {
    const uint64_t position = static_cast<uint64_t>(offset + i);
    const uint64_t word = mix64(position >> 3);
    for (uint64_t lane = position & 7; lane < 8 && i < length; ++lane, ++i)
      out[i] = static_cast<char>(static_cast<uint8_t>(word >> (lane * 8)));
  }
}

// Beast 1.74 has its own string_view type.
std::string_view view(beast::string_view s) { return {s.data(), s.size()}; }

bool iequals(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view pathOf(std::string_view target) { return target.substr(0, target.find('?')); }

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::optional<int64_t> parseNumber(std::string_view s) {
  int64_t value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (s.empty() || ec != std::errc() || end != s.data() + s.size() || value < 0) return std::nullopt;
  return value;
}

// The first range of a "bytes=" Range header; nullopt when the header is malformed and must be ignored.
struct ByteRange {
  std::optional<int64_t> first;  // absent for a suffix range "bytes=-N"
  std::optional<int64_t> last;   // absent for an open end, or the suffix length
};

std::optional<ByteRange> parseRange(std::string_view value) {
  value = trim(value);
  constexpr std::string_view unit = "bytes=";
  if (value.size() < unit.size() || !iequals(value.substr(0, unit.size()), unit)) return std::nullopt;
  value = trim(value.substr(unit.size()));
  value = trim(value.substr(0, value.find(',')));
  const auto dash = value.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto before = trim(value.substr(0, dash)), after = trim(value.substr(dash + 1));
  ByteRange parsed;
  if (before.empty()) {
    parsed.last = parseNumber(after);
    return parsed.last ? std::optional(parsed) : std::nullopt;
  }
  parsed.first = parseNumber(before);
  if (!parsed.first) return std::nullopt;
  if (!after.empty()) {
    parsed.last = parseNumber(after);
    if (!parsed.last || *parsed.last < *parsed.first) return std::nullopt;
  }
  return parsed;
}

// Everything one response needs once the request has been answered: the head and how to send the body.
struct Plan {
  std::string path;
  std::string head;
  bool headOnly = false;
  std::optional<std::string> body;  // explicit body; bytes past its end (bodyDelta > 0) come from the pattern
  int64_t offset = 0;               // offset in the body of the first byte sent
  int64_t total = 0;                // body bytes to send
  std::optional<int64_t> stallAt;
  std::optional<int64_t> dropAt;
  uint64_t generation = 0;  // releaseStalls() calls made before the request arrived
  std::chrono::milliseconds stallBeforeBody{0};
  bool chunked = false;
  bool close = false;

  void fill(char* out, int64_t at, int64_t length) const {
    at += offset;
    if (body && at < static_cast<int64_t>(body->size())) {
      const int64_t n = std::min<int64_t>(length, static_cast<int64_t>(body->size()) - at);
      std::copy_n(body->data() + at, n, out);
      out += n, at += n, length -= n;
    }
    fillPattern(out, at, length);
  }
};

struct Route {
  std::optional<Behaviour> behaviour;
  std::function<Behaviour(const RecordedRequest&, int)> handler;
};

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (iequals(key, name)) return value;
  return std::nullopt;
}

struct TestHttpServer::Impl {
  struct Session;

  asio::io_context ioc;
  tcp::acceptor acceptor{ioc};
  uint16_t port = 0;
  std::thread thread;
  // Touched on the I/O thread only.
  bool stopping = false;
  std::vector<std::weak_ptr<Session>> sessions;

  mutable std::mutex mutex;
  std::map<std::string, Route, std::less<>> routes;
  std::vector<RecordedRequest> recorded;
  std::map<std::string, int, std::less<>> requestCounts;
  std::map<std::string, int64_t, std::less<>> bodyBytes;
  int accepted = 0;
  uint64_t releases = 0;  // releaseStalls() calls so far

  void accept();
  void stop();
  void wakeStalled();
  Plan respond(const http::request<http::string_body>& request, int connection);
  Plan plan(const Behaviour& behaviour, const http::request<http::string_body>& request, std::string path);

  bool releasedSince(uint64_t generation) {
    std::lock_guard lock(mutex);
    return releases != generation;
  }
};

// One TCP connection: reads requests and streams their responses frame by frame until closed. A frame is the
// head, one block of body (with its chunk framing) or the last chunk.
struct TestHttpServer::Impl::Session : std::enable_shared_from_this<Session> {
  Session(Impl& server, tcp::socket socket, int index)
      : server(server), socket(std::move(socket)), timer(server.ioc), index(index) {}

  enum class Phase { Head, Body, LastChunk };

  Impl& server;
  tcp::socket socket;
  asio::steady_timer timer;  // stallBeforeBody and stallAtByte waits
  const int index;
  beast::flat_buffer buffer;
  std::optional<http::request_parser<http::string_body>> parser;
  Plan plan;
  Phase phase = Phase::Head;
  int64_t sent = 0;  // body bytes of this response written so far
  bool stallPassed = false;
  bool stalled = false;
  std::vector<char> frame;
  std::size_t framePos = 0, payloadBegin = 0, payloadEnd = 0;  // payload: the body bytes within the frame

  void readRequest() {
    parser.emplace();
    parser->body_limit(1 << 20);
    http::async_read(socket, buffer, *parser,
                     [self = shared_from_this()](error_code ec, std::size_t) { self->onRequest(ec); });
  }

  void onRequest(error_code ec) {
    if (ec || server.stopping) return close();
    plan = server.respond(parser->get(), index);
    phase = Phase::Head;
    sent = 0;
    stallPassed = false;
    setFrame(plan.head, 0);
    pump();
  }

  void setFrame(std::string_view prefix, int64_t bodyLength, std::string_view suffix = {}) {
    const auto n = static_cast<std::size_t>(bodyLength);
    frame.resize(prefix.size() + n + suffix.size());
    std::copy(prefix.begin(), prefix.end(), frame.begin());
    plan.fill(frame.data() + prefix.size(), sent, bodyLength);
    std::copy(suffix.begin(), suffix.end(), frame.begin() + static_cast<std::ptrdiff_t>(prefix.size() + n));
    framePos = 0;
    payloadBegin = prefix.size();
    payloadEnd = prefix.size() + n;
  }

  // Writes what is left of the frame without blocking. The body bytes are counted under the same lock as the
  // write, so a client that has seen them never reads a smaller bodyBytesSent().
  enum class Flush { Done, Pending, Failed };
  Flush flush() {
    while (framePos < frame.size()) {
      error_code ec;
      std::size_t written = 0;
      std::size_t payload = 0;
      {
        std::lock_guard lock(server.mutex);
        written = socket.write_some(asio::buffer(frame.data() + framePos, frame.size() - framePos), ec);
        const std::size_t from = std::max(framePos, payloadBegin), to = std::min(framePos + written, payloadEnd);
        payload = to > from ? to - from : 0;
        if (payload > 0) server.bodyBytes[plan.path] += static_cast<int64_t>(payload);
      }
      if (ec == asio::error::would_block || ec == asio::error::try_again) {
        socket.async_wait(tcp::socket::wait_write, [self = shared_from_this()](error_code ec) {
          if (ec || self->server.stopping) return self->close();
          self->pump();
        });
        return Flush::Pending;
      }
      if (ec) return Flush::Failed;
      framePos += written;
      sent += static_cast<int64_t>(payload);
    }
    return Flush::Done;
  }

  // Finishes the current frame, then moves on: stalls, drops or finishes at the planned points, or queues the next
  // block. Each block goes through the queue so one fast client cannot hold the thread for a whole body.
  void pump() {
    if (server.stopping) return close();
    switch (flush()) {
      case Flush::Pending:
        return;
      case Flush::Failed:
        return close();
      case Flush::Done:
        break;
    }
    if (phase == Phase::LastChunk) return finish();
    if (phase == Phase::Head) {
      if (plan.headOnly) return finish();
      phase = Phase::Body;
      if (plan.stallBeforeBody.count() > 0) return wait(plan.stallBeforeBody);
    }
    if (plan.stallAt && !stallPassed && sent == *plan.stallAt) {
      stallPassed = true;
      if (!server.releasedSince(plan.generation)) {
        stalled = true;
        return wait(std::nullopt);
      }
    }
    if (plan.dropAt && sent == *plan.dropAt) return close();
    if (sent == plan.total) {
      if (!plan.chunked) return finish();
      phase = Phase::LastChunk;
      setFrame("0\r\n\r\n", 0);
      return pump();
    }

    int64_t n = std::min(kBlockSize, plan.total - sent);
    if (plan.stallAt && !stallPassed) n = std::min(n, *plan.stallAt - sent);
    if (plan.dropAt) n = std::min(n, *plan.dropAt - sent);
    if (plan.chunked) {
      char hex[24];
      auto [end, _] = std::to_chars(hex, hex + sizeof hex, n, 16);
      setFrame(std::string(hex, end) + "\r\n", n, "\r\n");
    } else {
      setFrame({}, n);
    }
    asio::post(socket.get_executor(), [self = shared_from_this()] { self->pump(); });
  }

  // Waits for the delay, or until released when there is none, then carries on.
  void wait(std::optional<std::chrono::milliseconds> delay) {
    if (delay)
      timer.expires_after(*delay);
    else
      timer.expires_at(asio::steady_timer::time_point::max());
    timer.async_wait([self = shared_from_this()](error_code) {
      self->stalled = false;
      self->pump();
    });
  }

  void finish() {
    if (plan.close) return close();
    readRequest();
  }

  void release() {
    if (stalled) timer.cancel();
  }

  // Shuts down after whatever is queued, so the client sees exactly the bytes counted as sent.
  void close() {
    error_code ignored;
    timer.cancel();
    socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
  }
};

void TestHttpServer::Impl::accept() {
  acceptor.async_accept([this](error_code ec, tcp::socket socket) {
    if (stopping || ec == asio::error::operation_aborted) return;
    if (!ec) {
      int index;
      {
        std::lock_guard lock(mutex);
        index = accepted++;
      }
      error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);  // heads and small blocks go out without waiting for ACKs
      socket.non_blocking(true, ignored);               // body frames are written with write_some, see flush()
      auto session = std::make_shared<Session>(*this, std::move(socket), index);
      std::erase_if(sessions, [](const auto& weak) { return weak.expired(); });
      sessions.push_back(session);
      session->readRequest();
    }
    accept();
  });
}

void TestHttpServer::Impl::stop() {
  stopping = true;
  error_code ignored;
  acceptor.close(ignored);
  for (auto& weak : sessions)
    if (auto session = weak.lock()) session->close();
  sessions.clear();
}

void TestHttpServer::Impl::wakeStalled() {
  for (auto& weak : sessions)
    if (auto session = weak.lock()) session->release();
}

Plan TestHttpServer::Impl::respond(const http::request<http::string_body>& request, int connection) {
  RecordedRequest record;
  record.method = std::string(request.method_string());
  record.target = std::string(request.target());
  for (const auto& field : request) record.headers.emplace_back(field.name_string(), field.value());
  record.connection = connection;
  std::string path(pathOf(record.target));

  Route route;
  int index = 0;
  uint64_t generation = 0;
  {
    std::lock_guard lock(mutex);
    recorded.push_back(record);
    generation = releases;
    index = requestCounts[path]++;
    if (auto found = routes.find(path); found != routes.end()) route = found->second;
  }

  auto text = [](int status, std::string body) {
    Behaviour b;
    b.status = status;
    b.body = std::move(body);
    b.honourRange = false;
    b.mimeType = "text/plain";
    return b;
  };
  Behaviour behaviour;
  if (route.handler) {
    // The handler is test code run on this thread: a throw becomes a 500 rather than ending the server.
    try {
      behaviour = route.handler(record, index);
    } catch (const std::exception& e) {
      behaviour = text(500, std::string("handler threw: ") + e.what() + "\n");
    } catch (...) {
      behaviour = text(500, "handler threw\n");
    }
  } else if (route.behaviour) {
    behaviour = *route.behaviour;
  } else {
    behaviour = text(404, "Not Found\n");
  }
  Plan p = plan(behaviour, request, std::move(path));
  p.generation = generation;
  return p;
}

Plan TestHttpServer::Impl::plan(const Behaviour& b, const http::request<http::string_body>& request, std::string path) {
  Plan p;
  p.path = std::move(path);
  p.headOnly = request.method() == http::verb::head;
  p.close = b.closeAfterResponse || !request.keep_alive();
  std::string fields;
  auto add = [&fields](std::string_view name, std::string_view value) {
    fields.append(name).append(": ").append(value).append("\r\n");
  };

  int status = 0;
  if (b.redirectTo) {
    status = b.redirectStatus;
    add("Location", *b.redirectTo);
    add("Content-Length", "0");
  } else {
    const int64_t length = b.body ? static_cast<int64_t>(b.body->size()) : std::max<int64_t>(b.size, 0);
    int64_t announced = length;
    std::optional<std::string> contentRange;
    status = 200;
    auto header = request.find(http::field::range);
    std::optional<ByteRange> range;
    if (b.honourRange && header != request.end()) range = parseRange(view(header->value()));
    if (range) {
      int64_t first = 0, last = length - 1;
      bool satisfiable = length > 0;
      if (range->first) {
        first = *range->first;
        last = std::min(range->last.value_or(last), last);
        satisfiable = satisfiable && first < length;
      } else {
        satisfiable = satisfiable && *range->last > 0;
        first = std::max<int64_t>(length - *range->last, 0);
      }
      if (satisfiable) {
        status = 206;
        p.offset = first;
        announced = last - first + 1;
        contentRange = "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(length);
      } else {
        status = 416;
        announced = 0;
        contentRange = "bytes */" + std::to_string(length);
      }
    }
    if (b.status != 0) status = b.status;
    if (b.contentRange) contentRange = b.contentRange;
    if (b.omitContentRange) contentRange.reset();

    p.body = b.body;
    p.total = std::max<int64_t>(announced + b.bodyDelta, 0);
    p.chunked = b.chunkedEncoding;
    p.stallBeforeBody = b.stallBeforeBody;
    if (b.stallAtByte && *b.stallAtByte >= 0 && *b.stallAtByte <= p.total) p.stallAt = b.stallAtByte;
    if (b.dropAfterBytes) p.dropAt = std::clamp<int64_t>(*b.dropAfterBytes, 0, p.total);

    if (!b.mimeType.empty()) add("Content-Type", b.mimeType);
    if (p.chunked)
      add("Transfer-Encoding", "chunked");
    else
      add("Content-Length", std::to_string(p.total));
    if (contentRange) add("Content-Range", *contentRange);
    if (b.honourRange) add("Accept-Ranges", "bytes");
  }
  for (const auto& [name, value] : b.extraHeaders) add(name, value);
  if (p.close)
    add("Connection", "close");
  else if (request.version() < 11)
    add("Connection", "keep-alive");
  if (b.redirectTo) p.total = 0;

  std::string reason(http::obsolete_reason(static_cast<http::status>(status)));
  p.head = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n" + fields + "\r\n";
  return p;
}

TestHttpServer::TestHttpServer() : impl_(std::make_unique<Impl>()) {
  // Only ever loopback: tests must not expose anything to the network.
  tcp::endpoint endpoint(asio::ip::address_v4::loopback(), 0);
  impl_->acceptor.open(endpoint.protocol());
  impl_->acceptor.bind(endpoint);
  impl_->acceptor.listen(asio::socket_base::max_listen_connections);
  impl_->port = impl_->acceptor.local_endpoint().port();
  impl_->accept();
  impl_->thread = std::thread([impl = impl_.get()] {
    // Handlers report failures as values; this only keeps an unexpected throw from ending the thread.
    for (;;) {
      try {
        impl->ioc.run();
        return;
      } catch (...) {
      }
    }
  });
}

TestHttpServer::~TestHttpServer() {
  // Closing the acceptor and every socket and cancelling every timer leaves run() nothing to wait for.
  asio::post(impl_->ioc, [impl = impl_.get()] { impl->stop(); });
  impl_->thread.join();
}

uint16_t TestHttpServer::port() const { return impl_->port; }

std::string TestHttpServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + std::string(path);
}

void TestHttpServer::setRoute(std::string path, Behaviour behaviour) {
  std::lock_guard lock(impl_->mutex);
  impl_->routes[std::move(path)] = Route{std::move(behaviour), nullptr};
}

void TestHttpServer::setHandler(std::string path, std::function<Behaviour(const RecordedRequest&, int)> handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->routes[std::move(path)] = Route{std::nullopt, std::move(handler)};
}

std::vector<RecordedRequest> TestHttpServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->recorded;
}

std::vector<RecordedRequest> TestHttpServer::requests(std::string_view path) const {
  std::lock_guard lock(impl_->mutex);
  std::vector<RecordedRequest> matching;
  for (const auto& request : impl_->recorded)
    if (pathOf(request.target) == path) matching.push_back(request);
  return matching;
}

int64_t TestHttpServer::bodyBytesSent(std::string_view path) const {
  std::lock_guard lock(impl_->mutex);
  auto found = impl_->bodyBytes.find(path);
  return found == impl_->bodyBytes.end() ? 0 : found->second;
}

int TestHttpServer::connectionsAccepted() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->accepted;
}

void TestHttpServer::releaseStalls() {
  // Responses under way see the new count when they reach their stall point; those already stalled are woken.
  {
    std::lock_guard lock(impl_->mutex);
    ++impl_->releases;
  }
  asio::post(impl_->ioc, [impl = impl_.get()] { impl->wakeStalled(); });
}

char TestHttpServer::patternByte(int64_t offset) {
  char byte;
  fillPattern(&byte, offset, 1);
  return byte;
}

std::string TestHttpServer::pattern(int64_t offset, int64_t length) {
  std::string out(static_cast<std::size_t>(std::max<int64_t>(length, 0)), '\0');
  fillPattern(out.data(), offset, static_cast<int64_t>(out.size()));
  return out;
}
