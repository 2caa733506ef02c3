#include <gtest/gtest.h>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <map>
#include <thread>

#include "shelf/server/RequestGuard.h"
#include "shelf/server/WebServer.h"

using namespace shelf;
using namespace std::chrono_literals;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Headers = std::vector<std::pair<std::string, std::string>>;

namespace {

TEST(RequestGuardTest, DecidesFromHostOriginAndToken) {
  const GuardPolicy local{"127.0.0.1", 8080, std::nullopt}, lan{"192.168.1.5", 8080, "s3cret"},
      any{"0.0.0.0", 8080, "s3cret"}, v6{"::1", 8080, std::nullopt};
  const std::optional<std::string> none;
  SessionTable sessions;
  const std::string session = sessions.create();
  EXPECT_NE(sessions.create(), session) << "every session has its own value";
  struct Case {
    const char* name;
    GuardPolicy policy;
    GuardInput input;  // host, origin, authorization, cookie, query token
    bool allowed, startSession;
  };
  const Case cases[] = {
      {"listen address", local, {"127.0.0.1:8080", none, none, none, none}, true, false},
      {"localhost any case", local, {"LocalHost:8080", "http://localhost:8080", none, none, none}, true, false},
      {"bracketed ::1 on loopback", local, {"[::1]:8080", "http://[::1]:8080", none, none, none}, true, false},
      {"listening on ::1", v6, {"[0:0::1]:8080", none, none, none, none}, true, false},
      {"no Host", local, {none, none, none, none, none}, false, false},
      {"foreign Host", local, {"evil.example:8080", none, none, none, none}, false, false},
      {"rebinding name", local, {"localhost.evil.example:8080", none, none, none, none}, false, false},
      {"wrong port", local, {"127.0.0.1:8081", none, none, none, none}, false, false},
      {"missing port is 80", local, {"127.0.0.1", none, none, none, none}, false, false},
      {"junk port", local, {"127.0.0.1:80x", none, none, none, none}, false, false},
      {"shorthand IPv4", local, {"127.1:8080", none, none, none, none}, false, false},
      {"foreign Origin", local, {"127.0.0.1:8080", "http://evil.example", none, none, none}, false, false},
      {"https Origin", local, {"127.0.0.1:8080", "https://127.0.0.1:8080", none, none, none}, false, false},
      {"null Origin", local, {"127.0.0.1:8080", "null", none, none, none}, false, false},
      {"Origin with a path", local, {"127.0.0.1:8080", "http://127.0.0.1:8080/x", none, none, none}, false, false},
      {"token ignored on loopback", local, {"127.0.0.1:8080", none, "Bearer nope", none, none}, true, false},
      {"token missing", lan, {"192.168.1.5:8080", none, none, none, none}, false, false},
      {"bearer", lan, {"192.168.1.5:8080", none, "bearer s3cret", none, none}, true, false},
      {"bearer wrong", lan, {"192.168.1.5:8080", none, "Bearer s3cre", none, none}, false, false},
      {"basic is not bearer", lan, {"192.168.1.5:8080", none, "Basic s3cret", none, none}, false, false},
      {"session among others", lan, {"192.168.1.5:8080", none, none, "a=1; shelf_session=" + session + "; b=2", none},
       true, false},
      {"session with another name", lan, {"192.168.1.5:8080", none, none, "xshelf_session=" + session, none}, false, false},
      {"the token is no session", lan, {"192.168.1.5:8080", none, none, "shelf_session=s3cret", none}, false, false},
      {"the old token cookie", lan, {"192.168.1.5:8080", none, none, "shelf_token=s3cret", none}, false, false},
      {"empty session", lan, {"192.168.1.5:8080", none, none, "shelf_session=", none}, false, false},
      {"query token starts a session", lan, {"192.168.1.5:8080", none, none, none, "s3cret"}, true, true},
      {"query token wrong", lan, {"192.168.1.5:8080", none, none, "shelf_session=x", "s3cre"}, false, false},
      {"token does not excuse Host", lan, {"evil.example:8080", none, "Bearer s3cret", none, none}, false, false},
      {"wildcard takes any name", any, {"nas.lan:8080", "http://NAS.lan:8080", "Bearer s3cret", none, none}, true, false},
      {"wildcard Origin must be the Host", any, {"nas.lan:8080", "http://evil.example:8080", "Bearer s3cret", none, none},
       false, false},
      {"wildcard still wants the token", any, {"nas.lan:8080", none, none, none, none}, false, false},
      {"empty token matches nothing", {"192.168.1.5", 8080, ""}, {"192.168.1.5:8080", none, "Bearer ", "shelf_session=", ""},
       false, false},
  };
  for (const auto& c : cases) {
    const auto verdict = checkRequest(c.policy, c.input, sessions);
    EXPECT_EQ(verdict.allowed, c.allowed) << c.name;
    EXPECT_EQ(verdict.startSession, c.startSession) << c.name;
    EXPECT_EQ(verdict.reason.empty(), c.allowed) << c.name;
  }
}

TEST(RequestGuardTest, StateChangesMustBeJsonFromThisSite) {
  const std::optional<std::string> none;
  const struct {
    const char* method;
    std::optional<std::string> contentType, fetchSite;
    int status;
  } cases[] = {
      {"GET", none, "cross-site", 0},
      {"HEAD", "text/plain", none, 0},
      {"POST", "application/json", none, 0},
      {"PUT", "Application/JSON; charset=utf-8", "same-origin", 0},
      {"DELETE", " application/json ", "none", 0},
      {"POST", "text/plain", none, 415},
      {"POST", none, none, 415},
      {"DELETE", none, none, 415},
      {"POST", "application/x-www-form-urlencoded", none, 415},
      {"POST", "multipart/form-data; boundary=x", none, 415},
      {"POST", "application/json, text/plain", none, 415},
      {"POST", "application/jsonx", none, 415},
      {"POST", "application/json", "cross-site", 403},
      {"PUT", "application/json", "Same-Site", 403},
      {"PUT", "text/plain", "cross-site", 403},
  };
  for (const auto& c : cases) {
    std::string reason;
    EXPECT_EQ(checkStateChange(c.method, c.contentType, c.fetchSite, &reason), c.status)
        << c.method << " " << c.contentType.value_or("-") << " " << c.fetchSite.value_or("-");
    EXPECT_EQ(reason.empty(), c.status == 0);
  }
  for (auto [target, expected] : std::vector<std::pair<std::string, std::string>>{
           {"/?token=T", "/"}, {"/a?token=T&b=1", "/a?b=1"}, {"/a?b=1&token=T&c", "/a?b=1&c"}, {"/a?%74oken=T", "/a"},
           {"/a?token=1&token=2", "/a"}, {"/a?tokens=1", "/a?tokens=1"}, {"/a", "/a"}, {"/a?", "/a"}})
    EXPECT_EQ(targetWithoutToken(target), expected) << target;
}

TEST(RequestGuardTest, ClassifiesAddressesAndComparesTokens) {
  for (auto [address, loopback] : std::vector<std::pair<std::string, bool>>{
           {"127.0.0.1", true}, {"127.9.8.7", true}, {"::1", true}, {"localhost", true}, {"::ffff:127.0.0.1", true},
           {"128.0.0.1", false}, {"0.0.0.0", false}, {"::", false}, {"192.168.1.5", false}, {"localhost.evil", false}})
    EXPECT_EQ(isLoopbackAddress(address), loopback) << address;
  EXPECT_TRUE(isWildcardAddress("0.0.0.0") && isWildcardAddress("::") && !isWildcardAddress("127.0.0.1"));
  EXPECT_TRUE(constantTimeEquals("abc", "abc"));
  EXPECT_FALSE(constantTimeEquals("abc", "abd") || constantTimeEquals("abc", "ab") || constantTimeEquals("", "a"));
}

struct Reply {
  unsigned status = 0;
  std::string body;
  http::fields fields;
  std::string header(const std::string& name) const {
    const auto found = fields.find(name);
    return found == fields.end() ? "<none>" : std::string(found->value());
  }
};

// A keep-alive HTTP client on 127.0.0.1; Host defaults to the server's address.
class Client {
 public:
  explicit Client(uint16_t port) : port_(port) { socket_.connect({asio::ip::make_address("127.0.0.1"), port}); }
  Reply request(http::verb method, const std::string& target, const Headers& headers = {}, std::string body = {},
                bool sendBody = true) {
    http::request<http::string_body> req{method, target, 11};
    req.set(http::field::host, "127.0.0.1:" + std::to_string(port_));
    for (const auto& [name, value] : headers) req.set(name, value);
    req.body() = std::move(body);
    req.prepare_payload();
    if (sendBody) {
      http::write(socket_, req);
    } else {
      http::request_serializer<http::string_body> serializer{req};
      http::write_header(socket_, serializer);
    }
    http::response_parser<http::string_body> parser;
    parser.skip(method == http::verb::head);
    parser.body_limit(boost::none);
    http::read(socket_, buffer_, parser);
    return {parser.get().result_int(), parser.get().body(), parser.get().base()};
  }

