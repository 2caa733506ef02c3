#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <fstream>
#include <regex>
#include <set>

#include "module/core/DFDownloadManager.h"
#include "module/probe/DFContentRange.h"
#include "module/transfer/DFDownloadOperationBasicDataLoader.h"
#include "shelfkit/runtime/CurlURLSession.h"
#include "tests/support/LoaderProbe.h"
#include "tests/support/Files.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Loader = DFDownloadOperationBasicDataLoader;

namespace {


int threadCount() {
  int n = 0;
  for (auto& entry : fs::directory_iterator("/proc/self/task")) n += entry.is_directory();
  return n;
}

class TransferTest : public ::testing::Test {
 protected:
  std::shared_ptr<DFDownloadOperation> record(const std::string& path, bool partial, int64_t size,
                                              int64_t position = 0) {
    auto r = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(server_.url(path)));
    r->setPartialDownloading(partial);
    r->setSize(size);
    r->setPosition(position);
    r->setActualPosition(position);
    return r;
  }
  std::string tmpPath(const std::shared_ptr<DFDownloadOperation>& r) {
    return DFDownloadManager::tmpFilePathForFilename(r->uniqueId());
  }
  std::shared_ptr<Loader> start(const std::shared_ptr<DFDownloadOperation>& r) {
    return Loader::initWithDownloadOperation(r, tmpPath(r), probe_);
  }
  bool finish() { return host_.runUntil([&] { return probe_->completions > 0; }, 60s); }
  size_t connections(const std::string& path) {
    std::set<int> used;
    for (auto& request : server_.requests(path)) used.insert(request.connection);
    return used.size();
  }
  static bool byFirstByte(const std::string& a, const std::string& b) {
    auto first = [](const std::string& range) { return std::stoll(range.substr(6)); };
    return first(a) < first(b);
  }
  std::vector<std::string> ranges(const std::string& path) {
    std::vector<std::string> out;
    for (auto& request : server_.requests(path)) out.push_back(request.header("Range").value_or("<none>"));
    return out;
  }

  TestHost host_;
  TestHttpServer server_;
  std::shared_ptr<LoaderProbe> probe_ = std::make_shared<LoaderProbe>();
};

