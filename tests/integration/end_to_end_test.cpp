#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "module/core/DFDownloadManager.h"
#include "module/platform/FileManager.h"
#include "shelfkit/runtime/PosixFileManager.h"
#include "shelfkit/runtime/RootLayout.h"
#include "tests/support/Journal.h"
#include "tests/support/ShelfProcess.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

class EndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setClockForTesting([this] { return platform::Date(std::chrono::system_clock::now()) + skipped_; });
  }

  // Runs the loop until `done`, letting retry waits pass at once: every 100 ms
  // the clock jumps past the retry delay and the retry timer fires.
  bool runWithRetries(DFDownloadManager& manager, const std::function<bool()>& done) {
    auto lastJump = std::chrono::steady_clock::now();
    return host_.runUntil(
        [&] {
          if (std::chrono::steady_clock::now() - lastJump > 100ms) {
            lastJump = std::chrono::steady_clock::now();
            skipped_ += 11s;
            manager.retryTimerFired();
          }
          return done();
        },
        120s);
  }

  // The Range header of the first request to the path after the first `mark` ones.
  std::optional<std::string> rangeAfter(const std::string& path, size_t mark) {
    auto requests = server_.requests(path);
    return requests.size() > mark ? requests[mark].header("Range") : std::nullopt;
  }

  TestHost host_;
  TestHttpServer server_;
  std::chrono::seconds skipped_{0};
};

TEST_F(EndToEndTest, TenDownloadsThroughFaultsEndIdenticalToTheirSources) {
  std::vector<std::pair<std::string, int64_t>> files;
  for (int i = 0; i < 10; ++i) {
    const int64_t size = i == 0 ? 50000 : 300000 + i * 70001;
    const std::string path = "/e2e/file" + std::to_string(i) + ".dat";
    files.emplace_back(path, size);
    // The first two answers for the second chunk break off, and for the fourth
    // chunk of every other file they are 200 with the whole file.
    const auto chunk = static_cast<int64_t>(std::ceil(static_cast<float>(size) / 10));
    auto seen = std::make_shared<std::map<std::string, int>>();
    server_.setHandler(path, [size, i, chunk, seen](const RecordedRequest& request, int) {
      Behaviour b{.size = size};
      if (i == 9) b.honourRange = false;  // served whole, in one request
      const std::string range = request.header("Range").value_or("");
      const int times = (*seen)[range]++;
      if (range.starts_with("bytes=" + std::to_string(chunk) + "-") && times < 2) b.dropAfterBytes = 7000;
      if (range.starts_with("bytes=" + std::to_string(3 * chunk) + "-") && times < 2 && i % 2 == 0)
        b.honourRange = false;
      return b;
    });
  }
  auto manager = DFDownloadManager::init();
  auto journal = std::make_shared<Journal>();
  manager->addDelegate(journal);
  for (auto& [path, size] : files)
    manager->downloadFileWithURL(*platform::URL::URLWithString(server_.url(path)), nullptr);
  auto count = [&](const char* event) {
    return std::ranges::count_if(journal->events, [&](auto& e) { return e.starts_with(event); });
  };
  ASSERT_TRUE(runWithRetries(*manager, [&] {
    return count("completed ") == 10 && manager->downloadOperations().empty();
  }));
  for (auto& [path, size] : files) {
    const fs::path placed = fs::path(host_.layout().documents) / fs::path(path).filename();
    EXPECT_TRUE(readFile(placed) == TestHttpServer::pattern(0, size)) << placed;
  }
  host_.loop().runFor(50ms);  // a placement marker goes a turn after its record's removal
  EXPECT_TRUE(fs::is_empty(host_.layout().library + "/DownloaderTmpFiles")) << "no temporary file is left";
  // Eight chunked files each met a dropped connection: two faulty answers are
  // more than read-ahead absorbs. The 200s may have been met by ranges read
  // ahead only, and the loader then asked again.
  EXPECT_GE(count("stopped "), 8);
}

