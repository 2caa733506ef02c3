#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "module/platform/FileManager.h"
#include "module/platform/Localization.h"
#include "module/platform/MainQueue.h"
#include "module/platform/OperationQueue.h"
#include "module/platform/URL.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

TEST(OperationQueue, SerialQueueRunsOneAtATimeInOrderIsCurrentOnlyInsideAndWaitsForWhatItsOperationsAdd) {
  auto queue = platform::OperationQueue::create(1);
  std::vector<int> order;
  std::atomic<int> inside{0}, overlap{0};
  std::atomic<bool> current{true};
  for (int i = 0; i < 200; ++i) {
    queue->addOperation([&, i] {
      if (++inside > 1) ++overlap;
      current = current && queue->isCurrent();
      order.push_back(i);
      --inside;
    });
  }
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(overlap, 0);
  ASSERT_EQ(order.size(), 200u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue->isCurrent());

  // A wait that begins while one operation runs and nothing is pending lasts until what that one adds has run.
  std::atomic<bool> started{false}, inner{false};
  queue->addOperation([&] {
    started = true;
    std::this_thread::sleep_for(20ms);
    queue->addOperation([&] { inner = true; });
  });
  while (!started) std::this_thread::yield();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(inner);
  EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(OperationQueue, ConcurrentQueueRespectsItsLimitAndRunsEachOperationOnceWhileOthersAreAdded) {
  auto queue = platform::OperationQueue::create(3);
  std::atomic<int> inside{0}, most{0}, done{0};
  for (int i = 0; i < 12; ++i) {
    queue->addOperation([&] {
      int now = ++inside;
      int seen = most.load();
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::sleep_for(60ms);  // long enough for the pool to add a worker
      --inside;
      ++done;
    });
  }
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(done, 12);
  EXPECT_EQ(most, 3);

  auto add = [&] {
    for (int i = 0; i < 3000; ++i) {
      queue->addOperation([&] { ++done; });
      if (i % 7 == 0) std::this_thread::yield();  // let slots drain and hand over mid-stream
    }
  };
  std::thread other(add);
  add();
  other.join();
  queue->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(done, 6012);
  EXPECT_EQ(queue->operationCount(), 0u);
}

// While eight threads of the pool are blocked, 200 serial queues still run
// all their operations, on a few threads.
TEST(OperationQueue, ManySerialQueuesShareAFewThreadsAndBlockedOnesStarveNoOther) {
  std::atomic<bool> release{false};
  std::vector<std::shared_ptr<platform::OperationQueue>> blocked, queues;
  for (int i = 0; i < 8; ++i) {
    blocked.push_back(platform::OperationQueue::create(1));
    blocked.back()->addOperation([&] {
      while (!release) std::this_thread::sleep_for(1ms);
    });
  }
  std::atomic<int> ran{0};
  for (int i = 0; i < 200; ++i) {
    queues.push_back(platform::OperationQueue::create(1));
    for (int j = 0; j < 5; ++j) queues.back()->addOperation([&] { ++ran; });
  }
  for (auto& q : queues) q->waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran, 1000);
  EXPECT_LT(platform::operationPoolThreadCount(), 32u);
  release = true;
  for (auto& queue : blocked) queue->waitUntilAllOperationsAreFinished();  // they read `release` until then
}

TEST(MainLoop, DispatchesInOrderOnTheMainThreadAfterItsDelayAndTimersFireUntilStopped) {
  TestHost host;
  std::vector<std::string> order;
  bool allOnMain = true;
  const auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration late{};
  platform::dispatchAfterMain(150ms, [&] {
    late = std::chrono::steady_clock::now() - start;
    order.push_back("late");
  });
  std::thread worker([&] {
    EXPECT_FALSE(platform::isMainThread());
    for (int i = 0; i < 5; ++i)
      platform::dispatchAsyncMain([&, i] {
        allOnMain = allOnMain && platform::isMainThread();
        order.push_back(std::to_string(i));
      });
  });
  worker.join();
  ASSERT_TRUE(host.runUntil([&] { return order.size() == 6; }));
  EXPECT_EQ(order, (std::vector<std::string>{"0", "1", "2", "3", "4", "late"}));
  EXPECT_TRUE(allOnMain);
  EXPECT_GE(late, 150ms);

  int ticks = 0;
  std::unique_ptr<platform::RepeatingTimer> timer;
  timer = platform::scheduledTimer(20ms, [&] {
    if (++ticks == 3) timer->invalidate();
  });
  ASSERT_TRUE(host.runUntil([&] { return ticks == 3; }));
  host.loop().runFor(100ms);
  EXPECT_EQ(ticks, 3);
  EXPECT_FALSE(timer->isValid());

  int other = 0;
  auto dropped = platform::scheduledTimer(10ms, [&] { ++other; });
  dropped.reset();  // destroying a timer stops it
  host.loop().runFor(60ms);
  EXPECT_EQ(other, 0);
}

