#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>

#include "tests/support/TestHttpServer.h"

using namespace std::chrono_literals;
using P = TestHttpServer;

namespace {

[[maybe_unused]] const CURLcode curlReady = curl_global_init(CURL_GLOBAL_DEFAULT);

using Easy = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
Easy easy() { return Easy(curl_easy_init(), curl_easy_cleanup); }

struct Response {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
  std::map<std::string, std::string> headers;  // lower-case names, last response only
  std::atomic<int64_t>* received = nullptr;    // body bytes so far, for a watching thread
  std::optional<std::string> header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? std::nullopt : std::optional(it->second);
  }
};

struct Options {
  std::string range{};
  std::vector<std::string> headers{};
  bool head = false;
  bool follow = false;
  std::atomic<int64_t>* received = nullptr;
};

size_t onBody(char* data, size_t, size_t n, void* user) {
  auto* response = static_cast<Response*>(user);
  response->body.append(data, n);
  if (response->received) *response->received += static_cast<int64_t>(n);
  return n;
}

size_t onHeader(char* data, size_t, size_t n, void* user) {
  auto& headers = static_cast<Response*>(user)->headers;
  std::string line(data, n);
  if (line.rfind("HTTP/", 0) == 0) headers.clear();  // a new response after a redirect
  if (auto colon = line.find(':'); colon != std::string::npos) {
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    headers[name] = line.substr(colon + 2, line.find_last_not_of("\r\n") - colon - 1);
  }
  return n;
}

Response fetch(CURL* curl, const std::string& url, const Options& options = {}) {
  Response response;
  response.received = options.received;
  curl_slist* list = nullptr;
  for (const auto& h : options.headers) list = curl_slist_append(list, h.c_str());
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
  curl_easy_setopt(curl, CURLOPT_RANGE, options.range.empty() ? nullptr : options.range.c_str());
  curl_easy_setopt(curl, CURLOPT_NOBODY, options.head ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, options.follow ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response);
  response.code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(list);
  return response;
}

