#include "shelf/server/WebServer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "shelf/server/PercentEncoding.h"
#include "shelf/server/RequestGuard.h"

namespace shelf {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using boost::system::error_code;

constexpr uint64_t kMessageLimit = WebServer::kMessageLimit;
constexpr size_t kMaxConnections = WebServer::kMaxConnections;
constexpr size_t kOutboxLimit = WebServer::kOutboxLimit;
constexpr auto kReadTimeout = std::chrono::seconds(60);
// After a failed accept (no descriptor left, say) the next waits, doubling up to the longest.
constexpr auto kAcceptPauseFirst = std::chrono::milliseconds(10);
constexpr auto kAcceptPauseLongest = std::chrono::milliseconds(500);
// No page may show the UI in a frame: it could be made to click for the user.
constexpr const char* kContentSecurityPolicy =
    "default-src 'self'; connect-src 'self'; img-src 'self' data:; style-src 'self'; frame-ancestors 'none'";
constexpr const char* kSandboxPolicy = "sandbox; frame-ancestors 'none'";
constexpr const char* kPlainText = "text/plain; charset=utf-8";

std::atomic<uint64_t> nextConnectionId{1};

std::string_view view(beast::string_view s) { return {s.data(), s.size()}; }

// Runs a host handler on the I/O thread. What it throws is reported and dropped:
// it must not end the thread, and with it every connection.
template <class F>
void guarded(const char* what, F&& handler) {
  try {
    handler();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "shelf: the %s handler failed: %s\n", what, error.what());
  } catch (...) {
    std::fprintf(stderr, "shelf: the %s handler failed\n", what);
  }
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

struct Target {
  std::string path;
  std::map<std::string, std::string> query;
};

// An origin-form target "/path?query"; none otherwise.
std::optional<Target> parseTarget(std::string_view target) {
  if (!target.starts_with('/')) return std::nullopt;
  const auto mark = target.find('?');
  auto path = percentDecode(target.substr(0, mark), false);
  if (!path) return std::nullopt;
  Target result{std::move(*path), {}};
  for (auto rest = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1); !rest.empty();) {
    const auto amp = rest.find('&');
    const auto pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
    if (pair.empty()) continue;
    const auto eq = pair.find('=');
    auto key = percentDecode(pair.substr(0, eq), true);
    auto value = percentDecode(eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1), true);
    if (!key || !value) return std::nullopt;
    result.query.emplace(std::move(*key), std::move(*value));
  }
  return result;
}

// Lets other threads post to the I/O thread while the server runs; after
// close() posts are dropped, so handles may outlive the server.
class Gate {
 public:
  explicit Gate(asio::io_context& ioc) : ioc_(&ioc) {}
  template <class F>
  void post(F&& f) {
    std::lock_guard lock(mutex_);
    if (ioc_) asio::post(*ioc_, std::forward<F>(f));
  }
  void close() {
    std::lock_guard lock(mutex_);
    ioc_ = nullptr;
  }

 private:
  std::mutex mutex_;
  asio::io_context* ioc_;  // guarded by mutex_
};

class Connection {
 public:
  virtual ~Connection() = default;
  // Closes the socket; pending operations end with an error.
  virtual void shutdown() = 0;
};

// What the sessions share. Used on the I/O thread only, except `gate`.
struct ServerState {
  WebServerHandlers handlers;
  GuardPolicy policy;
  SessionTable sessions;
  std::shared_ptr<Gate> gate;
  std::unordered_map<uint64_t, std::shared_ptr<Connection>> connections;  // owns every session
  bool stopping = false;
};

// One WebSocket; at most one write in flight, the rest queued.
class WsSession final : public Connection, public std::enable_shared_from_this<WsSession> {
 public:
  WsSession(beast::tcp_stream stream, ServerState& state) : ws_(std::move(stream)), state_(state) {}
  uint64_t id() const { return id_; }
  void accept(http::request<http::string_body> request);
  void shutdown() override { beast::get_lowest_layer(ws_).close(); }

  void enqueue(std::string text) {
    if (!opened_ || closing_ || done_) return;
    if (outboxBytes_ + text.size() > kOutboxLimit) return finish();  // it does not read: a close frame would wait too
    outboxBytes_ += text.size();
    outbox_.push_back(std::move(text));
    if (outbox_.size() == 1) writeNext();
  }