// Three transfers hang in their third chunk. Losing the network stops each
// once; its return resumes them from the last complete chunk, and so does a
// restart after the manager ended in the middle of those chunks.
TEST_F(EndToEndTest, LosingTheNetworkOrTheProcessResumesFromTheLastCompleteChunk) {
  std::atomic<bool> stall = true;
  auto manager = DFDownloadManager::init();
  auto journal = std::make_shared<Journal>();
  manager->addDelegate(journal);
  const std::vector<std::string> names{"/a.dat", "/b.dat", "/c.dat"};
  for (const auto& name : names) {
    // 2000000 bytes in chunks of 200000; while `stall` holds, the third chunk hangs.
    server_.setHandler(name, [&stall](const RecordedRequest& request, int) {
      Behaviour b{.size = 2000000};
      if (stall && request.header("Range") == "bytes=400000-599999") b.stallAtByte = 50000;
      return b;
    });
    manager->downloadFileWithURL(*platform::URL::URLWithString(server_.url(name)), nullptr);
  }
  ASSERT_TRUE(host_.runUntil([&] {
    auto queue = manager->downloadOperations();
    return queue.size() == 3 && std::ranges::all_of(queue, [](auto& r) { return r->actualPosition() > 400000; });
  }, 30s));
  host_.loop().runFor(200ms);
  journal->take();

  host_.network().setState(false, false);  // the default route disappears
  host_.loop().runFor(200ms);
  EXPECT_EQ(journal->take(), (std::vector<std::string>{"stopped a.dat", "stopped b.dat", "stopped c.dat"}));
  for (const auto& record : manager->downloadOperations()) {
    EXPECT_EQ(record->position(), 400000) << "two complete chunks";
    EXPECT_TRUE(record->active());
    EXPECT_FALSE(manager->downloadOperationInProgress(record));
  }
  host_.loop().runFor(300ms);
  EXPECT_TRUE(journal->take().empty()) << "nothing starts without a route";

  // Each resumption asks for the third chunk first.
  std::map<std::string, size_t> marks;
  auto resumed = [&] {
    return std::ranges::all_of(names, [&](auto& name) { return rangeAfter(name, marks[name]).has_value(); });
  };
  for (const auto& name : names) marks[name] = server_.requests(name).size();
  host_.network().setState(true, true);
  ASSERT_TRUE(host_.runUntil(resumed, 30s));
  for (const auto& name : names) EXPECT_EQ(rangeAfter(name, marks[name]), "bytes=400000-599999") << name;
  host_.loop().runFor(200ms);
  manager.reset();  // the process ends here
  stall = false;
  server_.releaseStalls();

  for (const auto& name : names) marks[name] = server_.requests(name).size();
  auto restarted = DFDownloadManager::init();
  ASSERT_TRUE(host_.runUntil([&] { return restarted->downloadOperations().empty(); }, 60s));
  for (const auto& name : names) {
    EXPECT_EQ(rangeAfter(name, marks[name]), "bytes=400000-599999") << name;
    EXPECT_TRUE(readFile(host_.layout().documents + name) == TestHttpServer::pattern(0, 2000000)) << name;
  }
}

// A small tmpfs for the documents folder, in a mount namespace of the calling
// thread only (the main loop runs here), so nothing outside the test sees it.
struct SmallDocumentsFolder {
  explicit SmallDocumentsFolder(const std::string& path) : path(path) {
    fs::create_directories(path);
    mounted = ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
              ::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=1m") == 0;
  }
  ~SmallDocumentsFolder() {
    if (mounted) ::umount(path.c_str());
  }
  const std::string path;
  bool mounted = false;
};

TEST_F(EndToEndTest, AFullDocumentsFolderKeepsTheFileUntilThereIsRoom) {
  const std::string documents = host_.layout().root + "/Small";
  SmallDocumentsFolder small(documents);
  if (!small.mounted) GTEST_SKIP() << "mounting a tmpfs needs root";
  platform::FileManager::setDefaultManager(std::make_shared<shelfkit::PosixFileManager>(host_.layout().library, documents));
  const int64_t size = 400000;  // two fit in the 1 MiB folder, three do not
  for (const char* name : {"/one.dat", "/two.dat", "/three.dat"}) server_.setRoute(name, {.size = size});
  auto manager = DFDownloadManager::init();
  manager->setMaxActiveDownloadCount(1);  // in queue order
  for (const char* name : {"/one.dat", "/two.dat", "/three.dat"})
    manager->downloadFileWithURL(*platform::URL::URLWithString(server_.url(name)), nullptr);

  DFDownloadManager::Record third;
  ASSERT_TRUE(host_.runUntil([&] {
    auto queue = manager->downloadOperations();
    if (queue.size() != 1 || !manager->lastErrorOfDownloadOperation(queue[0])) return false;
    third = queue[0];
    return true;
  }, 60s));
  EXPECT_EQ(third->outputFilename(), "three.dat");
  EXPECT_EQ(manager->lastErrorOfDownloadOperation(third), "The file could not be placed in the Documents folder");
  EXPECT_EQ(third->position(), size) << "the data is kept";
  std::set<std::string> placed;
  for (const auto& entry : fs::directory_iterator(documents)) placed.insert(entry.path().filename().string());
  EXPECT_EQ(placed, (std::set<std::string>{"one.dat", "two.dat"})) << "no partial copy is left";
  const size_t requests = server_.requests("/three.dat").size();

  fs::remove(documents + "/one.dat");  // the user makes room
  ASSERT_TRUE(runWithRetries(*manager, [&] { return manager->downloadOperations().empty(); }));
  EXPECT_TRUE(readFile(documents + "/three.dat") == TestHttpServer::pattern(0, size));
  EXPECT_TRUE(readFile(documents + "/two.dat") == TestHttpServer::pattern(0, size));
  EXPECT_EQ(server_.requests("/three.dat").size(), requests) << "placed from the kept data, not fetched again";
  EXPECT_TRUE(fs::is_empty(host_.layout().library + "/DownloaderTmpFiles"));
}

