// The playlist fetcher under the demuxer: segment lists, prefetching,
// coalesced byte ranges, the one retry, the memory bound, refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "module/platform/PlaylistFetcher.h"
#include "shelfkit/runtime/BufferedFetch.h"
#include "shelfkit/runtime/MediaPlaylist.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

using namespace std::chrono_literals;
using shelfkit::PlaylistSegment;

namespace {

// Everything a reader gives until its end, in reads of an odd size; none when a read fails.
template <class Reader>
std::optional<std::string> readAll(Reader& reader) {
  std::string out;
  uint8_t buffer[7000];  // not a divisor of anything served here
  while (true) {
    int64_t n;
    if constexpr (std::is_same_v<Reader, shelfkit::BufferedFetch>)
      n = reader.readAt(static_cast<int64_t>(out.size()), buffer, sizeof buffer);
    else
      n = reader.read(buffer, sizeof buffer);
    if (n <= 0) return n == 0 ? std::optional(out) : std::nullopt;
    out.append(reinterpret_cast<char*>(buffer), static_cast<size_t>(n));
  }
}

TEST(MediaPlaylist, SegmentsAsTheDemuxerWillAskForThem) {
  const std::string base = "http://h.test/a/list.m3u8";
  struct Case {
    const char* name;
    std::string text;
    std::vector<PlaylistSegment> segments;
  } cases[] = {
      {"relative, absolute and rooted addresses, CRLF lines",
       "#EXTM3U\r\n#EXTINF:2.0,\r\ns0.ts\r\n#EXTINF:2.0,\r\nhttp://o.test/x/s1.ts\r\n#EXTINF:2,\r\n/b/s2.ts?k=1\r\n"
       "#EXT-X-ENDLIST\r\n",
       {{"http://h.test/a/s0.ts", 0, {}}, {"http://o.test/x/s1.ts", 0, {}}, {"http://h.test/b/s2.ts?k=1", 0, {}}}},
      {"byte ranges: an offset given, then continued from the previous end",
       "#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:100@50\nall.ts\n#EXTINF:1,\n#EXT-X-BYTERANGE:70\nall.ts\n"
       "#EXTINF:1,\nother.ts\n",
       {{"http://h.test/a/all.ts", 50, 100}, {"http://h.test/a/all.ts", 150, 70}, {"http://h.test/a/other.ts", 0, {}}}},
      {"a master playlist lists no segments",
       "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1000\nv0.m3u8\n#EXT-X-STREAM-INF:BANDWIDTH=500\nv1.m3u8\n", {}},
      {"not a playlist", "<html>#EXTINF:1,\nx.ts\n", {}},
      {"a malformed byte range counts as none", "#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:ten\nall.ts\n",
       {{"http://h.test/a/all.ts", 0, {}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(shelfkit::parseMediaPlaylist(c.text, base), c.segments);
  }
}

// A media playlist of ten 10000-byte ranges of one file.
std::string byteRangePlaylist() {
  std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:1\n";
  for (int i = 0; i < 10; ++i) text += "#EXTINF:1,\n#EXT-X-BYTERANGE:10000@" + std::to_string(i * 10000) + "\nall.bin\n";
  return text + "#EXT-X-ENDLIST\n";
}

class PlaylistFetchTest : public ::testing::Test {
 protected:
  std::shared_ptr<shelfkit::BufferedFetch> fetch(const std::string& path, int64_t offset, std::optional<int64_t> end,
                                                 std::shared_ptr<shelfkit::MemoryBudget> budget = nullptr) {
    if (!budget) budget = std::make_shared<shelfkit::MemoryBudget>(64 << 20);
    auto f = std::make_shared<shelfkit::BufferedFetch>(*platform::URL::URLWithString(server_.url(path)), offset, end,
                                                       budget, shelfkit::BufferedFetch::Spill{spill(), "t"});
    f->start();
    return f;
  }
  std::string spill() const { return host_.layout().library + "/spill"; }
  std::shared_ptr<platform::PlaylistFetcher> fetcher() {
    return platform::PlaylistFetcher::create({.spillDirectory = spill()});
  }
  // A fetcher that has read the byte-range playlist, so it knows its segments.
  std::shared_ptr<platform::PlaylistFetcher> fetcherWithList() {
    server_.setRoute("/p/list.m3u8", {.body = byteRangePlaylist(), .mimeType = "application/vnd.apple.mpegurl"});
    auto f = fetcher();
    auto list = f->open(server_.url("/p/list.m3u8"), 0, std::nullopt);
    EXPECT_TRUE(list && readAll(*list));
    return f;
  }

  TestHost host_;
  TestHttpServer server_;
};

TEST_F(PlaylistFetchTest, OneRetryForTheBytesStillMissing) {
  constexpr int64_t kSize = 300000;
  struct Case {
    const char* name;
    Behaviour first, second;
    int64_t offset;
    std::optional<int64_t> end;
    bool ok;
    std::vector<std::optional<std::string>> ranges;  // the Range header of each request
  } cases[] = {
      {"whole file, dropped once midway", {.size = kSize, .dropAfterBytes = 100000}, {.size = kSize}, 0, {}, true,
       {std::nullopt, "bytes=100000-"}},
      {"a range, an error status once", {.size = kSize, .status = 503}, {.size = kSize}, 1000, 51000, true,
       {"bytes=1000-50999", "bytes=1000-50999"}},
      {"a range answered with the whole file: the bytes wanted are cut from it",
       {.size = kSize, .honourRange = false}, {.size = kSize}, 1000, 51000, true, {"bytes=1000-50999"}},
      {"a range starting elsewhere, twice", {.size = kSize, .contentRange = "bytes 0-49999/300000"},
       {.size = kSize, .contentRange = "bytes 0-49999/300000"}, 1000, 51000, false,
       {"bytes=1000-50999", "bytes=1000-50999"}},
      {"a short body, twice", {.size = kSize, .bodyDelta = -10}, {.size = kSize, .bodyDelta = -10}, 0, 5000, false,
       {"bytes=0-4999", "bytes=4990-4999"}},
      {"not found, twice", {.size = kSize, .status = 404}, {.size = kSize, .status = 404}, 0, {}, false,
       {std::nullopt, std::nullopt}},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "/r" + std::to_string(n++);
    server_.setHandler(path, [&](const RecordedRequest&, int index) { return index == 0 ? c.first : c.second; });
    auto f = fetch(path, c.offset, c.end);
    auto body = readAll(*f);
    EXPECT_EQ(body.has_value(), c.ok);
    if (c.ok) {
      EXPECT_EQ(*body, TestHttpServer::pattern(c.offset, c.end.value_or(kSize) - c.offset));
    }
    std::vector<std::optional<std::string>> ranges;
    for (const auto& request : server_.requests(path)) ranges.push_back(request.header("Range"));
    EXPECT_EQ(ranges, c.ranges);
  }
}

TEST_F(PlaylistFetchTest, MemoryBeyondTheBudgetSpillsToAFileAndComesBackWhole) {
  server_.setRoute("/big", {.size = 1 << 20});
  auto budget = std::make_shared<shelfkit::MemoryBudget>(256 * 1024);
  auto f = fetch("/big", 0, std::nullopt, budget);
  EXPECT_EQ(readAll(*f), TestHttpServer::pattern(0, 1 << 20));
  EXPECT_EQ(budget->used(), 256u * 1024) << "the rest went to the spill file";
  f.reset();
  EXPECT_EQ(budget->used(), 0u);
  EXPECT_TRUE(std::filesystem::is_empty(spill())) << "spill files are never left behind";
}

TEST_F(PlaylistFetchTest, PrefetchesTheNextSegmentsInOneRequestOnlyOnceSwitchedOn) {
  server_.setRoute("/p/all.bin", {.size = 100000});
  for (bool prefetching : {false, true}) {
    SCOPED_TRACE(prefetching ? "prefetching" : "not prefetching");
    const size_t mark = server_.requests("/p/all.bin").size();
    auto f = fetcherWithList();
    if (prefetching) f->startPrefetching();
    for (int i = 0; i < 10; ++i) {
      auto segment = f->open(server_.url("/p/all.bin"), i * 10000, (i + 1) * 10000);
      ASSERT_TRUE(segment);
      EXPECT_EQ(segment->size(), 10000);
      EXPECT_EQ(readAll(*segment), TestHttpServer::pattern(i * 10000, 10000)) << "segment " << i;
    }
    auto requests = server_.requests("/p/all.bin");
    requests.erase(requests.begin(), requests.begin() + static_cast<std::ptrdiff_t>(mark));
    if (!prefetching) {
      EXPECT_EQ(requests.size(), 10u) << "one request per segment, none ahead";
      EXPECT_EQ(requests[3].header("Range"), "bytes=30000-39999");
      EXPECT_EQ(requests.front().connection, requests.back().connection) << "one after another on one connection";
    } else {
      // Segment 0, then the ones after it in one request up to the depth, and the rest likewise.
      // How many go in one request follows the measured link (and a busy
      // machine), so only fewer requests than segments is certain.
      ASSERT_GE(requests.size(), 2u);
      EXPECT_LT(requests.size(), 10u);
      EXPECT_EQ(requests[0].header("Range"), "bytes=0-9999");
      EXPECT_TRUE(requests[1].header("Range")->starts_with("bytes=10000-")) << *requests[1].header("Range");
      EXPECT_NE(requests[1].header("Range"), "bytes=10000-19999") << "adjacent ranges coalesced";
    }
  }
}

TEST_F(PlaylistFetchTest, FailuresAndRefusals) {
  server_.setRoute("/p/all.bin", {.size = 100000, .status = 500});
  auto f = fetcherWithList();
  EXPECT_FALSE(f->open(server_.url("/missing.m3u8"), 0, std::nullopt));
  EXPECT_FALSE(f->failed()) << "a resource that is no segment fails alone";
  EXPECT_FALSE(f->open(server_.url("/p/all.bin"), 0, 10000));
  EXPECT_TRUE(f->failed()) << "a segment that fails twice fails the whole";
  EXPECT_EQ(server_.requests("/p/all.bin").size(), 2u);

  for (const char* refused : {"file:///etc/passwd", "ftp://127.0.0.1/x.ts", "data:text/plain,x"}) {
    SCOPED_TRACE(refused);
    auto other = fetcher();
    EXPECT_FALSE(other->open(refused, 0, std::nullopt));
    EXPECT_TRUE(other->failed());
  }
}

TEST_F(PlaylistFetchTest, CancelEndsWaitingReadsAndPrefetches) {
  server_.setRoute("/p/all.bin", {.size = 100000, .stallAtByte = 5000});
  auto f = fetcherWithList();
  f->startPrefetching();
  auto segment = f->open(server_.url("/p/all.bin"), 0, 10000);
  ASSERT_TRUE(segment);
  std::optional<std::optional<std::string>> result;
  std::thread reader([&] { result = readAll(*segment); });
  ASSERT_TRUE(host_.runUntil([&] { return server_.requests("/p/all.bin").size() >= 2; }));
  std::this_thread::sleep_for(100ms);
  const auto before = std::chrono::steady_clock::now();
  f->cancel();
  reader.join();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(*result, std::nullopt) << "the waiting read failed";
  EXPECT_FALSE(f->open(server_.url("/p/all.bin"), 10000, 20000)) << "nothing opens after a cancel";
  EXPECT_FALSE(f->failed()) << "a cancel is no failure";
}

}  // namespace
