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
    // Answers after a while, for tests that act while the URL is checked.
    server_.setHandler("/slow.zip", [](const RecordedRequest&, int) {
      std::this_thread::sleep_for(300ms);
      return Behaviour{.size = 5000};
    });
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

TEST_F(IntakeTest, RefusalsShowTheirMessageQueueNothingAndRequestOneAdvertisement) {
  // Whether each URL's host is one whose terms forbid downloading.
  const std::pair<const char*, bool> hosts[] = {
      {"https://WWW.YouTube.com/watch?v=1", true},
      {"http://r3---sn-xyz.googlevideo.com/videoplayback", true},
      {"https://m.SoundCloud.com/a/b", true},
      {"https://player.vimeo.com/video/1", true},
      {"https://myyoutubefan.example/x", true},
      {"http://127.0.0.1:1/vimeo/youtube.zip", false},
  };
  for (const auto& [url, forbidden] : hosts) {
    SCOPED_TRACE(url);
    EXPECT_EQ(DFDownloadManager::forbiddenURL(*platform::URL::URLWithString(url)), forbidden);
  }
  server_.setRoute("/song.mp3", {.size = 5000});
  const std::string forbidden = "Download from this website is prohibited by its terms of use";
  const std::string media = "Downloading of media content is prohibited";
  // URL, the message the intake ends with, what the overlay shows.
  const std::tuple<std::string, std::string, std::vector<std::string>> cases[] = {
      // A forbidden host is refused before any request.
      {"https://media.YOUTUBE.com/clip", forbidden, {"alert: " + forbidden}},
      {server_.url("/song.mp3"), media, {"message: Checking URL...", "alert: " + media}},
  };
  for (const auto& [url, message, shown] : cases) {
    SCOPED_TRACE(url);
    host_.overlay().events.clear();
    const int ads = host_.ads().requests;
    auto outcome = add(url);
    ASSERT_TRUE(wait(outcome));
    EXPECT_EQ(outcome->record, nullptr);
    EXPECT_EQ(outcome->message, message);
    EXPECT_EQ(host_.overlay().events, shown);
    EXPECT_EQ(host_.ads().requests, ads + 1);
  }
  EXPECT_TRUE(manager_->downloadOperations().empty());
}

TEST_F(IntakeTest, AdditionsAreProbedJoinTheBackAndTheQueueIsRenumbered) {
  struct Added : DFDownloadManagerDelegate {
    std::vector<int64_t> priorities;
    void downloadOperationAdded(DFDownloadManager&, const Record& r) override { priorities.push_back(r->priority()); }
  };
  auto observer = std::make_shared<Added>();
  manager_->addDelegate(observer);
  // A forbidden site's name in the path only is no refusal.
  server_.setRoute("/vimeo/file.zip", {.size = 5000});
  auto first = add(server_.url("/vimeo/file.zip"));
  ASSERT_TRUE(wait(first));
  ASSERT_TRUE(first->record);
  EXPECT_EQ(server_.requests("/vimeo/file.zip").size(), 1u);
  EXPECT_EQ(host_.overlay().events,
            (std::vector<std::string>{"message: Checking URL...", "alert: File added to download queue"}));
  EXPECT_EQ(host_.tips().tips, std::vector<std::string>{"Manage your downloads through the main menu item \"Downloads\".\n"
                                                        "The downloaded files will be moved to the \"Documents\" folder."});
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(wait(add(server_.url("/files/a.zip"))));
  auto queue = manager_->downloadOperations();
  ASSERT_EQ(queue.size(), 3u);
  EXPECT_NE(queue[1]->uniqueId(), queue[2]->uniqueId()) << "the same URL twice makes two records";
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

TEST_F(IntakeTest, ACancelWhileCheckingOrAReportWithNeitherMessageNorNameQueuesNothing) {
  auto cancelled = add(server_.url("/slow.zip"));
  ASSERT_TRUE(host_.overlay().cancelBlock);
  host_.overlay().cancelBlock();
  EXPECT_TRUE(cancelled->called);
  EXPECT_EQ(cancelled->message, "Cancelled");
  EXPECT_EQ(cancelled->record, nullptr);
  EXPECT_EQ(host_.ads().requests, 1);

  auto unnamed = add(server_.url("/slow.zip"));
  auto loaders = manager_->infoLoadersForTesting();
  ASSERT_EQ(loaders.size(), 1u);
  manager_->downloadOperationInfoLoader(*loaders[0], std::nullopt);  // the record has no name yet
  ASSERT_TRUE(wait(unnamed));
  EXPECT_EQ(unnamed->record, nullptr);
  EXPECT_EQ(unnamed->message, std::nullopt);
  EXPECT_EQ(host_.overlay().events.back(), "alert: <none>");
  loaders[0]->cancel();
  // A late report of either has no effect.
  host_.loop().runFor(700ms);
  EXPECT_TRUE(manager_->downloadOperations().empty());
}

}  // namespace