 private:
  asio::io_context ioc_;
  tcp::socket socket_{ioc_};
  beast::flat_buffer buffer_;
  uint16_t port_;
};

// What a browser sends to open /ws; the Client sees the server's answer to it.
const Headers kUpgrade = {{"Connection", "Upgrade"},
                          {"Upgrade", "websocket"},
                          {"Sec-WebSocket-Version", "13"},
                          {"Sec-WebSocket-Key", "dGhlIHNhbXBsZSBub25jZQ=="}};

// A browser tab on /ws, with an io_context of its own.
struct Tab {
  explicit Tab(uint16_t port) {
    ws.text(true);
    ws.next_layer().connect({asio::ip::make_address("127.0.0.1"), port});
    ws.handshake("127.0.0.1:" + std::to_string(port), "/ws");
  }
  std::string read() {
    beast::flat_buffer buffer;
    ws.read(buffer);
    return beast::buffers_to_string(buffer.data());
  }
  asio::io_context ioc;
  websocket::stream<tcp::socket> ws{ioc};
};

class WebServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("web_server_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    std::ofstream(dir_ / "index.html") << "<p>shelf</p>";
    std::ofstream(dir_ / "r\xC3\xA9sum\xC3\xA9 1.txt") << "twelve bytes";
  }

  void TearDown() override {
    if (server_) server_->stop();
    for (auto& thread : responders_) thread.join();
    std::filesystem::remove_all(dir_);
  }