  void requestClose(CloseReason reason) {
    if (!opened_ || closing_ || done_) return;
    closing_ = true;
    closeCode_ = static_cast<websocket::close_code>(reason);
    if (outbox_.empty()) closeNow();
  }

 private:
  void read() {
    ws_.async_read(buffer_, [self = shared_from_this()](error_code ec, size_t) {
      if (ec) return self->finish();
      if (self->ws_.got_text() && self->state_.handlers.message)
        guarded("message", [&] { self->state_.handlers.message(self->id_, beast::buffers_to_string(self->buffer_.data())); });
      self->buffer_.consume(self->buffer_.size());
      self->read();
    });
  }

  void writeNext() {
    ws_.async_write(asio::buffer(outbox_.front()), [self = shared_from_this()](error_code ec, size_t) {
      if (ec) return self->finish();
      self->outboxBytes_ -= self->outbox_.front().size();
      self->outbox_.pop_front();
      if (!self->outbox_.empty()) self->writeNext();
      else if (self->closing_) self->closeNow();
    });
  }

  // The read loop then ends with websocket::error::closed and finishes.
  void closeNow() { ws_.async_close(closeCode_, [self = shared_from_this()](error_code) {}); }

  void finish() {
    if (done_) return;
    done_ = true;
    beast::get_lowest_layer(ws_).close();
    if (opened_ && state_.handlers.closed) guarded("closed", [&] { state_.handlers.closed(id_); });
    state_.connections.erase(id_);
  }

  websocket::stream<beast::tcp_stream> ws_;
  beast::flat_buffer buffer_;
  std::deque<std::string> outbox_;
  size_t outboxBytes_ = 0;
  websocket::close_code closeCode_ = websocket::close_code::normal;
  ServerState& state_;
  const uint64_t id_ = nextConnectionId++;
  bool opened_ = false, closing_ = false, done_ = false;
};

// The host's side of a WebSocket: posts to the session, which may be gone.
class WsHandle final : public WebSocketConnection {
 public:
  WsHandle(uint64_t id, std::weak_ptr<WsSession> session, std::shared_ptr<Gate> gate)
      : id_(id), session_(std::move(session)), gate_(std::move(gate)) {}
  uint64_t id() const override { return id_; }
  void send(std::string text) override {
    gate_->post([session = session_, text = std::move(text)]() mutable {
      if (auto s = session.lock()) s->enqueue(std::move(text));
    });
  }
  void close(CloseReason reason) override {
    gate_->post([session = session_, reason] {
      if (auto s = session.lock()) s->requestClose(reason);
    });
  }

 private:
  const uint64_t id_;
  const std::weak_ptr<WsSession> session_;
  const std::shared_ptr<Gate> gate_;
};

void WsSession::accept(http::request<http::string_body> request) {
  ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
  ws_.read_message_max(kMessageLimit);
  ws_.text(true);
  ws_.async_accept(request, [self = shared_from_this()](error_code ec) {
    if (ec) return self->finish();
    self->opened_ = true;
    if (self->state_.handlers.opened)
      guarded("opened", [&] { self->state_.handlers.opened(std::make_shared<WsHandle>(self->id_, self, self->state_.gate)); });
    self->read();
  });
}

