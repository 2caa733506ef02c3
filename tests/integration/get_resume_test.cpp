// `shelf get` as a process: interrupted (SIGINT, SIGKILL) and run again, it
// continues from the last complete chunk; one run at a time per folder; lists
// of addresses.
#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include <sqlite3.h>

#include "tests/support/ShelfProcess.h"
#include "tests/support/TestHttpServer.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string statePath(const std::string& out) { return out + "/.shelf-get"; }

// The size of the one temporary file of the state, or -1.
int64_t temporaryFileSize(const std::string& out) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(statePath(out) + "/DownloaderTmpFiles", error))
    if (entry.path().extension().empty()) return static_cast<int64_t>(entry.file_size(error));
  return -1;
}

// The position saved in the state's record database for the download of
// big.dat: where a new run continues. -1 when there is none (yet).
int64_t savedPosition(const std::string& out) {
  sqlite3* db = nullptr;
  int64_t position = -1;
  auto read = [](void* into, int, char** values, char**) {
    *static_cast<int64_t*>(into) = values[0] ? std::stoll(values[0]) : -1;
    return 0;
  };
  const std::string path = statePath(out) + "/Databases/DFDownloadManager.sqlite";
  if (fs::exists(path) && sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK)
    sqlite3_exec(db,
                 "SELECT json_extract(CAST(data AS TEXT), '$.position.int64') FROM items "
                 "WHERE json_extract(CAST(data AS TEXT), '$.filename.string') = 'big.dat'",
                 read, &position, nullptr);
  sqlite3_close(db);
  return position;
}

// The first byte each request from `from` on asked for, in order; the probe's one byte is left out.
std::vector<int64_t> rangeStarts(const std::vector<RecordedRequest>& requests, size_t from = 0) {
  std::vector<int64_t> starts;
  for (size_t i = from; i < requests.size(); ++i) {
    const auto range = requests[i].header("Range");
    if (range && *range != "bytes=1-1") starts.push_back(std::stoll(range->substr(6)));
  }
  return starts;
}