  void start(WebServerOptions options = {}) {
    WebServerHandlers h;
    h.api = [this](HttpRequest req, std::function<void(HttpResponse)> respond) {
      ++apiCalls_;
      if (req.path == "/api/drop") return;
      std::lock_guard lock(mutex_);
      responders_.emplace_back([req = std::move(req), respond] {  // answers from another thread
        std::this_thread::sleep_for(10ms);
        const auto q = req.query.count("q") ? req.query.at("q") : "";
        const auto x = req.headers.count("x-test") ? req.headers.at("x-test") : "";
        respond({201, "text/plain", req.method + "|" + req.path + "|" + q + "|" + x + "|" + std::to_string(req.body.size()),
                 {{"X-Answered", "yes"}}});
      });
    };
    h.resolveFile = [this](const HttpRequest& req) -> std::optional<ServedFile> {
      if (req.path == "/index.html") return ServedFile{dir_ / "index.html", "text/html; charset=utf-8", false};
      if (req.path == "/files/report") return ServedFile{dir_ / "r\xC3\xA9sum\xC3\xA9 1.txt", "text/plain", true};
      if (req.path == "/gone") return ServedFile{dir_ / "missing", "text/plain", false};
      return std::nullopt;
    };
    h.opened = [this](std::shared_ptr<WebSocketConnection> c) { record("opened", c->id(), c); };
    h.message = [this](uint64_t id, std::string text) {
      record("message " + text, id);
      std::lock_guard lock(mutex_);
      sockets_.at(id)->send("echo:" + text);
    };
    h.closed = [this](uint64_t id) { record("closed", id); };
    std::string error;
    server_ = WebServer::start(options, h, &error);
    ASSERT_TRUE(server_) << error;
  }

  void record(std::string event, uint64_t id, std::shared_ptr<WebSocketConnection> c = nullptr) {
    std::lock_guard lock(mutex_);
    if (c) sockets_[id] = c;
    events_.push_back(event + " " + std::to_string(id));
    changed_.notify_all();
  }

  bool waitForEvent(const std::string& event, std::chrono::milliseconds timeout = 5s) {
    return waitUntil([&] { return std::count(events_.begin(), events_.end(), event) > 0; }, timeout);
  }

  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 5s) {  // with mutex_ held
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, condition);
  }

  std::shared_ptr<WebSocketConnection> socket(size_t index) {
    std::lock_guard lock(mutex_);
    return std::next(sockets_.begin(), static_cast<ptrdiff_t>(index))->second;
  }

  std::filesystem::path dir_;
  std::atomic<int> apiCalls_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::thread> responders_;                                  // guarded by mutex_
  std::vector<std::string> events_;                                      // guarded by mutex_
  std::map<uint64_t, std::shared_ptr<WebSocketConnection>> sockets_;     // guarded by mutex_
  std::unique_ptr<WebServer> server_;
};

