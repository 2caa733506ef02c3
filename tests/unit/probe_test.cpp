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

  // Probes the URL (a path on the test server unless absolute) and checks the one report came on the main thread.
  Outcome probe(const std::string& url, std::optional<Loader::MIMETypes> permitted = std::nullopt) {
    auto record = DFDownloadOperation::initWithURL(
        *platform::URL::URLWithString(url.starts_with("http") ? url : server_.url(url)));
    auto delegate = std::make_shared<ProbeDelegate>();
    auto loader = Loader::initWithDownloadOperation(record, permitted, delegate);
    EXPECT_TRUE(host_.runUntil([&] { return delegate->calls > 0; }));
    host_.loop().runFor(50ms);
    EXPECT_EQ(delegate->calls, 1);
    EXPECT_TRUE(delegate->onMain);
    return {record, delegate->result};
  }

  TestHost host_;
  TestHttpServer server_;
};

// One probe per case. Which Content-Range values give a size and what each source of a name gives is
// FilenameRules.*; here, the one-byte request, the order of the sources, the refusals and what reaches the record.
TEST_F(ProbeTest, SizeNameAndRefusalsFromTheAnswerWithoutReadingTheBody) {
  const std::string media = "Downloading of media content is prohibited", invalid = "Invalid mime-type";
  const auto disposition = [](const char* value) {
    return std::vector<std::pair<std::string, std::string>>{{"Content-Disposition", value}};
  };
  const struct {
    const char* name;
    std::string path;
    Behaviour behaviour;
    std::optional<std::string> filename;  // none: refused with `error`
    int64_t size = 0;
    std::optional<std::string> error = std::nullopt;
    std::optional<Loader::MIMETypes> permitted = std::nullopt;
  } cases[] = {
      {"206 bytes 1-1/5000", "/a.zip", {.size = 5000}, "a.zip", 5000},
      {"one-byte file served whole", "/b.zip", {.size = 1, .honourRange = false}, "b.zip"},
      {"a Content-Range counts only on a one-byte body", "/e.zip", {.size = 5000, .bodyDelta = 5}, "e.zip"},
      // The server pushes what the socket buffers take, never the whole body.
      {"range ignored", "/c.zip", {.size = 64 << 20, .honourRange = false}, "c.zip"},
      {"a redirect chain: named after the final URL", "/short", {.redirectTo = "/hop"}, "final.zip", 5000},
      {"disposition first", "/d/file.bin", {.size = 10, .extraHeaders = disposition("attachment; filename=r.pdf")},
       "r.pdf", 10},
      {"path before the MIME type", "/d/notes.txt", {.size = 10, .mimeType = "application/pdf"}, "notes.txt", 10},
      {"script path falls to the MIME type", "/d/get.php", {.size = 10, .mimeType = "application/pdf"},
       "Unknown.pdf", 10},
      {"then the suggested name", "/d/get.php", {.size = 10, .mimeType = "x-unknown/none"}, "get.php", 10},
      {"upper-case media extension refused", "/d/clip.MP4", {.size = 10}, std::nullopt, 0, media},
      {"media extension in the disposition refused", "/d/x",
       {.size = 10, .extraHeaders = disposition("attachment; filename=song.mp3")}, std::nullopt, 0, media},
      {"a media word inside the name is fine", "/d/clip.mp4.txt", {.size = 10}, "clip.mp4.txt", 10},
      // An error page is a file like any other once its type is permitted.
      {"an error page", "/gone/page", {.body = "<html>gone</html>", .status = 404, .mimeType = "text/html"},
       "Unknown.html", 17},
      {"missing type refused", "/t/page.html", {.size = 100, .mimeType = ""}, std::nullopt, 0, invalid,
       Loader::MIMETypes{"text/html"}},
      {"different case refused", "/t/page.html", {.size = 100, .mimeType = "text/HTML"}, std::nullopt, 0, invalid,
       Loader::MIMETypes{"text/html"}},
      {"exact type accepted", "/t/page.html", {.size = 100, .mimeType = "text/html"}, "page.html", 100,
       std::nullopt, Loader::MIMETypes{"text/html", "application/pdf"}},
      {"no prefix matching", "/t/page.html", {.size = 100, .mimeType = "text/html"}, std::nullopt, 0, invalid,
       Loader::MIMETypes{"text/"}},
      {"an empty set accepts anything", "/t/page.html", {.size = 100, .mimeType = ""}, "page.html", 100,
       std::nullopt, Loader::MIMETypes{}},
  };
  server_.setRoute("/hop", {.redirectTo = "/files/final.zip", .redirectStatus = 301});
  server_.setRoute("/files/final.zip", {.size = 5000});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    const size_t mark = server_.requests(c.path).size();
    server_.setRoute(c.path, c.behaviour);
    auto [record, error] = probe(c.path, c.permitted);
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(server_.requests(c.path).at(mark).header("Range"), "bytes=1-1");
    EXPECT_EQ(record->filename(), c.filename);
    EXPECT_EQ(record->outputFilename(), c.filename);
    EXPECT_EQ(record->size(), c.size) << "a refused record is left unchanged";
    EXPECT_EQ(record->partialDownloading(), c.size != 0);
    if (c.error == invalid) {
      EXPECT_EQ(log.lines, std::vector<std::string>{invalid + ":" + c.behaviour.mimeType});
    }
    host_.loop().runFor(200ms);
    EXPECT_LT(server_.bodyBytesSent(c.path), 8 << 20);
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

TEST_F(ProbeTest, RefusedConnectionReportsThePlatformDescription) {
  std::string gone;
  {
    TestHttpServer closed;
    gone = closed.url("/x.zip");
  }
  LogCapture log;
  EXPECT_EQ(probe(gone).error, "Could not connect to the server.");
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