TEST(ShelfAdd, HandsAddressesToTheRunningHost) {
  TestHttpServer server;
  server.setRoute("/notes.txt", {.size = 300000, .mimeType = "text/plain"});
  const std::string root = makeTemporaryDirectory();
  const std::string notes = server.url("/notes.txt");
  const Finished alone = runShelf({"add", "--root", root, notes});
  EXPECT_EQ(alone.status, 2) << "no host runs yet";
  EXPECT_NE(alone.output.find("shelf serve"), std::string::npos) << alone.output;
  {
    ShelfProcess host({"serve", "--root", root, "--port", "0"});
    std::string url;  // of the host, from its line "shelf: open URL"
    ASSERT_TRUE(waitFor([&] {
      std::istringstream said(host.output());
      for (std::string line; std::getline(said, line) && url.empty();)
        if (line.starts_with("shelf: open ")) url = line.substr(12);
      return !url.empty();
    }));
    const Finished second = runShelf({"serve", "--root", root, "--port", "0"});
    EXPECT_EQ(second.status, 1) << "one process owns a root";
    EXPECT_NE(second.output.find(url), std::string::npos) << second.output;

    Finished added = runShelf({"add", "--root", root, notes, notes, "--type", "application/zip"});
    EXPECT_EQ(added.status, 1) << added.output;
    EXPECT_NE(added.output.find("Invalid mime-type"), std::string::npos) << added.output;
    added = runShelf({"add", "--root", root, notes});
    EXPECT_EQ(added.status, 0) << added.output;
    EXPECT_TRUE(waitFor([&] { return readFile(root + "/Documents/notes.txt") == TestHttpServer::pattern(0, 300000); }));
    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(), 0) << host.output();
  }
  fs::remove_all(root);
}

// `shelf add` must believe the note in Library/Server.json only while the
// root's host runs: a stranger may hold the port of one that ended.
TEST(ShelfAdd, SendsNothingWhenTheHostIsGoneOrItsNoteIsBad) {
  const std::string root = makeTemporaryDirectory();
  const auto layout = shelfkit::RootLayout::resolve(root, std::nullopt);
  ASSERT_TRUE(layout.create(nullptr));
  // The stranger: a listener nobody accepts from; a connection would wait in its backlog.
  const int stranger = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(stranger, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(stranger, 8), 0);
  ASSERT_EQ(::getsockname(stranger, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  const std::string note = R"({"url": "http://127.0.0.1:)" + port + R"(/", "address": "127.0.0.1", "port": )" + port + "}";

  const struct {
    const char* what;
    bool running;      // the root's lock is held, as by a running host
    std::string note;  // empty: none
  } cases[] = {
      {"the host that wrote the note ended", false, note},
      {"a port that is not a number", true, R"({"url": "x", "address": "127.0.0.1", "port": "abc"})"},
      {"a running host left no note yet", true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::optional<shelfkit::RootLock> lock;
    if (c.running) lock.emplace(layout);
    fs::remove(layout.library + "/Server.json");
    if (!c.note.empty()) std::ofstream(layout.library + "/Server.json") << c.note;
    const Finished run = runShelf({"add", "--root", root, "http://files.example/a.zip"});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_LT(::accept(stranger, nullptr, nullptr), 0) << "nothing was sent to the stranger";
  }
  // The check above can see a connection.
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const int accepted = ::accept(stranger, nullptr, nullptr);
  EXPECT_GE(accepted, 0);
  for (int fd : {accepted, probe, stranger}) ::close(fd);
  fs::remove_all(root);
}

}  // namespace