// One HTTP connection: reads a request, answers it, and reads the next while kept alive.
class HttpSession final : public Connection, public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket socket, ServerState& state) : stream_(std::move(socket)), state_(state) {}
  uint64_t id() const { return id_; }
  void start() { read(); }
  void shutdown() override { stream_.close(); }

  void answerApi(HttpResponse answer) {
    const bool validStatus = answer.status >= 100 && answer.status <= 599;
    http::response<http::string_body> res{http::int_to_status(validStatus ? answer.status : 500), exchange_.version};
    res.set(http::field::content_type, answer.contentType);
    for (const auto& [name, value] : answer.headers) res.insert(name, value);
    res.body() = std::move(answer.body);
    sendString(std::move(res));
  }

 private:
  // The request being answered.
  struct Exchange {
    unsigned version = 11;
    bool keepAlive = false, head = false;
  };

  void read() {
    if (state_.stopping) return finish();
    parser_.emplace();
    parser_->body_limit(kMessageLimit);
    stream_.expires_after(kReadTimeout);
    http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](error_code ec, size_t) {
      if (ec == http::error::body_limit) {
        self->exchange_ = {self->parser_->get().version(), false, false};
        return self->sendText(http::status::payload_too_large, "request body too large\n");
      }
      if (ec) return self->finish();
      self->route(self->parser_->release());
    });
  }

  void route(http::request<http::string_body> req) {
    exchange_ = {req.version(), req.keep_alive(), req.method() == http::verb::head};
    auto target = parseTarget(view(req.target()));
    auto field = [&](http::field name) -> std::optional<std::string> {
      auto it = req.find(name);
      return it == req.end() ? std::nullopt : std::optional<std::string>(view(it->value()));
    };
    GuardInput input{req.count(http::field::host) == 1 ? field(http::field::host) : std::nullopt,
                     field(http::field::origin), field(http::field::authorization), std::nullopt, std::nullopt};
    for (auto [it, end] = req.equal_range(http::field::cookie); it != end; ++it)
      input.cookie = (input.cookie ? *input.cookie + "; " : std::string()) + std::string(view(it->value()));
    if (target && target->query.count("token")) input.queryToken = target->query.at("token");

    const GuardVerdict verdict = checkRequest(state_.policy, input, state_.sessions);
    if (!verdict.allowed) return sendText(http::status::forbidden, "forbidden: " + verdict.reason + "\n");
    if (!target) return sendText(http::status::bad_request, "malformed request target\n");
    const bool upgrading = websocket::is_upgrade(req);
    // A browser opening the printed address; a program calling the API keeps its answer.
    const bool page = req.method() == http::verb::get && !upgrading && !target->path.starts_with("/api/");
    if (verdict.startSession && page) return startSession(view(req.target()));
    if (target->path == "/ws" && upgrading) return upgrade(std::move(req));

    HttpRequest request{std::string(view(req.method_string())), std::move(target->path), std::move(target->query), {},
                        std::move(req.body())};
    for (const auto& header : req) {
      auto& value = request.headers[lower(view(header.name_string()))];
      if (!value.empty()) value += header.name() == http::field::cookie ? "; " : ", ";
      value += view(header.value());
    }
    if (request.path.starts_with("/api/") && state_.handlers.api) {
      auto header = [&](const char* name) {
        auto found = request.headers.find(name);
        return found == request.headers.end() ? std::nullopt : std::optional<std::string>(found->second);
      };
      std::string reason;
      const int refusal = checkStateChange(request.method, header("content-type"), header("sec-fetch-site"), &reason);
      if (refusal) return sendText(http::int_to_status(static_cast<unsigned>(refusal)), reason + "\n");
      return callApi(std::move(request));
    }
    if (!exchange_.head && req.method() != http::verb::get) {
      auto res = textResponse(http::status::method_not_allowed, "method not allowed\n");
      res.set(http::field::allow, "GET, HEAD");
      return sendString(std::move(res));
    }
    serveFile(request);
  }

  void upgrade(http::request<http::string_body> req) {
    stream_.expires_never();  // the WebSocket has its own timeouts
    auto ws = std::make_shared<WsSession>(std::move(stream_), state_);
    state_.connections.erase(id_);
    state_.connections.emplace(ws->id(), ws);
    ws->accept(std::move(req));
  }

  void callApi(HttpRequest request);

  // The token came in the address: the browser gets a session cookie instead and
  // is sent to the same address without the token, so it leaves the address bar
  // and the history.
  void startSession(std::string_view target) {
    http::response<http::string_body> res{http::status::see_other, exchange_.version};
    res.set(http::field::location, targetWithoutToken(target));
    res.set(http::field::set_cookie,
            state_.policy.cookieName + "=" + state_.sessions.create() + "; HttpOnly; SameSite=Strict; Path=/");
    sendString(std::move(res));
  }

  void serveFile(const HttpRequest& request) {
    std::optional<ServedFile> file;
    if (state_.handlers.resolveFile) guarded("file", [&] { file = state_.handlers.resolveFile(request); });
    http::file_body::value_type body;
    if (file) body = openFile(*file);
    if (!body.is_open()) return sendText(http::status::not_found, "not found\n");

    const auto size = body.size();
    auto describe = [&](auto& res) {
      res.set(http::field::content_type, file->contentType);
      if (file->attachment)
        res.set(http::field::content_disposition,
                "attachment; filename*=UTF-8''" + percentEncode(file->path.filename().string()));
      res.content_length(size);
      // A file from elsewhere runs in an origin of its own, without scripts.
      if (file->sandbox) res.set("Content-Security-Policy", kSandboxPolicy);
    };
    if (exchange_.head) {
      http::response<http::empty_body> res{http::status::ok, exchange_.version};
      describe(res);
      return send(std::move(res));
    }
    http::response<http::file_body> res{std::piecewise_construct, std::make_tuple(std::move(body)),
                                        std::make_tuple(http::status::ok, exchange_.version)};
    describe(res);
    send(std::move(res));
  }

  // The checks are made on the opened file, so a name swapped after the
  // resolver looked at it cannot bring in another file.
  static http::file_body::value_type openFile(const ServedFile& file) {
    http::file_body::value_type body;
    const int fd = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return body;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || (file.singleLink && info.st_nlink != 1)) {
      ::close(fd);
      return body;
    }
    beast::file_posix opened;
    opened.native_handle(fd);  // owns it from here
    error_code ec;
    body.reset(std::move(opened), ec);
    return body;
  }

  http::response<http::string_body> textResponse(http::status status, std::string text) {
    http::response<http::string_body> res{status, exchange_.version};
    res.set(http::field::content_type, kPlainText);
    res.body() = std::move(text);
    return res;
  }

  void sendText(http::status status, std::string text) { sendString(textResponse(status, std::move(text))); }

  void sendString(http::response<http::string_body> res) {
    res.prepare_payload();
    if (exchange_.head) res.body().clear();  // Content-Length still tells the size
    send(std::move(res));
  }

  template <class Body>
  void send(http::response<Body> res) {
    res.set("X-Content-Type-Options", "nosniff");
    res.set(http::field::cache_control, "no-store");
    if (res.find("Content-Security-Policy") == res.end()) res.set("Content-Security-Policy", kContentSecurityPolicy);
    res.set("X-Frame-Options", "DENY");  // for browsers that do not know frame-ancestors
    res.keep_alive(exchange_.keepAlive);
    auto message = std::make_shared<http::response<Body>>(std::move(res));
    stream_.expires_never();  // a large file may take long
    http::async_write(stream_, *message, [self = shared_from_this(), message](error_code ec, size_t) {
      if (ec || message->need_eof()) return self->finish();
      self->read();
    });
  }

  void finish() {
    error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream_.close();
    state_.connections.erase(id_);
  }

  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  ServerState& state_;
  Exchange exchange_;
  const uint64_t id_ = nextConnectionId++;
};