TEST(ShelfGetResume, AnInterruptedRunContinuesFromTheLastCompleteChunk) {
  const int64_t size = 5000000;  // chunks of 500000
  const int64_t kept = 2000000;  // four chunks arrive; the fifth and those read ahead hang (or fail)
  const struct {
    const char* what;
    int signal;  // 0: the run gives up after a failure (--tries 1)
    int status;
    const char* said;
    bool restart;
  } cases[] = {
      {"Ctrl-C", SIGINT, 130, "run the same command again", false},
      {"killed", SIGKILL, 128 + SIGKILL, "", false},
      {"given up after a failure", 0, 1, "The network connection was lost.", false},
      {"Ctrl-C, then --restart", SIGINT, 130, "run the same command again", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TestHttpServer server;
    std::atomic<bool> holding = true;
    server.setHandler("/big.dat", [&](const RecordedRequest& request, int) {
      Behaviour b{.size = size};
      const auto starts = rangeStarts({request});
      if (holding && !starts.empty() && starts[0] >= kept) {
        if (c.signal != 0) b.stallAtByte = 0;
        else b.dropAfterBytes = 1000;
      }
      return b;
    });
    server.setRoute("/small.txt", {.size = 3000, .mimeType = "text/plain"});  // placed before the interruption
    const std::string out = makeTemporaryDirectory();
    const std::vector<std::string> command{"get", server.url("/big.dat"), server.url("/small.txt"), "-o", out};
    auto firstCommand = command;
    if (c.signal == 0) firstCommand.insert(firstCommand.end(), {"--tries", "1"});
    ShelfProcess first(firstCommand);
    ASSERT_TRUE(waitFor([&] {
      return temporaryFileSize(out) == kept && savedPosition(out) == kept &&
             first.output().find(out + "/small.txt\n") != std::string::npos;
    })) << first.output() << "kept " << temporaryFileSize(out) << ", saved " << savedPosition(out);
    if (c.signal != 0) first.signal(c.signal);
    EXPECT_EQ(first.wait(), c.status) << first.output();
    EXPECT_NE(first.output().find(c.said), std::string::npos) << first.output();
    EXPECT_EQ(temporaryFileSize(out), kept) << "the partial data is kept";
    EXPECT_FALSE(fs::exists(out + "/big.dat"));
    const size_t mark = server.requests("/big.dat").size();
    const size_t smallMark = server.requests("/small.txt").size();
    holding = false;
    server.releaseStalls();

    auto second = command;
    if (c.restart) second.push_back("--restart");
    const Finished resumed = runShelf(second);
    EXPECT_EQ(resumed.status, 0) << resumed.output;
    EXPECT_TRUE(readFile(out + "/big.dat") == TestHttpServer::pattern(0, size));
    EXPECT_FALSE(fs::exists(statePath(out))) << "nothing is left to keep";
    EXPECT_FALSE(fs::exists(out + "/big(1).dat"));
    EXPECT_NE(resumed.output.find(out + (c.restart ? "/small(1).txt\n" : "/small.txt\n")), std::string::npos)
        << resumed.output;
    EXPECT_EQ(fs::exists(out + "/small(1).txt"), c.restart) << "a placed file is fetched again only with --restart";
    EXPECT_EQ(server.requests("/small.txt").size() > smallMark, c.restart);
    fs::remove_all(out);

    const auto requests = server.requests("/big.dat");
    const auto again = rangeStarts(requests, mark);
    ASSERT_FALSE(again.empty());
    EXPECT_EQ(again.front(), c.restart ? 0 : kept) << "--restart fetches from the start, else from the kept data";
    if (c.restart) continue;
    std::map<int64_t, int> asked;
    for (int64_t start : rangeStarts(requests)) ++asked[start];
    for (int64_t start = 0; start < kept; start += 500000) EXPECT_EQ(asked[start], 1) << "chunk at " << start;
    for (int64_t start : again) EXPECT_GE(start, kept) << "a complete chunk was fetched again";
  }
}

// A server without ranges: while the first run hangs, a second run on the
// same folder is turned away; interrupted, the file starts over and ends right.
TEST(ShelfGetResume, WithoutRangesAnInterruptedFileStartsOverAndARunOwnsItsFolder) {
  const int64_t size = 3000000;
  TestHttpServer server;
  std::atomic<bool> holding = true;
  server.setHandler("/whole.dat", [&](const RecordedRequest&, int) {
    Behaviour b{.size = size, .honourRange = false};
    if (holding) b.stallAtByte = 1000000;
    return b;
  });
  server.setRoute("/other.dat", {.size = 1000});
  const std::string out = makeTemporaryDirectory();
  const std::vector<std::string> command{"get", server.url("/whole.dat"), "-o", out};
  {
    ShelfProcess first(command);
    ASSERT_TRUE(waitFor([&] { return server.bodyBytesSent("/whole.dat") >= 1000000 + 2; }));
    const Finished second = runShelf({"get", server.url("/other.dat"), "-o", out});
    EXPECT_EQ(second.status, 2) << second.output;
    EXPECT_NE(second.output.find("another `shelf get` is using"), std::string::npos) << second.output;
    EXPECT_TRUE(server.requests("/other.dat").empty());
    std::this_thread::sleep_for(300ms);
    first.signal(SIGINT);
    EXPECT_EQ(first.wait(), 130) << first.output();
  }
  const size_t mark = server.requests("/whole.dat").size();
  holding = false;
  server.releaseStalls();
  const Finished again = runShelf(command);
  EXPECT_EQ(again.status, 0) << again.output;
  EXPECT_TRUE(readFile(out + "/whole.dat") == TestHttpServer::pattern(0, size));
  EXPECT_EQ(rangeStarts(server.requests("/whole.dat"), mark), std::vector<int64_t>{0});
  EXPECT_FALSE(fs::exists(statePath(out)));
  fs::remove_all(out);
}

// What a run answers to its input: addresses on standard input, lists, bad
// input and a refused address.
TEST(ShelfGet, InputAndRefusals) {
  TestHttpServer server;
  server.setRoute("/a.txt", {.size = 3000, .mimeType = "text/plain"});
  server.setRoute("/b.txt", {.size = 4000, .mimeType = "text/plain"});
  server.setRoute("/clip.mp4", {.size = 5000});
  const std::string folder = makeTemporaryDirectory();
  const std::string a = server.url("/a.txt"), b = server.url("/b.txt");
  std::ofstream(folder + "/bad.txt") << a << "\nnot an address\n" << b << "\n";
  std::ofstream(folder + "/empty.txt") << "# nothing yet\n\n";

  const struct {
    const char* what;
    std::vector<std::string> arguments;
    std::string input;
    int status;
    // Each is in the output, in any order; with OUT (the output folder), nothing else is.
    std::vector<std::string> lines;
  } cases[] = {
      {"comments and blank lines on standard input, quiet", {"get", "-q", "-i", "-"},
       "# files\n\n" + a + "\n   " + b + "  \r\n", 0, {"OUT/a.txt\n", "OUT/b.txt\n"}},
      {"a media address is refused", {"get", server.url("/clip.mp4")}, "", 1, {"media content is prohibited"}},
      {"an argument that is not an address", {"get", "not-a-url"}, "", 2, {"not a web address: not-a-url"}},
      {"a bad line stops everything", {"get", "-i", folder + "/bad.txt"}, "", 2, {"bad.txt:2: not a web address"}},
      {"a list with no address", {"get", "-i", folder + "/empty.txt"}, "", 2, {"no address"}},
      {"a list that is not there", {"get", "-i", folder + "/missing.txt"}, "", 2,
       {"cannot read the list " + folder + "/missing.txt"}},
      {"an unknown option", {"get", "--bogus", a}, "", 2, {"--bogus"}},
      {"the help tells the exit statuses", {"get", "--help"}, "", 0, {"130  interrupted"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string out = makeTemporaryDirectory();
    auto arguments = c.arguments;
    arguments.insert(arguments.end(), {"-o", out});
    const size_t before = server.requests().size();
    const Finished run = runShelf(arguments, c.input);
    EXPECT_EQ(run.status, c.status) << run.output;
    size_t length = 0;
    const bool exact = c.lines.front().starts_with("OUT");
    for (auto line : c.lines) {
      if (line.starts_with("OUT")) line.replace(0, 3, out);
      EXPECT_NE(run.output.find(line), std::string::npos) << run.output;
      length += line.size();
    }
    if (exact) {
      EXPECT_EQ(run.output.size(), length) << run.output;
    }
    if (c.status == 2) {
      EXPECT_EQ(server.requests().size(), before) << "nothing was started";
      EXPECT_FALSE(fs::exists(statePath(out)));
    }
    fs::remove_all(out);
  }
  fs::remove_all(folder);
}

}  // namespace
