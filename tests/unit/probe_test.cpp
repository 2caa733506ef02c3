#include <gtest/gtest.h>

#include <thread>

#include "module/naming/DFPrettyFilenameGenerator.h"
#include "module/platform/MainQueue.h"
#include "module/probe/DFDownloadOperationInfoLoader.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

using namespace std::chrono_literals;
using Loader = DFDownloadOperationInfoLoader;

namespace {

struct ProbeDelegate : DFDownloadOperationInfoLoaderDelegate {
  void downloadOperationInfoLoader(DFDownloadOperationInfoLoader&, const std::optional<std::string>& error) override {
    ++calls;
    onMain = onMain && platform::isMainThread();
    result = error;
  }
  int calls = 0;
  bool onMain = true;
  std::optional<std::string> result;
};

class ProbeTest : public ::testing::Test {
 protected:
  struct Outcome {
    std::shared_ptr<DFDownloadOperation> record;
    std::optional<std::string> error;
  };

  Outcome probe(const std::string& path, std::optional<Loader::MIMETypes> permitted = std::nullopt) {
    auto record = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(server_.url(path)));
    auto delegate = std::make_shared<ProbeDelegate>();
    auto loader = Loader::initWithDownloadOperation(record, permitted, delegate);
    EXPECT_TRUE(host_.runUntil([&] { return delegate->calls > 0; }));
    host_.loop().runFor(50ms);
    EXPECT_EQ(delegate->calls, 1);
    EXPECT_TRUE(delegate->onMain);
    auto probe = server_.requests(path.substr(0, path.find('?')));
    EXPECT_FALSE(probe.empty());
    if (!probe.empty()) {
      EXPECT_EQ(probe[0].header("Range"), "bytes=1-1");
    }
    return {record, delegate->result};
  }

  TestHost host_;
  TestHttpServer server_;
};