// The `respond` callback of one API request; answers 500 if dropped unanswered.
class PendingAnswer {
 public:
  PendingAnswer(std::shared_ptr<Gate> gate, std::weak_ptr<HttpSession> session)
      : gate_(std::move(gate)), session_(std::move(session)) {}
  ~PendingAnswer() { deliver({500, kPlainText, "no answer\n", {}}); }
  void deliver(HttpResponse answer) {
    if (done_.exchange(true)) return;
    gate_->post([session = session_, answer = std::move(answer)]() mutable {
      if (auto s = session.lock()) s->answerApi(std::move(answer));
    });
  }

 private:
  const std::shared_ptr<Gate> gate_;
  const std::weak_ptr<HttpSession> session_;
  std::atomic<bool> done_{false};
};

void HttpSession::callApi(HttpRequest request) {
  auto pending = std::make_shared<PendingAnswer>(state_.gate, weak_from_this());
  guarded("API", [&] {
    state_.handlers.api(std::move(request), [pending](HttpResponse answer) { pending->deliver(std::move(answer)); });
  });
}

class ServerImpl final : public WebServer {
 public:
  ServerImpl(WebServerHandlers handlers, GuardPolicy policy) {
    state_.handlers = std::move(handlers);
    state_.policy = std::move(policy);
    state_.gate = std::make_shared<Gate>(ioc_);
  }
  ~ServerImpl() override { stop(); }