TEST_F(TransferTest, RequestsTheRangesOfEachCaseAndEndsWithTheSourceBytes) {
  auto chunks = [](int64_t from, int64_t size, int64_t chunk) {
    std::vector<std::string> out;
    for (int64_t at = from; at < size; at += chunk)
      out.push_back("bytes=" + std::to_string(at) + "-" + std::to_string(std::min(at + chunk, size) - 1));
    return out;
  };
  struct Case {
    const char* name;
    bool partial;
    int64_t size, position;
    std::vector<std::string> expected;
  } cases[] = {
      {"not partial: one open request", false, 5000, 0, {"bytes=0-"}},
      {"small: one bounded request", true, 50000, 0, {"bytes=0-49999"}},
      {"at the small limit", true, 102400, 0, {"bytes=0-102399"}},
      {"tenths", true, 1000000, 0, chunks(0, 1000000, 100000)},
      {"resumed: the remainder", true, 1000000, 950000, {"bytes=950000-999999"}},
      {"capped at 1 MiB", true, 20000000, 0, chunks(0, 20000000, 1048576)},
      {"tenths of 5,000,000", true, 5000000, 0, chunks(0, 5000000, 500000)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "/file-" + std::to_string(c.size) + "-" + std::to_string(c.position);
    server_.setRoute(path, {.size = c.size});
    auto r = record(path, c.partial, c.partial ? c.size : 0, c.position);
    if (c.position) {
      std::ofstream(tmpPath(r), std::ios::binary) << TestHttpServer::pattern(0, c.position);
    }
    probe_ = std::make_shared<LoaderProbe>();
    auto loader = start(r);
    ASSERT_TRUE(finish());
    EXPECT_EQ(probe_->lastError, std::nullopt);
    // Ranges read ahead travel on further connections, so they may arrive in
    // another order; each is asked for once, and connections are reused.
    auto requested = ranges(path);
    std::sort(requested.begin(), requested.end(), byFirstByte);
    EXPECT_EQ(requested, c.expected);
    EXPECT_LE(connections(path), 1 + shelfkit::CurlURLSession::kMaxReadAheadDepth);
    EXPECT_EQ(r->position(), c.size);
    EXPECT_EQ(r->size(), c.size);
    EXPECT_EQ(r->actualPosition(), c.size);
    EXPECT_TRUE(readFile(tmpPath(r)) == TestHttpServer::pattern(0, c.size)) << "the file differs from the source";
    EXPECT_EQ(probe_->offMain, 0);
  }
}

TEST_F(TransferTest, BadChunkAnswersFailWithoutAppending) {
  struct Case {
    const char* name;
    Behaviour behaviour;
  } cases[] = {
      {"200 with the whole file", {.size = 1000000, .honourRange = false}},
      {"206 without Content-Range", {.size = 1000000, .omitContentRange = true}},
      {"another range named", {.size = 1000000, .contentRange = "bytes 100000-199999/1000000"}},
      {"malformed Content-Range", {.size = 1000000, .contentRange = "bytes  0-99999/1000000"}},
      {"right range, short body", {.size = 1000000, .bodyDelta = -10}},
      {"right range, long body", {.size = 1000000, .bodyDelta = 10}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = std::string("/bad-") + std::to_string(&c - cases);
    server_.setRoute(path, c.behaviour);
    auto r = record(path, true, 1000000);
    probe_ = std::make_shared<LoaderProbe>();
    auto loader = start(r);
    ASSERT_TRUE(finish());
    EXPECT_EQ(probe_->lastError, "Failed");
    EXPECT_EQ(r->position(), 0);
    EXPECT_EQ(r->actualPosition(), 0);
    EXPECT_FALSE(fs::exists(tmpPath(r)) && fs::file_size(tmpPath(r)) > 0) << "nothing is appended";
    EXPECT_EQ(server_.requests(path).size(), 1u) << "the loader does not retry by itself";
  }
}

TEST_F(TransferTest, DroppedConnectionReportsTheErrorAndKeepsThePosition) {
  server_.setHandler("/drop", [](const RecordedRequest& request, int) {
    Behaviour b{.size = 1000000};
    if (request.header("Range") == "bytes=200000-299999") b.dropAfterBytes = 5000;  // the third chunk breaks off
    return b;
  });
  auto r = record("/drop", true, 1000000);
  auto loader = start(r);
  ASSERT_TRUE(finish());
  EXPECT_EQ(probe_->lastError, "The network connection was lost.");
  EXPECT_EQ(r->position(), 200000);
  EXPECT_EQ(fs::file_size(tmpPath(r)), 200000u);
}

TEST_F(TransferTest, UnreachableServerReportsThePlatformDescription) {
  int port;
  {
    TestHttpServer gone;
    port = gone.port();
  }
  auto r = DFDownloadOperation::initWithURL(
      *platform::URL::URLWithString("http://127.0.0.1:" + std::to_string(port) + "/x"));
  auto loader = start(r);
  ASSERT_TRUE(finish());
  EXPECT_EQ(probe_->lastError, "Could not connect to the server.");
}

TEST_F(TransferTest, CancelMidChunkIsSilentAndANewLoaderResumesThere) {
  // The fourth chunk stalls the first time it is asked for; later chunks are
  // read ahead meanwhile and must be thrown away by the cancel.
  std::atomic<int> fourth{0};
  server_.setHandler("/stall", [&fourth](const RecordedRequest& request, int) {
    Behaviour b{.size = 1000000};
    if (request.header("Range") == "bytes=300000-399999" && fourth++ == 0) b.stallAtByte = 40000;
    return b;
  });
  auto r = record("/stall", true, 1000000);
  auto loader = start(r);
  ASSERT_TRUE(host_.runUntil([&] { return r->actualPosition() > 300000; }, 30s));
  host_.loop().runFor(300ms);  // let progress of the stalled chunk and the ranges after it arrive
  loader->cancel();
  EXPECT_EQ(r->position(), 300000);
  EXPECT_EQ(r->actualPosition(), 300000);
  EXPECT_EQ(fs::file_size(tmpPath(r)), 300000u) << "nothing read ahead is appended";
  const int updatesAtCancel = probe_->updates;
  host_.loop().runFor(300ms);
  EXPECT_EQ(probe_->updates, updatesAtCancel);
  EXPECT_EQ(probe_->completions, 0);
  loader.reset();

  server_.releaseStalls();
  const size_t mark = server_.requests("/stall").size();
  auto resumed = start(r);
  ASSERT_TRUE(finish());
  EXPECT_EQ(probe_->lastError, std::nullopt);
  EXPECT_EQ(ranges("/stall").at(mark), "bytes=300000-399999");
  EXPECT_TRUE(readFile(tmpPath(r)) == TestHttpServer::pattern(0, 1000000));
}

TEST_F(TransferTest, ARangeReadAheadThatGoesWrongIsAskedForAgainByTheLoader) {
  // The fourth chunk's first answer is faulty; the loader's own request for it is served well.
  struct Case {
    const char* name;
    std::function<void(Behaviour&, const RecordedRequest&)> fault;
  } cases[] = {
      {"the connection drops inside it", [](Behaviour& b, const RecordedRequest&) { b.dropAfterBytes = 50000; }},
      {"200 with the whole body", [](Behaviour& b, const RecordedRequest&) { b.honourRange = false; }},
      {"another Content-Range", [](Behaviour& b, const RecordedRequest&) { b.contentRange = "bytes 400000-499999/1000000"; }},
      {"a longer body", [](Behaviour& b, const RecordedRequest&) { b.bodyDelta = 5000; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = std::string("/ahead-") + std::to_string(&c - cases);
    auto faulted = std::make_shared<std::atomic<int>>(0);
    server_.setHandler(path, [&c, faulted](const RecordedRequest& request, int) {
      Behaviour b{.size = 1000000};
      if (request.header("Range") == "bytes=300000-399999" && (*faulted)++ == 0) c.fault(b, request);
      return b;
    });
    auto r = record(path, true, 1000000);
    probe_ = std::make_shared<LoaderProbe>();
    auto loader = start(r);
    ASSERT_TRUE(finish());
    EXPECT_EQ(probe_->lastError, std::nullopt);
    EXPECT_TRUE(readFile(tmpPath(r)) == TestHttpServer::pattern(0, 1000000));
    auto requested = ranges(path);
    EXPECT_EQ(std::count(requested.begin(), requested.end(), "bytes=300000-399999"), 2)
        << "the faulty answer came to a range read ahead, and the loader asked again";
    EXPECT_EQ(std::set<std::string>(requested.begin(), requested.end()).size(), 10u);
  }
}

TEST_F(TransferTest, OnlyAnExactAnswerIsWrittenInPlaceAnyOtherComesInAFileOfItsOwn) {
  // Records the delivery on the session's queue; the test reads it once completion was seen.
  struct Delivery : platform::URLSessionDownloadDelegate {
    void didWriteData(platform::URLSession&, platform::URLSessionDownloadTask&, int64_t, int64_t, int64_t) override {}
    void didFinishDownloadingToURL(platform::URLSession&, platform::URLSessionDownloadTask& task,
                                   const std::string& at) override {
      location = at;
      received = task.countOfBytesReceived();
      body = readFile(at);
    }
    void didCompleteWithError(platform::URLSession&, platform::URLSessionTask&,
                              const std::optional<std::string>&) override {
      done = true;
    }
    std::string location, body;
    int64_t received = -1;
    std::atomic<bool> done{false};
  };
  struct Case {
    const char* name;
    Behaviour behaviour;
    bool inPlace;
  } cases[] = {
      {"206 for the range asked for", {.size = 200}, true},
      {"200 with the whole file", {.size = 200, .honourRange = false}, false},
      {"206 for another range", {.size = 200, .contentRange = "bytes 0-99/200"}, false},
  };
  // The range asked for ends the file, so that nothing is read ahead.
  const std::string before(200, 'x');
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = std::string("/place-") + std::to_string(&c - cases);
    const std::string destination = host_.layout().library + path;
    std::ofstream(destination, std::ios::binary) << before;
    server_.setRoute(path, c.behaviour);
    auto delivery = std::make_shared<Delivery>();
    auto queue = platform::OperationQueue::create(1);
    auto session = platform::URLSession::sessionWithConfiguration({}, delivery, queue);
    platform::URLRequest request(*platform::URL::URLWithString(server_.url(path)));
    request.setValue("bytes=100-199", "Range");
    request.rangeDestinationPath = destination;
    session->downloadTaskWithRequest(request)->resume();
    ASSERT_TRUE(host_.runUntil([&] { return delivery->done.load(); }, 10s));
    session->invalidateAndCancel();
    queue->waitUntilAllOperationsAreFinished();
    if (c.inPlace) {
      EXPECT_EQ(delivery->location, destination);
      EXPECT_EQ(delivery->received, 100);
      EXPECT_TRUE(readFile(destination) == before.substr(0, 100) + TestHttpServer::pattern(100, 100));
    } else {
      EXPECT_NE(delivery->location, destination);
      EXPECT_EQ(delivery->received, static_cast<int64_t>(delivery->body.size()));
      EXPECT_TRUE(readFile(destination) == before) << "the destination is left alone";
    }
  }
}

TEST_F(TransferTest, AServerThatClosesTheExtraConnectionsIsServedOnOne) {
  server_.setHandler("/one", [](const RecordedRequest& request, int) {
    Behaviour b{.size = 2000000};
    if (request.connection != 0) b.dropAfterBytes = 0;
    return b;
  });
  auto r = record("/one", true, 2000000);
  auto loader = start(r);
  ASSERT_TRUE(finish());
  EXPECT_EQ(probe_->lastError, std::nullopt);
  EXPECT_TRUE(readFile(tmpPath(r)) == TestHttpServer::pattern(0, 2000000));
  auto requested = ranges("/one");
  EXPECT_LE(requested.size(), 10u + 1 + shelfkit::CurlURLSession::kMaxReadAheadDepth)
      << "read-ahead stops at its first failure";
}

TEST_F(TransferTest, ReconcilesTheTemporaryFileWithThePositionBeforeResuming) {
  struct Case {
    const char* name;
    bool partial;
    int64_t size, fileLength, position;
    const char* firstRange;
  } cases[] = {
      {"bytes appended after the last save are cut off", true, 1000000, 450000, 300000, "bytes=300000-399999"},
      {"a short file moves the position back", true, 1000000, 250000, 300000, "bytes=250000-349999"},
      {"a missing file starts from the beginning", true, 1000000, -1, 300000, "bytes=0-99999"},
      // Fetched in one request from the start: whatever lies in the file is dropped.
      {"a small file that lost data starts empty", true, 50000, 20000, 50000, "bytes=0-49999"},
      {"a small file with junk starts empty", true, 50000, 30000, 0, "bytes=0-49999"},
      {"a file without ranges starts empty", false, 5000, 3000, 5000, "bytes=0-"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = std::string("/reconcile-") + std::to_string(&c - cases);
    server_.setRoute(path, {.size = c.size});
    auto r = record(path, c.partial, c.size, c.position);
    if (c.fileLength >= 0) {
      // What lies past the saved position is junk that must not be kept.
      std::string content = TestHttpServer::pattern(0, std::min(c.fileLength, c.position));
      content.resize(c.fileLength, 'J');
      std::ofstream(tmpPath(r), std::ios::binary) << content;
    }
    probe_ = std::make_shared<LoaderProbe>();
    // Where it resumed shows in the first range asked for: the position itself
    // may already have moved on when start() returns.
    auto loader = start(r);
    ASSERT_TRUE(finish());
    EXPECT_EQ(probe_->lastError, std::nullopt);
    const auto requested = ranges(path);
    ASSERT_FALSE(requested.empty());
    EXPECT_EQ(requested[0], c.firstRange);
    EXPECT_EQ(std::set<std::string>(requested.begin(), requested.end()).size(), requested.size()) << "no range twice";
    EXPECT_EQ(r->position(), c.size);
    EXPECT_TRUE(readFile(tmpPath(r)) == TestHttpServer::pattern(0, c.size));
  }
}

TEST_F(TransferTest, OnlyTheLastBackgroundHandlerIsCalledAfterTheNextReport) {
  server_.setRoute("/events", {.size = 1000000, .stallBeforeBody = 200ms});
  auto r = record("/events", true, 1000000);
  auto loader = start(r);
  int first = 0, second = 0;
  loader->handleEventsForURLSession([&] { ++first; });
  loader->handleEventsForURLSession([&] { ++second; });
  EXPECT_EQ(second, 0) << "held until the next notification";
  ASSERT_TRUE(finish());
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);
}

TEST_F(TransferTest, EachLoaderHasItsOwnSessionIdentifier) {
  server_.setRoute("/id", {.size = 10});
  auto a = start(record("/id", false, 0));
  auto b = start(record("/id", false, 0));
  ASSERT_TRUE(a->URLSessionIdentifier() && b->URLSessionIdentifier());
  EXPECT_NE(*a->URLSessionIdentifier(), *b->URLSessionIdentifier());
  EXPECT_TRUE(std::regex_match(*a->URLSessionIdentifier(), std::regex("[0-9A-F-]{36}")));
}

TEST_F(TransferTest, FiftyLoadersAtOnceDoNotMeanFiftyThreads) {
  const int before = threadCount();
  std::vector<std::shared_ptr<DFDownloadOperation>> records;
  std::vector<std::shared_ptr<Loader>> loaders;
  for (int i = 0; i < 50; ++i) {
    std::string path = "/many-" + std::to_string(i);
    server_.setRoute(path, {.size = 300000 + i, .stallBeforeBody = 300ms});
    records.push_back(record(path, true, 300000 + i));
    loaders.push_back(start(records.back()));
  }
  int most = 0;
  ASSERT_TRUE(host_.runUntil(
      [&] {
        most = std::max(most, threadCount());
        return probe_->completions == 50;
      },
      60s));
  EXPECT_LT(most - before, 16) << "threads grew from " << before << " to " << most;
  for (int i = 0; i < 50; ++i)
    EXPECT_TRUE(readFile(tmpPath(records[i])) == TestHttpServer::pattern(0, 300000 + i)) << i;
  EXPECT_EQ(probe_->lastError, std::nullopt);
}

TEST(DataLoaderBase, CancelledFlagAndNoSession) {
  auto r = DFDownloadOperation::initWithURL(*platform::URL::URLWithString("http://h.test/f"));
  DFDownloadOperationDataLoader loader(r, "/nonexistent", {});
  EXPECT_FALSE(loader.cancelled());
  loader.cancel();
  loader.cancel();
  EXPECT_TRUE(loader.cancelled());
  EXPECT_EQ(loader.URLSessionIdentifier(), std::nullopt);
  bool called = false;
  loader.handleEventsForURLSession([&] { called = true; });
  EXPECT_FALSE(called);
}

TEST(ContentRange, ParsesFourPiecesOnly) {
  struct Case {
    const char* value;
    std::optional<std::array<int64_t, 3>> expected;
  } cases[] = {
      {"bytes 1-1/5000", std::array<int64_t, 3>{1, 1, 5000}},
      {"bytes 0-0/5000", std::array<int64_t, 3>{0, 0, 5000}},
      {"bytes 100-199/*", std::array<int64_t, 3>{100, 199, 0}},
      {"bytes 1-1/99999999999999999999", std::array<int64_t, 3>{1, 1, INT64_MAX}},
      {"bytes x-y/z", std::array<int64_t, 3>{0, 0, 0}},
      {"bytes  1-1/5000", std::nullopt},
      {"bytes 1-1/5000 ", std::nullopt},
      {"bytes 1-1", std::nullopt},
      {"Bytes 1-1/5000", std::nullopt},
      {" bytes 1-1/5000", std::nullopt},
      {"bytes=1-1/5000", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    auto range = DFParseContentRange(c.value);
    ASSERT_EQ(range.has_value(), c.expected.has_value());
    if (range) {
      EXPECT_EQ((std::array<int64_t, 3>{range->first, range->last, range->total}), *c.expected);
    }
  }
}

TEST(ReadAhead, KeepsOnlyExactAnswersAndEnoughRangesForTheLink) {
  using shelfkit::ByteRange;
  struct ContentRangeCase {
    const char* value;
    std::optional<std::array<uint64_t, 3>> expected;
  } contentRanges[] = {
      {"bytes 0-99999/1000000", std::array<uint64_t, 3>{0, 99999, 1000000}},
      {"bytes 0-99999/*", std::nullopt},         // a total is needed to read ahead
      {"bytes 0-1000000/1000000", std::nullopt},  // past the total
      {"bytes 99-0/1000", std::nullopt},
      {"bytes  0-9/10", std::nullopt},
      {"bytes 0-9/10x", std::nullopt},
      {"bytes -9/10", std::nullopt},
  };
  for (const auto& c : contentRanges) {
    SCOPED_TRACE(c.value);
    auto parsed = shelfkit::parseExactContentRange(c.value);
    ASSERT_EQ(parsed.has_value(), c.expected.has_value());
    if (parsed) {
      EXPECT_EQ((std::array<uint64_t, 3>{parsed->range.first, parsed->range.last, parsed->total}), *c.expected);
    }
  }

  struct RangeCase {
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<ByteRange> expected;
  } requests[] = {
      {{{"Range", "bytes=100-199"}}, ByteRange{100, 199}},
      {{{"range", "bytes=0-0"}}, ByteRange{0, 0}},
      {{{"Range", "bytes=0-"}}, std::nullopt},  // open: the whole rest of the file
      {{{"Range", "bytes=0-9,20-29"}}, std::nullopt},
      {{{"Range", "bytes=0-9"}, {"Range", "bytes=0-9"}}, std::nullopt},
      {{}, std::nullopt},
  };
  for (const auto& c : requests) {
    platform::URLRequest request(*platform::URL::URLWithString("http://h.test/f"));
    request.headers = c.headers;
    EXPECT_EQ(shelfkit::boundedRangeOfRequest(request), c.expected);
  }

  using namespace std::chrono;
  struct DepthCase {
    const char* name;
    duration<double> roundTrip;
    double bytesPerSecond;
    size_t expected;
  } depths[] = {
      {"loopback: a round trip costs little", microseconds(100), 1e9, 4},
      {"50 ms at 100 Mbit/s carries 0.6 chunks per round trip", milliseconds(50), 12.5e6, 6},
      {"50 ms at 1 Gbit/s would want 27", milliseconds(50), 125e6, 16},
      {"nothing measured yet", milliseconds(50), 0, 1},
  };
  for (const auto& c : depths) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(shelfkit::readAheadDepth(c.roundTrip, c.bytesPerSecond, 1048576, 16), c.expected);
  }
}

}  // namespace
