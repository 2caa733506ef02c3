#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

#include "module/naming/DFPrettyFilenameGenerator.h"
#include "module/platform/MainQueue.h"
#include "module/platform/MediaLibraryProbe.h"
#include "module/transfer/DFDownloadOperationPlayListDataLoader.h"
#include "tests/support/Files.h"
#include "tests/support/LoaderProbe.h"
#include "tests/support/TestHost.h"
#include "tests/support/TestHttpServer.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using PlayListLoader = DFDownloadOperationPlayListDataLoader;

namespace {

std::string run(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  while (size_t n = fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
  pclose(pipe);
  return out;
}

// One line per stream of `file`, in stream order, with ffprobe's `entries`.
std::vector<std::string> streamsOf(const std::string& file, const std::string& entries) {
  std::istringstream out(
      run("ffprobe -v error -count_packets -show_entries stream=" + entries + " -of csv=p=0 '" + file + "'"));
  std::vector<std::string> streams;
  for (std::string line; std::getline(out, line);)
    if (!line.empty()) streams.push_back(line);
  return streams;
}

std::vector<std::string> packetCounts(const std::string& file) { return streamsOf(file, "codec_type,nb_read_packets"); }

class MediaTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fixtures_ = makeTemporaryDirectory();
    ASSERT_EQ(std::system((SHELF_SOURCE_DIR "/tests/media/make_fixtures.sh " + fixtures_).c_str()), 0);
  }
  static void TearDownTestSuite() { fs::remove_all(fixtures_); }
  void SetUp() override {
    for (auto& entry : fs::recursive_directory_iterator(fixtures_)) {
      if (!entry.is_regular_file()) continue;
      std::string path = "/" + fs::relative(entry.path(), fixtures_).string();
      std::string type = entry.path().extension() == ".m3u8" ? "application/vnd.apple.mpegurl" : "video/mp2t";
      server_.setRoute(path, {.body = readFile(entry.path()), .mimeType = type});
    }
  }
  void TearDown() override { platform::MediaLibraryProbe::setEnabled(true); }

  std::shared_ptr<DFDownloadOperation> record(const std::string& path, const char* filename) {
    auto r = DFDownloadOperation::initWithURL(*platform::URL::URLWithString(server_.url(path)));
    r->setFilename(filename);
    return r;
  }
  std::string tmpPath(const std::shared_ptr<DFDownloadOperation>& r) {
    return host_.layout().library + "/" + r->uniqueId();
  }
  std::shared_ptr<DFDownloadOperationDataLoader> start(const std::shared_ptr<DFDownloadOperation>& r) {
    return PlayListLoader::createPlayListDataLoaderWithDownloadOperation(r, tmpPath(r), probe_);
  }
  bool finish() { return host_.runUntil([&] { return probe_->completions > 0; }, 60s); }
  // A fresh probe and loader for the record, run until the loader reports its end.
  bool load(const std::shared_ptr<DFDownloadOperation>& r) {
    probe_ = std::make_shared<LoaderProbe>();
    auto loader = start(r);
    return finish();
  }

  static inline std::string fixtures_;
  TestHost host_;
  TestHttpServer server_;
  std::shared_ptr<LoaderProbe> probe_ = std::make_shared<LoaderProbe>();
};

