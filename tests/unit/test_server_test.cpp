// The test server's answers and injected faults, as the transfer and probe tests rely on them.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <map>

#include "tests/support/TestHttpServer.h"

using P = TestHttpServer;

namespace {

[[maybe_unused]] const CURLcode curlReady = curl_global_init(CURL_GLOBAL_DEFAULT);

struct Response {
  long status = 0;
  std::string body;
  std::map<std::string, std::string> headers;  // lower-case names
};

Response fetch(const std::string& url, const std::string& range) {
  Response response;
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
  curl_easy_setopt(curl, CURLOPT_RANGE, range.empty() ? nullptr : range.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response);
  curl_easy_setopt(
      curl, CURLOPT_WRITEFUNCTION, +[](char* data, size_t, size_t n, void* user) {
        static_cast<Response*>(user)->body.append(data, n);
        return n;
      });
  curl_easy_setopt(
      curl, CURLOPT_HEADERFUNCTION, +[](char* data, size_t, size_t n, void* user) {
        std::string line(data, n);
        if (auto colon = line.find(':'); colon != std::string::npos) {
          std::string name = line.substr(0, colon);
          for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
          const auto end = line.find_last_not_of("\r\n");
          static_cast<Response*>(user)->headers[name] = line.substr(colon + 2, end - colon - 1);
        }
        return n;
      });
  EXPECT_EQ(curl_easy_perform(curl), CURLE_OK);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  curl_easy_cleanup(curl);
  return response;
}

TEST(TestHttpServer, AnswersRangesAndInjectedFaults) {
  // A body shifted by any offset must differ, or a misplaced range could pass for the right one.
  const std::string run = P::pattern(0, 1 << 17);
  EXPECT_EQ(P::pattern(4093, 10), run.substr(4093, 10));
  for (size_t shift = 1; shift <= 65536; shift *= 2) EXPECT_NE(run.substr(0, 4096), run.substr(shift, 4096)) << shift;

  constexpr int64_t kSize = 300'001;  // several 64 KiB blocks and an odd tail
  const std::string size = "/" + std::to_string(kSize);
  const struct {
    const char* name;
    std::optional<Behaviour> behaviour;  // none: no route, so 404
    std::string range;
    long status;
    std::string contentRange;  // empty: none
    std::string body;
  } cases[] = {
      {"whole", Behaviour{.size = kSize}, "", 200, "", P::pattern(0, kSize)},
      {"closed", Behaviour{.size = kSize}, "100-199", 206, "bytes 100-199" + size, P::pattern(100, 100)},
      {"open end", Behaviour{.size = kSize}, "65530-", 206, "bytes 65530-300000" + size, P::pattern(65530, 234471)},
      {"clamped", Behaviour{.size = kSize}, "300000-400000", 206, "bytes 300000-300000" + size, P::pattern(300000, 1)},
      {"past end", Behaviour{.size = kSize}, "300001-", 416, "bytes *" + size, ""},
      {"ignored", Behaviour{.size = kSize, .honourRange = false}, "100-199", 200, "", P::pattern(0, kSize)},
      {"omitted", Behaviour{.size = kSize, .omitContentRange = true}, "100-199", 206, "", P::pattern(100, 100)},
      {"overridden", Behaviour{.size = kSize, .contentRange = "bytes 0-99/5000"}, "100-199", 206, "bytes 0-99/5000",
       P::pattern(100, 100)},
      {"short", Behaviour{.size = kSize, .bodyDelta = -10}, "100-199", 206, "bytes 100-199" + size,
       P::pattern(100, 90)},
      {"long", Behaviour{.size = kSize, .bodyDelta = 10}, "100-199", 206, "bytes 100-199" + size, P::pattern(100, 110)},
      {"explicit", Behaviour{.body = "hello world"}, "6-", 206, "bytes 6-10/11", "world"},
      {"status", Behaviour{.size = 10, .status = 503}, "", 503, "", P::pattern(0, 10)},
      {"unknown", std::nullopt, "", 404, "", "Not Found\n"},
  };
  TestHttpServer server;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "/case" + std::to_string(&c - cases);
    if (c.behaviour) server.setRoute(path, *c.behaviour);
    Response r = fetch(server.url(path), c.range);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.headers["content-range"], c.contentRange);
    EXPECT_TRUE(r.body == c.body) << "body of " << r.body.size() << " bytes, expected " << c.body.size();
    EXPECT_EQ(server.bodyBytesSent(path), static_cast<int64_t>(c.body.size()));
    EXPECT_EQ(r.headers["content-length"], std::to_string(c.body.size()));
  }
}

}  // namespace
