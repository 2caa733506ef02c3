#include <gtest/gtest.h>

#include <thread>

#include "module/core/DFDownloadManager.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

using namespace std::chrono_literals;

namespace {

class IntakeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Downloads stay queued: these tests are about intake, not transfers.
    manager_ = DFDownloadManager::init();
    manager_->setDownloadsPermitted(false);
    server_.setRoute("/files/a.zip", {.size = 5000});
  }

  struct Outcome {
    bool called = false;
    DFDownloadManager::Record record;
    std::optional<std::string> message;
  };
  std::shared_ptr<Outcome> add(const std::string& url) {
    auto outcome = std::make_shared<Outcome>();
    manager_->downloadFileWithURL(*platform::URL::URLWithString(url),
                                  [outcome](const DFDownloadManager::Record& r, const std::optional<std::string>& m) {
                                    EXPECT_FALSE(outcome->called) << "the completion runs once";
                                    *outcome = {true, r, m};
                                  });
    return outcome;
  }
  bool wait(const std::shared_ptr<Outcome>& outcome) { return host_.runUntil([&] { return outcome->called; }); }

  TestHost host_;
  TestHttpServer server_;
  std::shared_ptr<DFDownloadManager> manager_;
};

TEST_F(IntakeTest, ForbiddenHostsAreRefusedWithOneAdvertisementRequest) {
  struct Case {
    const char* url;
    bool forbidden;
  } cases[] = {
      {"https://WWW.YouTube.com/watch?v=1", true},
      {"http://r3---sn-xyz.googlevideo.com/videoplayback", true},
      {"https://m.SoundCloud.com/a/b", true},
      {"https://player.vimeo.com/video/1", true},
      {"https://myyoutubefan.example/x", true},
      {"http://127.0.0.1:1/vimeo/youtube.zip", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    EXPECT_EQ(DFDownloadManager::forbiddenURL(*platform::URL::URLWithString(c.url)), c.forbidden);
  }
  auto outcome = add("https://media.YOUTUBE.com/clip");
  ASSERT_TRUE(wait(outcome));
  const std::string message = "Download from this website is prohibited by its terms of use";
  EXPECT_EQ(outcome->record, nullptr);
  EXPECT_EQ(outcome->message, message);
  EXPECT_EQ(host_.overlay().events, std::vector<std::string>{"alert: " + message});
  EXPECT_EQ(host_.ads().requests, 1);
  EXPECT_TRUE(manager_->downloadOperations().empty());
}

TEST_F(IntakeTest, KeywordInThePathIsProbedAndQueued) {
  server_.setRoute("/vimeo/file.zip", {.size = 5000});
  auto outcome = add(server_.url("/vimeo/file.zip"));
  ASSERT_TRUE(wait(outcome));
  ASSERT_TRUE(outcome->record);
  EXPECT_EQ(server_.requests("/vimeo/file.zip").size(), 1u);
  EXPECT_EQ(host_.overlay().events,
            (std::vector<std::string>{"message: Checking URL...", "alert: File added to download queue"}));
  ASSERT_EQ(host_.tips().tips.size(), 1u);
  EXPECT_EQ(host_.tips().tips[0],
            "Manage your downloads through the main menu item \"Downloads\".\n"
            "The downloaded files will be moved to the \"Documents\" folder.");
  EXPECT_EQ(host_.ads().requests, 1);
}

TEST_F(IntakeTest, AdditionsJoinTheBackAndTheQueueIsRenumbered) {
  struct Added : DFDownloadManagerDelegate {
    std::vector<int64_t> priorities;
    void downloadOperationAdded(DFDownloadManager&, const Record& r) override { priorities.push_back(r->priority()); }
  };
  auto observer = std::make_shared<Added>();
  manager_->addDelegate(observer);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(wait(add(server_.url("/files/a.zip"))));
  auto queue = manager_->downloadOperations();
  ASSERT_EQ(queue.size(), 3u);
  EXPECT_NE(queue[0]->uniqueId(), queue[1]->uniqueId()) << "the same URL twice makes two records";
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(queue[i]->priority(), i);
    EXPECT_TRUE(queue[i]->active());
  }
  EXPECT_EQ(observer->priorities, (std::vector<int64_t>{0, 1, 2}));
  EXPECT_EQ(host_.ads().requests, 3);

  // A removal leaves a gap that the next addition closes, and that addition
  // also stores a change no one saved yet.
  manager_->removeDownloadOperation(queue[0]);
  queue[2]->setPosition(7);
  ASSERT_TRUE(wait(add(server_.url("/files/a.zip"))));
  queue = manager_->downloadOperations();
  ASSERT_EQ(queue.size(), 3u);

  // A restart finds the same queue in the same order, as it was last.
  manager_.reset();
  auto restarted = DFDownloadManager::init();
  auto again = restarted->downloadOperations();
  ASSERT_EQ(again.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(again[i]->uniqueId(), queue[i]->uniqueId());
    EXPECT_EQ(again[i]->priority(), i);
  }
  EXPECT_EQ(again[1]->position(), 7);
  restarted->setDownloadsPermitted(false);
}

TEST_F(IntakeTest, CancelWhileCheckingEndsTheIntakeAndALateReportHasNoEffect) {
  server_.setHandler("/slow.zip", [](const RecordedRequest&, int) {
    std::this_thread::sleep_for(300ms);
    return Behaviour{.size = 5000};
  });
  auto outcome = add(server_.url("/slow.zip"));
  ASSERT_TRUE(host_.overlay().cancelBlock);
  host_.overlay().cancelBlock();
  EXPECT_TRUE(outcome->called);
  EXPECT_EQ(outcome->message, "Cancelled");
  EXPECT_EQ(outcome->record, nullptr);
  host_.loop().runFor(700ms);
  EXPECT_TRUE(manager_->downloadOperations().empty());
  EXPECT_EQ(host_.ads().requests, 1);
}

TEST_F(IntakeTest, ProbeFailuresShowTheirMessageAndQueueNothing) {
  server_.setRoute("/song.mp3", {.size = 5000});
  auto outcome = add(server_.url("/song.mp3"));
  ASSERT_TRUE(wait(outcome));
  EXPECT_EQ(outcome->message, "Downloading of media content is prohibited");
  EXPECT_EQ(host_.overlay().events.back(), "alert: Downloading of media content is prohibited");
  EXPECT_TRUE(manager_->downloadOperations().empty());
  EXPECT_EQ(host_.ads().requests, 1);
}

TEST_F(IntakeTest, AReportWithNeitherMessageNorNameQueuesNothing) {
  server_.setHandler("/held.zip", [](const RecordedRequest&, int) {
    std::this_thread::sleep_for(300ms);
    return Behaviour{.size = 5000};
  });
  auto outcome = add(server_.url("/held.zip"));
  auto loaders = manager_->infoLoadersForTesting();
  ASSERT_EQ(loaders.size(), 1u);
  manager_->downloadOperationInfoLoader(*loaders[0], std::nullopt);  // the record has no name yet
  ASSERT_TRUE(wait(outcome));
  EXPECT_EQ(outcome->record, nullptr);
  EXPECT_EQ(outcome->message, std::nullopt);
  EXPECT_EQ(host_.overlay().events.back(), "alert: <none>");
  loaders[0]->cancel();
  host_.loop().runFor(500ms);
  EXPECT_TRUE(manager_->downloadOperations().empty());
}

}  // namespace