TEST_F(ProbeTest, SizeAndRangeSupportFromTheAnswerWithoutReadingTheBody) {
  const struct {
    const char* name;
    Behaviour behaviour;
    int64_t size;
    bool partial;
  } cases[] = {
      {"206 bytes 1-1/5000", {.size = 5000}, 5000, true},
      {"one-byte file served whole", {.size = 1, .honourRange = false}, 0, false},
      {"unknown total", {.size = 5000, .contentRange = "bytes 1-1/*"}, 0, false},
      {"wrong range in the answer", {.size = 5000, .contentRange = "bytes 0-0/5000"}, 0, false},
      {"range ignored", {.size = 64 << 20, .honourRange = false}, 0, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path = "/f" + std::to_string(&c - cases) + "/archive.zip";
    server_.setRoute(path, c.behaviour);
    auto [record, error] = probe(path);
    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(record->size(), c.size);
    EXPECT_EQ(record->partialDownloading(), c.partial);
    EXPECT_EQ(record->filename(), "archive.zip");
    EXPECT_EQ(record->outputFilename(), "archive.zip");
    host_.loop().runFor(200ms);
    // What the server could push before the connection closed is bounded by socket buffers.
    EXPECT_LT(server_.bodyBytesSent(path), 8 << 20);
  }
}

TEST_F(ProbeTest, PermittedTypesAreMatchedExactly) {
  struct Case {
    const char* name;
    std::string sent;
    std::optional<Loader::MIMETypes> permitted;
    bool accepted;
  } cases[] = {
      {"missing type refused", "", Loader::MIMETypes{"text/html"}, false},
      {"different case refused", "text/HTML", Loader::MIMETypes{"text/html"}, false},
      {"exact match accepted", "text/html", Loader::MIMETypes{"text/html", "application/pdf"}, true},
      {"no prefix matching", "text/html", Loader::MIMETypes{"text/"}, false},
      {"empty set accepts anything", "", Loader::MIMETypes{}, true},
      {"no set accepts anything", "x/y", std::nullopt, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    std::string path = "/t" + std::to_string(&c - cases) + "/page.html";
    server_.setRoute(path, {.size = 100, .mimeType = c.sent});
    auto [record, error] = probe(path, c.permitted);
    if (c.accepted) {
      EXPECT_EQ(error, std::nullopt);
      EXPECT_EQ(record->filename(), "page.html");
    } else {
      EXPECT_EQ(error, "Invalid mime-type");
      EXPECT_EQ(log.lines, std::vector<std::string>{"Invalid mime-type:" + c.sent});
      EXPECT_EQ(record->filename(), std::nullopt);
    }
  }
}

TEST_F(ProbeTest, NameOrderAndMediaRefusal) {
  struct Case {
    const char* name;
    std::string path;
    Behaviour behaviour;
    std::optional<std::string> error;
    std::optional<std::string> filename;
  } cases[] = {
      {"disposition first", "/d/file.bin",
       {.size = 10, .extraHeaders = {{"Content-Disposition", "attachment; filename=\"report.pdf\""}}}, std::nullopt,
       "report.pdf"},
      {"path next", "/d/notes.txt", {.size = 10}, std::nullopt, "notes.txt"},
      {"script path falls to the MIME type", "/d/get.php", {.size = 10, .mimeType = "application/pdf"},
       std::nullopt, "Unknown.pdf"},
      {"then the suggested name", "/d/get.php", {.size = 10, .mimeType = "x-unknown/none"}, std::nullopt,
       "get.php"},
      {"upper-case media extension refused", "/d/clip.MP4", {.size = 10},
       "Downloading of media content is prohibited", std::nullopt},
      {"media extension in the disposition refused", "/d/x",
       {.size = 10, .extraHeaders = {{"Content-Disposition", "attachment; filename=song.mp3"}}},
       "Downloading of media content is prohibited", std::nullopt},
      {"a media word inside the name is fine", "/d/clip.mp4.txt", {.size = 10}, std::nullopt, "clip.mp4.txt"},
      // The generic binary type gives no name, so the suggested name decides; no extension is never media.
      {"octet-stream without a name", "/download", {.size = 10}, std::nullopt, "download"},
      {"octet-stream from a script", "/download.php", {.size = 10}, std::nullopt, "download.php"},
      {"an empty disposition name falls to the path", "/e/notes.txt",
       {.size = 10, .extraHeaders = {{"Content-Disposition", "attachment; filename="}}}, std::nullopt, "notes.txt"},
      // An error page is a file like any other once its type is permitted.
      {"an error page", "/gone/page", {.body = "<html>not found</html>", .status = 404, .mimeType = "text/html"},
       std::nullopt, "Unknown.html"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path = c.path + "?case=" + std::to_string(&c - cases);
    server_.setRoute(c.path, c.behaviour);
    auto [record, error] = probe(path);
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(record->filename(), c.filename);
    if (c.error) {
      EXPECT_EQ(record->size(), 0) << "a refused record is left unchanged";
    }
  }
}

TEST_F(ProbeTest, CancelAfterTheHeadStillCompletesTheNaming) {
  // A generator that answers only when the test says so.
  struct Deferring : DFPrettyFilenameGenerator {
    Deferring() : DFPrettyFilenameGenerator(nullptr) {}
    void generatePrettyFilenameForURL(const platform::URL&, const std::string& filename,
                                      std::function<void(const std::string&)> completion) override {
      answer = [completion, filename] { completion("Pretty " + filename); };
    }
    std::function<void()> answer;
  };
  auto generator = std::make_shared<Deferring>();
  DFPrettyFilenameGenerator::setSharedInstanceForTesting(generator);
  server_.setRoute("/p/song.txt", {.size = 5000});
  auto record = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(server_.url("/p/song.txt")));
  auto delegate = std::make_shared<ProbeDelegate>();
  auto loader = Loader::initWithDownloadOperation(record, std::nullopt, delegate);
  EXPECT_TRUE(host_.runUntil([&] { return bool(generator->answer); }));
  loader->cancel();
  generator->answer();
  DFPrettyFilenameGenerator::setSharedInstanceForTesting(nullptr);
  EXPECT_EQ(delegate->calls, 1);
  EXPECT_EQ(delegate->result, std::nullopt);
  EXPECT_EQ(record->filename(), "Pretty song.txt");
  EXPECT_EQ(record->size(), 5000);
}

TEST_F(ProbeTest, RedirectChainNamesTheFileAfterTheFinalURL) {
  server_.setRoute("/short", {.redirectTo = "/hop"});
  server_.setRoute("/hop", {.redirectTo = "/files/final.zip", .redirectStatus = 301});
  server_.setRoute("/files/final.zip", {.size = 5000});
  auto [record, error] = probe("/short");
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(record->filename(), "final.zip");
  EXPECT_EQ(record->size(), 5000);
}

TEST_F(ProbeTest, RefusedConnectionReportsThePlatformDescription) {
  int port;
  {
    TestHttpServer gone;
    port = gone.port();
  }
  LogCapture log;
  auto record = DFDownloadOperation::initWithURL(
      *platform::URL::URLWithString("http://127.0.0.1:" + std::to_string(port) + "/x.zip"));
  auto delegate = std::make_shared<ProbeDelegate>();
  auto loader = Loader::initWithDownloadOperation(record, std::nullopt, delegate);
  ASSERT_TRUE(host_.runUntil([&] { return delegate->calls > 0; }));
  EXPECT_EQ(delegate->result, "Could not connect to the server.");
  EXPECT_EQ(log.lines, std::vector<std::string>{"Could not connect to the server."});
}

TEST_F(ProbeTest, CancelOrReleaseBeforeTheHeadMeansNoCall) {
  // The handler holds the server thread, so the head cannot arrive before the cancel.
  server_.setHandler("/slow.zip", [](const RecordedRequest&, int) {
    std::this_thread::sleep_for(300ms);
    return Behaviour{.size = 10};
  });
  auto delegate = std::make_shared<ProbeDelegate>();
  auto record = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(server_.url("/slow.zip")));
  auto cancelled = Loader::initWithDownloadOperation(record, std::nullopt, delegate);
  cancelled->cancel();
  auto released = Loader::initWithDownloadOperation(record, std::nullopt, delegate);
  released.reset();
  host_.loop().runFor(900ms);
  EXPECT_EQ(delegate->calls, 0);
  EXPECT_EQ(record->filename(), std::nullopt);
}

}  // namespace