Response fetch(const std::string& url, const Options& options = {}) { return fetch(easy().get(), url, options); }

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
  for (auto end = std::chrono::steady_clock::now() + timeout; std::chrono::steady_clock::now() < end;) {
    if (condition()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return condition();
}

TEST(TestHttpServer, PatternIsConsistentAndShiftSensitive) {
  const std::string run = P::pattern(0, 1 << 17);
  for (int64_t o : {0, 7, 8, 4095, 4096, 65537}) EXPECT_EQ(run[o], P::patternByte(o)) << o;
  EXPECT_EQ(P::pattern(4093, 10), run.substr(4093, 10));
  EXPECT_NE(run.substr(0, 4096), run.substr(1, 4096));
  for (size_t shift = 2; shift <= 65536; shift *= 2) EXPECT_NE(run.substr(0, 4096), run.substr(shift, 4096)) << shift;
}

constexpr int64_t kSize = 300'001;  // several 64 KiB blocks and an odd tail

TEST(TestHttpServer, AnswersRangesAndInjectedHeadFaults) {
  struct Case {
    const char* name;
    std::optional<Behaviour> behaviour;  // none: no route, so 404
    std::string range;
    long status;
    std::optional<std::string> contentRange;
    std::string body;
  };
  const std::string size = "/" + std::to_string(kSize);
  const std::vector<Case> cases = {
      {"whole", Behaviour{.size = kSize}, "", 200, {}, P::pattern(0, kSize)},
      {"closed", Behaviour{.size = kSize}, "100-199", 206, "bytes 100-199" + size, P::pattern(100, 100)},
      {"open end", Behaviour{.size = kSize}, "65530-", 206, "bytes 65530-300000" + size,
       P::pattern(65530, kSize - 65530)},
      {"clamped", Behaviour{.size = kSize}, "300000-400000", 206, "bytes 300000-300000" + size, P::pattern(300000, 1)},
      {"suffix", Behaviour{.size = kSize}, "-10", 206, "bytes 299991-300000" + size, P::pattern(299991, 10)},
      {"multi", Behaviour{.size = kSize}, "5-9,20-29", 206, "bytes 5-9" + size, P::pattern(5, 5)},
      {"past end", Behaviour{.size = kSize}, "300001-", 416, "bytes *" + size, ""},
      {"ignored", Behaviour{.size = kSize, .honourRange = false}, "100-199", 200, {}, P::pattern(0, kSize)},
      {"omitted", Behaviour{.size = kSize, .omitContentRange = true}, "100-199", 206, {}, P::pattern(100, 100)},
      {"overridden", Behaviour{.size = kSize, .contentRange = "bytes 0-99/5000"}, "100-199", 206, "bytes 0-99/5000",
       P::pattern(100, 100)},
      {"short", Behaviour{.size = kSize, .bodyDelta = -10}, "100-199", 206, "bytes 100-199" + size,
       P::pattern(100, 90)},
      {"long", Behaviour{.size = kSize, .bodyDelta = 10}, "100-199", 206, "bytes 100-199" + size, P::pattern(100, 110)},
      {"explicit", Behaviour{.body = "hello world"}, "6-", 206, "bytes 6-10/11", "world"},
      {"status", Behaviour{.size = 10, .status = 503}, "", 503, {}, P::pattern(0, 10)},
      {"chunked", Behaviour{.size = kSize, .chunkedEncoding = true}, "", 200, {}, P::pattern(0, kSize)},
      {"unknown", std::nullopt, "", 404, {}, "Not Found\n"},
  };
  TestHttpServer server;
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.name);
    const std::string path = "/case" + std::to_string(i);
    if (c.behaviour) server.setRoute(path, *c.behaviour);
    Response r = fetch(server.url(path), {.range = c.range});
    ASSERT_EQ(r.code, CURLE_OK);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.header("content-range"), c.contentRange);
    EXPECT_TRUE(r.body == c.body) << "body of " << r.body.size() << " bytes, expected " << c.body.size();
    EXPECT_EQ(server.bodyBytesSent(path), static_cast<int64_t>(c.body.size()));
    const bool chunked = c.behaviour && c.behaviour->chunkedEncoding;
    EXPECT_EQ(r.header("content-length"), chunked ? std::nullopt : std::optional(std::to_string(c.body.size())));
    EXPECT_EQ(r.header("transfer-encoding"), chunked ? std::optional<std::string>("chunked") : std::nullopt);
  }
}

TEST(TestHttpServer, ServesManyStalledConnectionsAndStopsPromptly) {
  constexpr int kClients = 60;
  auto server = std::make_unique<TestHttpServer>();
  server->setRoute("/s", {.size = 1'000'000, .stallAtByte = 1000});
  CURLM* multi = curl_multi_init();
  std::vector<CURL*> handles;
  for (int i = 0; i < kClients; ++i) {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, server->url("/s").c_str());
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t, size_t n, void*) { return n; });
    curl_multi_add_handle(multi, curl);
    handles.push_back(curl);
  }
  auto drive = [&] {
    int running = 0;
    curl_multi_perform(multi, &running);
    curl_multi_poll(multi, nullptr, 0, 10, nullptr);
    return running;
  };
  EXPECT_TRUE(waitFor([&] { return drive(), server->bodyBytesSent("/s") == kClients * 1000; }));
  EXPECT_EQ(server->connectionsAccepted(), kClients);
  EXPECT_EQ(fetch(server->url("/s"), {.range = "0-9"}).body,
            P::pattern(0, 10));  // the stall point lies past this range

  const auto start = std::chrono::steady_clock::now();
  server.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);

  EXPECT_TRUE(waitFor([&] { return drive() == 0; }));
  int failed = 0, left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &left))
    if (message->msg == CURLMSG_DONE && message->data.result != CURLE_OK) ++failed;
  EXPECT_EQ(failed, kClients);  // each saw its connection end mid-body
  for (CURL* curl : handles) {
    curl_multi_remove_handle(multi, curl);
    curl_easy_cleanup(curl);
  }
  curl_multi_cleanup(multi);
}

}  // namespace
