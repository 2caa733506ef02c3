#include "tests/support/TestHttpServer.h"

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <map>
#include <mutex>
#include <regex>
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

// Each byte from a 64-bit mix of its offset, so the pattern never repeats at a power-of-two period.
void fillPattern(char* out, int64_t offset, int64_t length) {
  for (int64_t i = 0; i < length; ++i) out[i] = static_cast<char>(mix64(static_cast<uint64_t>(offset + i)));
}

std::string_view pathOf(std::string_view target) { return target.substr(0, target.find('?')); }

// Everything one response needs once the request has been answered: the head and how to send the body.
struct Plan {
  std::string path{};
  std::string head{};
  bool headOnly = false;
  std::optional<std::string> body{};  // explicit body; bytes past its end (bodyDelta > 0) come from the pattern
  int64_t offset = 0;                 // offset in the body of the first byte sent
  int64_t total = 0;                  // body bytes to send
  std::optional<int64_t> stallAt{};
  std::optional<int64_t> dropAt{};
  uint64_t generation = 0;  // releaseStalls() calls made before the request arrived
  std::chrono::milliseconds stallBeforeBody{0};
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

}  // namespace

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (boost::algorithm::iequals(key, name)) return value;
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
  int accepted = 0;

  mutable std::mutex mutex;
  std::map<std::string, std::function<Behaviour(const RecordedRequest&, int)>, std::less<>> routes;
  std::vector<RecordedRequest> recorded;
  std::map<std::string, int, std::less<>> requestCounts;
  std::map<std::string, int64_t, std::less<>> bodyBytes;
  uint64_t releases = 0;  // releaseStalls() calls so far

  void accept();
  void stop();
  Plan respond(const http::request<http::string_body>& request, int connection);

  bool releasedSince(uint64_t generation) {
    std::lock_guard lock(mutex);
    return releases != generation;
  }
};

// One TCP connection: reads requests and writes their responses, the head then one block of body at a time, until
// closed. Each block is a handler of its own, so one fast client cannot hold the thread for a whole body.
struct TestHttpServer::Impl::Session : std::enable_shared_from_this<Session> {
  Session(Impl& server, tcp::socket socket, int index)
      : server(server), socket(std::move(socket)), timer(server.ioc), index(index) {}

  Impl& server;
  tcp::socket socket;
  asio::steady_timer timer;  // stallBeforeBody and stallAtByte waits
  const int index;
  beast::flat_buffer buffer;
  http::request<http::string_body> request;  // bodies past 1 MiB are refused
  Plan plan;
  bool inBody = false;
  int64_t sent = 0;  // body bytes of this response handed to the socket
  bool stallPassed = false;
  bool stalled = false;
  std::string frame;

  void readRequest() {
    request = {};
    http::async_read(socket, buffer, request,
                     [self = shared_from_this()](error_code ec, std::size_t) { self->onRequest(ec); });
  }

  void onRequest(error_code ec) {
    if (ec || server.stopping) return close();
    plan = server.respond(request, index);
    inBody = false;
    sent = 0;
    stallPassed = false;
    write(plan.head);
  }

  // Body bytes are counted before they are written, so a client that has seen them never reads a smaller
  // bodyBytesSent().
  void write(std::string data, int64_t bodyBytes = 0) {
    if (bodyBytes > 0) {
      std::lock_guard lock(server.mutex);
      server.bodyBytes[plan.path] += bodyBytes;
    }
    sent += bodyBytes;
    frame = std::move(data);
    asio::async_write(socket, asio::buffer(frame), [self = shared_from_this()](error_code ec, std::size_t) {
      if (ec || self->server.stopping) return self->close();
      self->pump();
    });
  }