// Segment 4 of the narrow variant loses its connection once: the one retry
// brings it whole (the retry rules are in PlaylistFetchTest.OneRetryForTheBytesStillMissing).
TEST_F(MediaTest, RemuxesTheNarrowestVariantLikeTheCommandLine) {
  const std::string dropped = "/hls/v1_seg004.ts";
  server_.setHandler(dropped, [body = readFile(fixtures_ + dropped)](const RecordedRequest&, int index) {
    Behaviour b{.body = body, .mimeType = "video/mp2t"};
    if (index == 0) b.dropAfterBytes = 3000;
    return b;
  });
  auto r = record("/hls/master.m3u8", "master.m3u8");
  r->setSize(12345);
  auto loader = start(r);
  ASSERT_TRUE(loader);
  EXPECT_EQ(r->outputFilename(), "master.mov");
  EXPECT_EQ(r->size(), 0);
  EXPECT_EQ(probe_->updates, 1) << "construction reports once";
  ASSERT_TRUE(finish());
  EXPECT_EQ(probe_->lastError, std::nullopt);
  EXPECT_EQ(probe_->offMain, 0);
  EXPECT_EQ(streamsOf(tmpPath(r), "codec_type,width"), (std::vector<std::string>{"video,640", "audio"}));

  const auto size = static_cast<int64_t>(fs::file_size(tmpPath(r)));
  EXPECT_EQ(r->position(), size);
  EXPECT_EQ(r->size(), size);
  EXPECT_EQ(r->actualPosition(), size);
  EXPECT_TRUE(std::is_sorted(probe_->positions.begin(), probe_->positions.end()));
  EXPECT_GT(probe_->updates, 100) << "one report per written packet";

  // Segment requests of a variant (v0: wide, v1: narrow) since `from`.
  auto segments = [&](const std::string& variant, size_t from) {
    const auto requests = server_.requests();
    return std::count_if(requests.begin() + static_cast<std::ptrdiff_t>(from), requests.end(),
                         [&](const RecordedRequest& q) { return q.target.starts_with("/hls/" + variant + "_seg"); });
  };
  const auto wide = segments("v0", 0);
  EXPECT_EQ(segments("v1", 0), 11) << "ten and the one retry";
  EXPECT_EQ(server_.requests(dropped).size(), 2u);

  // The same remux by the ffmpeg command line, from the same server.
  const size_t mark = server_.requests().size();
  const std::string reference = host_.layout().library + "/reference.mov";
  run("ffmpeg -v error -nostdin -y -i '" + server_.url("/hls/master.m3u8") + "' -map 0:p:1 -c copy '" + reference +
      "'");
  const auto expected = packetCounts(reference);
  ASSERT_EQ(expected.size(), 2u);
  EXPECT_EQ(packetCounts(tmpPath(r)), expected);
  // Probing reads the start of every variant; after the choice the wide one is no longer fetched.
  const auto referenceWide = segments("v0", mark);
  EXPECT_LE(wide, referenceWide);
  EXPECT_LE(wide, 2);
  std::printf("wide-variant segments fetched: loader %td, ffmpeg %td (of 10)\n", wide, referenceWide);
}

TEST_F(MediaTest, StreamChoiceWithoutProgramsAndFailures) {
  const std::string plain = readFile(fixtures_ + "/plain.ts");
  server_.setRoute("/cut.ts", {.body = plain, .dropAfterBytes = static_cast<int64_t>(plain.size()) - 3000});
  server_.setRoute("/text.m3u8", {.body = "hello, this is not a playlist", .mimeType = "text/plain"});
  const struct {
    const char* path;
    const char* filename;
    const char* outputFilename;
    std::vector<std::string> streams;  // codec type, height, bit rate class of each stream; none: "Failed"
  } cases[] = {
      {"/audio_pair.mp4", "x.m3u8", "x.mov", {"audio,low"}},           // the lower audio bit rate
      {"/cover_art.mp3", "x.m3u8", "x.mov", {"audio,low"}},            // the attached picture is never the video
      {"/equal_width.mkv", "x.m3u8", "x.mov", {"video,240"}},          // equal widths keep the earlier stream
      {"/plain.ts", "x.m3u8", "x.mov", {"video,360", "audio,low"}},    // video first, then audio
      {"/cut.ts", "cut.m3u8", "cut.mov", {"video,360", "audio,low"}},  // lost near the end: the trailer is written
      {"/nothing.m3u8", "stream", "stream.mov", {}},                   // missing; a name without an extension
      {"/text.m3u8", "x.m3u8", "x.mov", {}},                           // not media at all
      {"/file_segment/evil.m3u8", "x.m3u8", "x.mov", {}},              // a segment on the local disk
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    auto r = record(c.path, c.filename);
    ASSERT_TRUE(load(r));
    EXPECT_EQ(r->outputFilename(), c.outputFilename);
    if (c.streams.empty()) {
      EXPECT_EQ(probe_->lastError, "Failed");
      EXPECT_EQ(r->position(), 0);
      continue;
    }
    EXPECT_EQ(probe_->lastError, std::nullopt);
    std::vector<std::string> streams;
    for (const std::string& line : streamsOf(tmpPath(r), "codec_type,height,bit_rate")) {
      // "video,240,N/A" keeps its height, "audio,,64318" its bit rate class.
      if (line.starts_with("video")) streams.push_back(line.substr(0, line.rfind(',')));
      else streams.push_back(std::atol(line.substr(line.rfind(',') + 1).c_str()) < 100000 ? "audio,low" : "audio,high");
    }
    EXPECT_EQ(streams, c.streams);
  }
}

TEST_F(MediaTest, ASegmentThatFailsTwiceFailsTheRemux) {
  server_.setRoute("/hls/v1_seg004.ts", {.status = 500});
  auto r = record("/hls/master.m3u8", "master.m3u8");
  ASSERT_TRUE(load(r));
  EXPECT_EQ(probe_->lastError, "Failed");
  EXPECT_EQ(r->position(), 0);
  EXPECT_EQ(server_.requests("/hls/v1_seg004.ts").size(), 2u) << "the request and its one retry";
}