// The rules themselves are RequestGuardTest's; here each kind of refusal once, before the handler is called.
TEST_F(WebServerTest, GuardsRequestsBeforeRoutingAndAnswersTheApiFromAnotherThread) {
  start();
  Client client(server_->port());
  const std::string port = std::to_string(server_->port());
  EXPECT_EQ(server_->url(), "http://127.0.0.1:" + port + "/");
  const struct {
    Headers headers;
    unsigned status;
  } cases[] = {
      {{{"Host", "localhost:" + port}, {"Origin", "http://127.0.0.1:" + port}}, 201},
      {{{"Host", "evil.example:" + port}}, 403},
      {{{"Origin", "http://evil.example"}}, 403},
      {{{"Content-Type", "text/plain"}}, 415},
  };
  for (const auto& c : cases) {
    Headers headers = {{"Content-Type", "application/json"}};
    headers.insert(headers.end(), c.headers.begin(), c.headers.end());
    const auto reply = client.request(http::verb::post, "/api/echo", headers, "{}");
    EXPECT_EQ(reply.status, c.status) << c.headers[0].second;
    EXPECT_EQ(reply.header("content-type"), c.status == 201 ? "text/plain" : "text/plain; charset=utf-8");
  }
  EXPECT_EQ(apiCalls_, 1);

  for (int round = 0; round < 2; ++round) {
    const auto reply =
        client.request(http::verb::post, "/api/a%20b?q=x+y%26z", {{"X-Test", "t"}, {"Content-Type", "application/json"}}, "hello");
    EXPECT_EQ(reply.status, 201u);
    EXPECT_EQ(reply.body, "POST|/api/a b|x y&z|t|5");
    EXPECT_EQ(reply.header("x-answered"), "yes");
    EXPECT_EQ(reply.header("cache-control"), "no-store");
  }
  EXPECT_EQ(client.request(http::verb::get, "/api/drop").status, 500u);  // respond dropped unanswered
  const Headers json = {{"Content-Type", "application/json"}};
  const size_t limit = WebServer::kMessageLimit;
  EXPECT_EQ(client.request(http::verb::put, "/api/big", json, std::string(limit, 'x')).body,
            "PUT|/api/big|||" + std::to_string(limit));
  EXPECT_EQ(client.request(http::verb::put, "/api/big", json, std::string(limit + 1, 'x'), false).status, 413u);
}

TEST_F(WebServerTest, ServesFilesAndAnswersOtherPaths) {
  start();
  const struct {
    http::verb method;
    const char* target;
    unsigned status;
    std::string type, disposition, length, body;
  } cases[] = {
      {http::verb::get, "/index.html", 200, "text/html; charset=utf-8", "<none>", "12", "<p>shelf</p>"},
      {http::verb::get, "/files/report", 200, "text/plain", "attachment; filename*=UTF-8''r%C3%A9sum%C3%A9%201.txt", "12",
       "twelve bytes"},
      {http::verb::head, "/files/report", 200, "text/plain", "attachment; filename*=UTF-8''r%C3%A9sum%C3%A9%201.txt",
       "12", ""},
      {http::verb::get, "/nothing", 404, "text/plain; charset=utf-8", "<none>", "10", "not found\n"},
      {http::verb::head, "/gone", 404, "text/plain; charset=utf-8", "<none>", "10", ""},
      {http::verb::post, "/index.html", 405, "text/plain; charset=utf-8", "<none>", "19", "method not allowed\n"},
      {http::verb::get, "/bad%zz", 400, "text/plain; charset=utf-8", "<none>", "25", "malformed request target\n"},
  };
  Client client(server_->port());
  for (const auto& c : cases) {
    const auto reply = client.request(c.method, c.target);
    EXPECT_EQ(reply.status, c.status) << c.target;
    EXPECT_EQ(reply.header("content-type"), c.type) << c.target;
    EXPECT_EQ(reply.header("content-disposition"), c.disposition) << c.target;
    EXPECT_EQ(reply.header("content-length"), c.length) << c.target;
    EXPECT_EQ(reply.body, c.body) << c.target;
    EXPECT_EQ(reply.header("x-content-type-options"), "nosniff");
    EXPECT_EQ(reply.header("cache-control"), "no-store");
    EXPECT_EQ(reply.header("content-security-policy"),
              "default-src 'self'; connect-src 'self'; img-src 'self' data:; style-src 'self'; frame-ancestors 'none'");
    EXPECT_EQ(reply.header("x-frame-options"), "DENY");
    EXPECT_EQ(reply.header("set-cookie"), "<none>");
  }
}