TEST(URL, ParsesAbsoluteURLsAndRefusesOthers) {
  struct Case {
    const char* text;
    const char* host = nullptr;  // none: refused
    const char* path = "";
    const char* last = "";
  } cases[] = {
      {"http://example.com/a/b.zip", "example.com", "/a/b.zip", "b.zip"},
      {"https://Example.COM:8443/dir/?q=1#f", "Example.COM", "/dir/", "dir"},
      {"http://h.test", "h.test", "/", "/"},
      {"http://h.test/some%20file.txt", "h.test", "/some file.txt", "some file.txt"},
      {"ftp://files.test/x", "files.test", "/x", "x"},
      {"http://[::1]:8080/v", "[::1]", "/v", "v"},
      {"example.com/a"},
      {""},
      {"http://"},
      {"not a url"},
      // A percent-encoded host is decoded: the result must read the same again.
      {"http://a%7Fb/"},
      {"http://a%AFb/"},
      {"http://%33/x", "0.0.0.3", "/x", "x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    auto url = platform::URL::URLWithString(c.text);
    ASSERT_EQ(url.has_value(), c.host != nullptr);
    if (!url) continue;
    EXPECT_EQ(url->host(), c.host);
    EXPECT_EQ(url->path(), c.path);
    EXPECT_EQ(url->lastPathComponent(), c.last);
    EXPECT_EQ(platform::URL::URLWithString(url->absoluteString())->absoluteString(), url->absoluteString());
  }
}

TEST(URL, PathExtensionHelpers) {
  EXPECT_EQ(platform::pathExtension("a/b/list.m3u8"), "m3u8");
  EXPECT_EQ(platform::pathExtension("archive.tar.gz"), "gz");
  EXPECT_EQ(platform::pathExtension(".hidden"), "");
  EXPECT_EQ(platform::pathExtension("noext"), "");
  EXPECT_EQ(platform::pathExtension("dir.d/file"), "");
  EXPECT_EQ(platform::deletingPathExtension("a.mp3"), "a");
  EXPECT_EQ(platform::deletingPathExtension("notes"), "notes");
}

TEST(Localization, TranslatesKnownTextsAndFallsBackToEnglish) {
  platform::bindTextDomain("shelftest", SHELF_TEST_LOCALE_DIR);
  platform::setPreferredLanguage("de");
  EXPECT_EQ(platform::localizedString("shelftest", "Downloads"), "Herunterladen");
  EXPECT_EQ(platform::localizedString("shelftest", "Not translated"), "Not translated");
  EXPECT_EQ(platform::localizedString("shelftest", ""), "") << "not the catalogue's header";
  // A language without a catalogue falls back to English in downloads_ui_test.
  platform::setPreferredLanguage("");
}

TEST(FileManager, MovesAcrossFileSystemsAndReportsFailures) {
  TestHost host;
  auto files = platform::FileManager::defaultManager();
  std::string src = host.layout().library + "/src.bin";
  std::ofstream(src, std::ios::binary) << std::string(100000, 'z');
  EXPECT_EQ(files->fileSizeAtPath(src), 100000);
  EXPECT_FALSE(files->fileSizeAtPath(host.layout().library)) << "a directory has no file size";

  // /dev/shm is a tmpfs, so this move crosses file systems when the root is not on one.
  std::string other = "/dev/shm/shelf-move-" + std::to_string(::getpid());
  ASSERT_TRUE(files->moveItemAtPath(src, other));
  EXPECT_FALSE(files->fileExistsAtPath(src));
  EXPECT_EQ(files->fileSizeAtPath(other), 100000);
  std::string back = host.layout().documents + "/back.bin";
  ASSERT_TRUE(files->moveItemAtPath(other, back));
  EXPECT_EQ(files->fileSizeAtPath(back), 100000);
  EXPECT_FALSE(files->fileExistsAtPath(other));

  EXPECT_FALSE(files->moveItemAtPath(host.layout().library + "/missing", back + "2"));
  EXPECT_TRUE(files->removeItemAtPath(back));
  EXPECT_FALSE(files->removeItemAtPath(back));
}

}  // namespace