TEST_F(MediaTest, CancelWithPrefetchesInFlightReturnsPromptlyAndReportsNothing) {
  // The demuxer waits on segment 5 while the ones after it are on their way.
  const std::string body = readFile(fixtures_ + "/hls/v1_seg005.ts");
  server_.setRoute("/hls/v1_seg005.ts", {.body = body, .stallAtByte = 2000});
  auto r = record("/hls/master.m3u8", "master.m3u8");
  auto loader = start(r);
  ASSERT_TRUE(host_.runUntil([&] { return !server_.requests("/hls/v1_seg007.ts").empty(); }, 30s));
  host_.loop().runFor(300ms);
  const int updates = probe_->updates;
  auto before = std::chrono::steady_clock::now();
  loader->cancel();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  host_.loop().runFor(300ms);
  EXPECT_EQ(probe_->updates, updates);
  EXPECT_EQ(probe_->completions, 0);
}

TEST_F(MediaTest, WithoutTheMediaLibraryThereIsNoLoaderAndNoGenerator) {
  platform::MediaLibraryProbe::setEnabled(false);
  auto r = record("/hls/master.m3u8", "master.m3u8");
  EXPECT_EQ(PlayListLoader::createPlayListDataLoaderWithDownloadOperation(r, tmpPath(r), probe_), nullptr);
  EXPECT_EQ(DFPrettyFilenameGenerator::sharedInstance(), nullptr);
  EXPECT_EQ(r->outputFilename(), std::nullopt) << "no record field changes";
  EXPECT_EQ(probe_->updates, 0);
}

// The tags as the real reader finds them; the naming rules over them are in
// PrettyFilenameGenerator.RulesOverTheTagsRead.
TEST_F(MediaTest, NamesFromTags) {
  auto generator = DFPrettyFilenameGenerator::sharedInstance();
  ASSERT_TRUE(generator);
  struct Case {
    const char* file;
    const char* given;
    const char* expected;
  } cases[] = {
      {"/tags_title_artist.mp3", "track.MP3", "Band - Song.mp3"},
      {"/tags_title_only.mp3", "track.mp3", "Song.mp3"},
      {"/tags_empty_title.mp3", "track.mp3", "track.mp3"},  // an empty title frame reads as none
      {"/missing.mp3", "gone.mp3", "gone.mp3"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    std::optional<std::string> name;
    bool onMain = false;
    generator->generatePrettyFilenameForURL(*platform::URL::URLWithString(server_.url(c.file)), c.given,
                                            [&](const std::string& n) {
                                              name = n;
                                              onMain = platform::isMainThread();
                                            });
    EXPECT_FALSE(name) << "delivered later, on the main queue";
    ASSERT_TRUE(host_.runUntil([&] { return name.has_value(); }));
    EXPECT_EQ(*name, c.expected);
    EXPECT_TRUE(onMain);
  }
}

TEST(PrettyFilenameGenerator, RulesOverTheTagsRead) {
  TestHost host;
  const struct {
    const char* name;
    std::optional<DFAudioTags> tags;
    const char* given;
    const char* expected;
    bool read;  // false: a name outside the audio set, answered at once without reading anything
  } cases[] = {
      {"empty artist", DFAudioTags{"Song", ""}, "t.mp3", "Song.mp3", true},
      {"empty title", DFAudioTags{"", "Band"}, "t.mp3", "t.mp3", true},
      {"title not UTF-8", DFAudioTags{"\xff\xfe", "Band"}, "t.mp3", "t.mp3", true},
      {"artist not UTF-8", DFAudioTags{"Song", "\xff"}, "t.mp3", "Song.mp3", true},
      {"a slash stays", DFAudioTags{"A/B", "C"}, "t.ogg", "C - A/B.ogg", true},
      {"cannot open", std::nullopt, "t.wav", "t.wav", true},
      {"video", DFAudioTags{"Song", "Band"}, "movie.mp4", "movie.mp4", false},
      {"no extension", DFAudioTags{"Song", "Band"}, "noextension", "noextension", false},
      {"audio book", DFAudioTags{"Song", "Band"}, "m4b.m4b", "m4b.m4b", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    int reads = 0;
    DFPrettyFilenameGenerator generator([&](const std::string&) {
      ++reads;
      return c.tags;
    });
    std::optional<std::string> name;
    generator.generatePrettyFilenameForURL(*platform::URL::URLWithString("http://h.test/x"), c.given,
                                           [&](const std::string& n) { name = n; });
    EXPECT_EQ(name.has_value(), !c.read);
    ASSERT_TRUE(host.runUntil([&] { return name.has_value(); }));
    EXPECT_EQ(*name, c.expected);
    EXPECT_EQ(reads, c.read ? 1 : 0);
  }
}

}  // namespace