// Which tokens and cookies pass is RequestGuardTest's; here the server's own part:
// its cookie, the redirect, the API and the WebSocket behind the same check.
TEST_F(WebServerTest, RequiresTheTokenWhenAskedTo) {
  start({.listenAddress = "127.0.0.1", .port = 0, .accessToken = "s3cret", .requireToken = true});
  const std::string port = std::to_string(server_->port());
  EXPECT_EQ(server_->url(), "http://127.0.0.1:" + port + "/?token=s3cret");
  Client client(server_->port());
  EXPECT_EQ(client.request(http::verb::get, "/index.html").status, 403u);
  EXPECT_EQ(client.request(http::verb::get, "/index.html", {{"Authorization", "Bearer s3cret"}}).status, 200u);

  // The token in the address buys a session cookie and leaves the address.
  const auto entered = client.request(http::verb::get, "/index.html?x=1&token=s3cret");
  EXPECT_EQ(entered.status, 303u);
  EXPECT_EQ(entered.header("location"), "/index.html?x=1");
  const std::string cookie = entered.header("set-cookie");
  const std::string name = "shelf_session_" + port + "=";
  ASSERT_TRUE(cookie.starts_with(name)) << cookie;
  EXPECT_TRUE(cookie.ends_with("; HttpOnly; SameSite=Strict; Path=/")) << cookie;
  const std::string session = cookie.substr(name.size(), cookie.find(';') - name.size());
  EXPECT_EQ(session.size(), 32u);
  EXPECT_EQ(session.find("s3cret"), std::string::npos);
  EXPECT_EQ(client.request(http::verb::get, "/index.html", {{"Cookie", name + session}}).status, 200u);
  const auto api = client.request(http::verb::get, "/api/echo?token=s3cret");
  EXPECT_EQ(api.status, 201u) << "a program calling the API gets its answer, not a redirect";
  EXPECT_EQ(api.header("set-cookie"), "<none>");

  EXPECT_EQ(Client(server_->port()).request(http::verb::get, "/ws", kUpgrade).status, 403u);
  Headers withSession = kUpgrade;
  withSession.emplace_back("Cookie", name + session);
  EXPECT_EQ(Client(server_->port()).request(http::verb::get, "/ws", withSession).status, 101u);
}

TEST_F(WebServerTest, RefusesToStartWithoutTokenOrAddress) {
  start();
  const WebServerOptions cases[] = {
      {.listenAddress = "127.0.0.1", .port = 0, .accessToken = std::nullopt, .requireToken = true},
      {.listenAddress = "0.0.0.0", .port = 0, .accessToken = "", .requireToken = std::nullopt},
      {.listenAddress = "not-an-address", .port = 0, .accessToken = std::nullopt, .requireToken = std::nullopt},
      {.listenAddress = "127.0.0.1", .port = server_->port(), .accessToken = std::nullopt, .requireToken = std::nullopt},
  };
  for (const auto& options : cases) {
    std::string error;
    EXPECT_FALSE(WebServer::start(options, {}, &error)) << options.listenAddress;
    EXPECT_FALSE(error.empty()) << options.listenAddress;
  }
}