  bool listen(const tcp::endpoint& endpoint, std::string* error) {
    error_code ec;
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
      if (error) *error = "cannot listen on " + state_.policy.listenAddress + ": " + ec.message();
      return false;
    }
    state_.policy.port = acceptor_.local_endpoint().port();
    // Named for the port: cookies are not kept apart by port, so two servers on one host name must not share one.
    state_.policy.cookieName = "shelf_session_" + std::to_string(state_.policy.port);
    accept();
    thread_ = std::thread([this] { ioc_.run(); });
    return true;
  }

  uint16_t port() const override { return state_.policy.port; }
  uint64_t failedAccepts() const override { return failedAccepts_; }

  std::string url() const override {
    std::string host = state_.policy.listenAddress;
    if (isWildcardAddress(host)) host = "localhost";
    else if (host.find(':') != std::string::npos) host = "[" + host + "]";
    std::string url = "http://" + host + ":" + std::to_string(port()) + "/";
    if (state_.policy.token) url += "?token=" + percentEncode(*state_.policy.token);
    return url;
  }

  void stop() override {
    if (stopped_.exchange(true)) return;
    state_.gate->close();
    asio::post(ioc_, [this] {
      state_.stopping = true;
      error_code ignored;
      acceptor_.close(ignored);
      acceptTimer_.cancel();
      const auto connections = state_.connections;  // shutting down removes them
      for (const auto& [id, connection] : connections) connection->shutdown();
    });
    work_.reset();
    if (thread_.joinable()) thread_.join();
    state_.connections.clear();
  }

 private:
  void accept() {
    acceptor_.async_accept([this](error_code ec, tcp::socket socket) {
      if (state_.stopping || !acceptor_.is_open()) return;
      if (ec) return pauseAccepting();
      acceptPause_ = std::chrono::milliseconds(0);
      if (state_.connections.size() >= kMaxConnections) {
        error_code ignored;
        socket.close(ignored);
      } else {
        auto session = std::make_shared<HttpSession>(std::move(socket), state_);
        state_.connections.emplace(session->id(), session);
        session->start();
      }
      accept();
    });
  }

  // The connection stays in the backlog; accepting again at once would fail
  // again at once (EMFILE: the listener stays readable) and spin.
  void pauseAccepting() {
    ++failedAccepts_;
    acceptPause_ = std::clamp(acceptPause_ * 2, std::chrono::milliseconds(kAcceptPauseFirst), kAcceptPauseLongest);
    acceptTimer_.expires_after(acceptPause_);
    acceptTimer_.async_wait([this](error_code ec) {
      if (!ec && !state_.stopping) accept();
    });
  }

  asio::io_context ioc_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(ioc_);
  tcp::acceptor acceptor_{ioc_};
  asio::steady_timer acceptTimer_{ioc_};
  std::chrono::milliseconds acceptPause_{0};
  std::atomic<uint64_t> failedAccepts_{0};
  ServerState state_;
  std::thread thread_;
  std::atomic<bool> stopped_{false};
};

}  // namespace

std::unique_ptr<WebServer> WebServer::start(const WebServerOptions& options, WebServerHandlers handlers,
                                            std::string* error) {
  auto fail = [&](std::string message) {
    if (error) *error = std::move(message);
    return nullptr;
  };
  const bool requireToken = options.requireToken.value_or(!isLoopbackAddress(options.listenAddress));
  if (requireToken && (!options.accessToken || options.accessToken->empty()))
    return fail("listening on " + options.listenAddress + " requires an access token");
  error_code ec;
  asio::ip::address address = asio::ip::address_v4::loopback();
  if (lower(options.listenAddress) != "localhost") address = asio::ip::make_address(options.listenAddress, ec);
  if (ec) return fail("not an IP address: " + options.listenAddress);

  GuardPolicy policy{options.listenAddress, options.port, requireToken ? options.accessToken : std::nullopt};
  auto server = std::make_unique<ServerImpl>(std::move(handlers), std::move(policy));
  if (!server->listen({address, options.port}, error)) return nullptr;
  return server;
}

}  // namespace shelf