  // Moves on once a frame is out: stalls, drops or finishes at the planned points, or writes the next block.
  void pump() {
    if (!inBody) {
      inBody = true;
      if (plan.headOnly) return plan.close ? close() : readRequest();
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
    if (sent == plan.total) return plan.close ? close() : readRequest();
    int64_t n = std::min(kBlockSize, plan.total - sent);
    if (plan.stallAt && !stallPassed) n = std::min(n, *plan.stallAt - sent);
    if (plan.dropAt) n = std::min(n, *plan.dropAt - sent);
    std::string block(static_cast<std::size_t>(n), '\0');
    plan.fill(block.data(), sent, n);
    write(std::move(block), n);
  }

  // Waits for the delay, or until released when there is none, then carries on.
  void wait(std::optional<std::chrono::milliseconds> delay) {
    if (delay)
      timer.expires_after(*delay);
    else
      timer.expires_at(asio::steady_timer::time_point::max());
    timer.async_wait([self = shared_from_this()](error_code) {
      self->stalled = false;
      if (self->server.stopping) return self->close();
      self->pump();
    });
  }

  // Shuts down after whatever was written, so the client sees exactly the bytes counted as sent.
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
      error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);  // heads and small blocks go out without waiting for ACKs
      auto session = std::make_shared<Session>(*this, std::move(socket), accepted++);
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

Plan TestHttpServer::Impl::respond(const http::request<http::string_body>& request, int connection) {
  RecordedRequest record;
  record.target = std::string(request.target());
  for (const auto& field : request) record.headers.emplace_back(field.name_string(), field.value());
  record.connection = connection;
  std::string path(pathOf(record.target));

  std::function<Behaviour(const RecordedRequest&, int)> handler;
  int index = 0;
  uint64_t generation = 0;
  {
    std::lock_guard lock(mutex);
    recorded.push_back(record);
    generation = releases;
    index = requestCounts[path]++;
    if (auto found = routes.find(path); found != routes.end()) handler = found->second;
  }
  // A handler is test code run on this thread: a throw becomes a 500 rather than ending the server.
  Behaviour b{.body = "Not Found\n", .honourRange = false, .status = 404, .mimeType = "text/plain"};
  try {
    if (handler) b = handler(record, index);
  } catch (...) {
    b.body = "handler threw\n";
    b.status = 500;
  }
  Plan p{.path = std::move(path), .headOnly = request.method() == http::verb::head, .generation = generation,
         .close = !request.keep_alive()};
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
    // The first range "A-" or "A-B" of a Range header; a malformed, suffix or backward one is ignored. The clients
    // under test never send the last two.
    static const std::regex form(R"(bytes=(\d{1,18})-(\d{0,18})(,.*)?)", std::regex::icase);
    const std::string value(request[http::field::range]);
    std::smatch range;
    const bool ranged = b.honourRange && std::regex_match(value, range, form);
    const int64_t first = ranged ? std::stoll(range[1]) : 0;
    const int64_t last = ranged && range[2].length() ? std::stoll(range[2]) : INT64_MAX;
    if (ranged && last >= first && first < length) {
      status = 206;
      p.offset = first;
      announced = std::min(last, length - 1) - first + 1;
      contentRange = "bytes " + std::to_string(first) + "-" + std::to_string(first + announced - 1) + "/" +
                     std::to_string(length);
    } else if (ranged && last >= first) {
      status = 416;
      announced = 0;
      contentRange = "bytes */" + std::to_string(length);
    }
    if (b.status != 0) status = b.status;
    if (b.contentRange) contentRange = b.contentRange;
    if (b.omitContentRange) contentRange.reset();

    p.body = b.body;
    p.total = std::max<int64_t>(announced + b.bodyDelta, 0);
    p.stallBeforeBody = b.stallBeforeBody;
    if (b.stallAtByte && *b.stallAtByte >= 0 && *b.stallAtByte <= p.total) p.stallAt = b.stallAtByte;
    if (b.dropAfterBytes) p.dropAt = std::clamp<int64_t>(*b.dropAfterBytes, 0, p.total);

    if (!b.mimeType.empty()) add("Content-Type", b.mimeType);
    add("Content-Length", std::to_string(p.total));
    if (contentRange) add("Content-Range", *contentRange);
    if (b.honourRange) add("Accept-Ranges", "bytes");
  }
  for (const auto& [name, value] : b.extraHeaders) add(name, value);
  if (p.close) add("Connection", "close");

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
  // Socket errors come as values and a throwing route handler becomes a 500, so nothing throws out of run().
  impl_->thread = std::thread([impl = impl_.get()] { impl->ioc.run(); });
}

TestHttpServer::~TestHttpServer() {
  // Closing the acceptor and every socket and cancelling every timer leaves run() nothing to wait for.
  asio::post(impl_->ioc, [impl = impl_.get()] { impl->stop(); });
  impl_->thread.join();
}

std::string TestHttpServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + std::string(path);
}

void TestHttpServer::setRoute(std::string path, Behaviour behaviour) {
  setHandler(std::move(path), [behaviour = std::move(behaviour)](const RecordedRequest&, int) { return behaviour; });
}

void TestHttpServer::setHandler(std::string path, std::function<Behaviour(const RecordedRequest&, int)> handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->routes[std::move(path)] = std::move(handler);
}

std::vector<RecordedRequest> TestHttpServer::requests(std::string_view path) const {
  std::lock_guard lock(impl_->mutex);
  std::vector<RecordedRequest> matching;
  for (const auto& request : impl_->recorded)
    if (path.empty() || pathOf(request.target) == path) matching.push_back(request);
  return matching;
}

int64_t TestHttpServer::bodyBytesSent(std::string_view path) const {
  std::lock_guard lock(impl_->mutex);
  auto found = impl_->bodyBytes.find(path);
  return found == impl_->bodyBytes.end() ? 0 : found->second;
}

void TestHttpServer::releaseStalls() {
  // Responses under way see the new count when they reach their stall point; those already stalled are woken.
  {
    std::lock_guard lock(impl_->mutex);
    ++impl_->releases;
  }
  asio::post(impl_->ioc, [impl = impl_.get()] {
    for (auto& weak : impl->sessions)
      if (auto session = weak.lock(); session && session->stalled) session->timer.cancel();
  });
}

std::string TestHttpServer::pattern(int64_t offset, int64_t length) {
  std::string out(static_cast<std::size_t>(std::max<int64_t>(length, 0)), '\0');
  fillPattern(out.data(), offset, static_cast<int64_t>(out.size()));
  return out;
}