TEST_F(WebServerTest, WebSocketCarriesTextBothWaysDropsATabThatDoesNotReadAndCloses) {
  start();
  const uint16_t port = server_->port();
  Headers foreign = kUpgrade;
  foreign.emplace_back("Origin", "http://evil.example");
  ASSERT_EQ(Client(port).request(http::verb::get, "/ws", foreign).status, 403u);

  Tab first(port), second(port), deaf(port);
  ASSERT_TRUE(waitUntil([&] { return sockets_.size() == 3; }));
  first.ws.write(asio::buffer(std::string("hello")));
  EXPECT_EQ(first.read(), "echo:hello");  // through `message` and a send on the server thread
  const auto a = socket(0), b = socket(1);
  EXPECT_NE(a->id(), b->id());
  EXPECT_TRUE(waitForEvent("message hello " + std::to_string(a->id())));
  for (int i = 0; i < 50; ++i) a->send("push " + std::to_string(i));  // queued while writes are in flight
  for (int i = 0; i < 50; ++i) EXPECT_EQ(first.read(), "push " + std::to_string(i));

  // Far more than the socket buffers and the outbox hold together; `deaf` never reads.
  const std::string dropped = "closed " + std::to_string(socket(2)->id()), chunk(64 << 10, 'x');
  for (int i = 0; i < 1024 && !waitForEvent(dropped, 0ms); ++i) socket(2)->send(chunk);
  EXPECT_TRUE(waitForEvent(dropped)) << "the outbox does not grow without end";

  a->close();
  beast::flat_buffer buffer;
  beast::error_code ec;
  first.ws.read(buffer, ec);
  EXPECT_EQ(ec, websocket::error::closed);
  EXPECT_TRUE(waitForEvent("closed " + std::to_string(a->id())));

  server_->stop();
  server_->stop();
  EXPECT_TRUE(waitForEvent("closed " + std::to_string(b->id())));
  second.ws.read(buffer, ec);
  EXPECT_TRUE(ec);
  server_.reset();
  b->send("after the server is gone");  // does nothing
  b->close();
  EXPECT_THROW(Client{port}, boost::system::system_error);  // no longer listening
}

// A blocking socket to the server with a 5 s receive timeout, for the tests
// that count descriptors (an io_context needs some of its own).
int plainSocket() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval timeout{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  return fd;
}

bool plainConnect(int fd, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// Sends a GET of /index.html that closes the connection; returns what came back before the end.
std::string plainGet(int fd, uint16_t port) {
  const std::string request =
      "GET /index.html HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\nConnection: close\r\n\r\n";
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return "";
  std::string reply;
  char buffer[4096];
  for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) reply.append(buffer, static_cast<size_t>(n));
  return reply;
}

TEST_F(WebServerTest, ConnectionsPastTheCapAreClosedUntilOneEnds) {
  start();
  const uint16_t port = server_->port();
  std::vector<int> idle;
  for (size_t i = 0; i < WebServer::kMaxConnections; ++i) {
    idle.push_back(plainSocket());
    ASSERT_TRUE(plainConnect(idle.back(), port));
  }
  // Accepted in order: this one comes after the cap is reached.
  const int extra = plainSocket();
  ASSERT_TRUE(plainConnect(extra, port));
  EXPECT_EQ(plainGet(extra, port), "");
  ::close(extra);

  ::close(idle.back());
  idle.pop_back();
  std::string reply;
  for (int attempt = 0; attempt < 100 && reply.empty(); ++attempt) {
    const int next = plainSocket();
    ASSERT_TRUE(plainConnect(next, port));
    reply = plainGet(next, port);
    ::close(next);
    if (reply.empty()) std::this_thread::sleep_for(20ms);
  }
  EXPECT_TRUE(reply.starts_with("HTTP/1.1 200")) << reply;
  for (int fd : idle) ::close(fd);
}

TEST_F(WebServerTest, WithoutDescriptorsItPausesAndAnswersOnceOneFrees) {
  start();
  const uint16_t port = server_->port();
  const int client = plainSocket();
  ASSERT_GE(client, 0);
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  int highest = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    highest = std::max(highest, std::atoi(entry.path().filename().c_str()));
  rlimit low = saved;
  low.rlim_cur = static_cast<rlim_t>(highest) + 16;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> fillers;
  for (int fd; (fd = ::dup(client)) >= 0;) fillers.push_back(fd);
  const int exhausted = errno;
  const bool connected = plainConnect(client, port);  // waits in the backlog: the server cannot accept it
  std::this_thread::sleep_for(300ms);
  const uint64_t failed = server_->failedAccepts();
  // Checked once descriptors are back: a failing check needs some itself.
  for (int fd : fillers) ::close(fd);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_EQ(exhausted, EMFILE);
  ASSERT_TRUE(connected);
  EXPECT_GE(failed, 1u);
  EXPECT_LT(failed, 30u) << "it pauses between tries instead of spinning";
  const std::string reply = plainGet(client, port);
  EXPECT_TRUE(reply.starts_with("HTTP/1.1 200")) << reply;
  ::close(client);
}

}  // namespace
