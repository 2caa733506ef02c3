// `shelf get`'s own parts: the texts of its progress, when a log gets a line,
// and lists of addresses.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "shelf/AddressList.h"
#include "shelf/ProgressFormat.h"
#include "shelf/ProgressPrinter.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

TEST(ProgressFormat, Durations) {
  const struct {
    double seconds;
    bool tenths;
    const char* text;
  } cases[] = {
      {0, false, "0s"},
      {0.3, false, "1s"},  // time left rounds up: never "0s" while bytes are missing
      {59.2, false, "1m 00s"},
      {65, false, "1m 05s"},
      {3599.5, false, "1h 00m"},
      {7380, false, "2h 03m"},
      {4.24, true, "4.2s"},
      {0.042, true, "0.04s"},
      {9.97, true, "10s"},
      {42.4, true, "42s"},
      {-1, false, "--"},
      {std::nan(""), true, "--"},
      {360000, false, "--"},
  };
  for (const auto& c : cases) EXPECT_EQ(durationText(c.seconds, c.tenths), c.text) << c.seconds;
}

TEST(ProgressFormat, LinesInTheWebUIsUnits) {
  const ProgressFigures midway{"report.pdf", 2000000, 5000000, 1200000};
  const ProgressFigures unknownSize{"stream.bin", 2500000, 0, 1200000};
  const ProgressFigures unmeasured{"a.zip", 0, 35000, -1};
  const ProgressFigures stalled{"a.zip", 999, 35000, 0};
  const ProgressFigures longName{"a-very-long-name.pdf", 2000000, 5000000, 1200000};
  const ProgressFigures wideName{"\xC3\xBC" "berlange-datei.pdf", 2000000, 5000000, 1200000};  // ü: two bytes
  const ProgressFigures overshoot{"b.bin", 6000, 5000, 1000};

  const struct {
    const char* what;
    ProgressFigures figures;
    std::size_t width;
    const char* terminal;
    const char* log;
  } cases[] = {
      {"midway", midway, 80, "report.pdf  [########            ]  40%  2 MB / 5 MB  1.2 MB/s  3s left",
       "report.pdf: 40% of 5 MB, 1.2 MB/s, 3s left"},
      {"unknown size", unknownSize, 80, "stream.bin  2.5 MB  1.2 MB/s", "stream.bin: 2.5 MB, 1.2 MB/s"},
      {"not measured yet", unmeasured, 80, "a.zip  [                    ]   0%  0 bytes / 35 KB  --/s  -- left",
       "a.zip: 0% of 35 KB, --/s, -- left"},
      {"stalled", stalled, 80, "a.zip  [                    ]   2%  999 bytes / 35 KB  0 bytes/s  -- left",
       "a.zip: 2% of 35 KB, 0 bytes/s, -- left"},
      {"the name gives way", longName, 70, "a-very...  [########            ]  40%  2 MB / 5 MB  1.2 MB/s  3s left",
       "a-very-long-name.pdf: 40% of 5 MB, 1.2 MB/s, 3s left"},
      {"names are cut between characters", wideName, 70,
       "\xC3\xBC" "berla...  [########            ]  40%  2 MB / 5 MB  1.2 MB/s  3s left",
       "\xC3\xBC" "berlange-datei.pdf: 40% of 5 MB, 1.2 MB/s, 3s left"},
      {"a narrow terminal cuts the line", longName, 40, "a-ver...  [########            ]  40%...",
       "a-very-long-name.pdf: 40% of 5 MB, 1.2 MB/s, 3s left"},
      {"more than announced", overshoot, 80, "b.bin  [####################] 100%  6 KB / 5 KB  1 KB/s  0s left",
       "b.bin: 100% of 5 KB, 1 KB/s, 0s left"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(terminalLine(c.figures, c.width), c.terminal);
    EXPECT_EQ(logLine(c.figures), c.log);
  }
}

TEST(ProgressFormat, Summaries) {
  const struct {
    const char* name;
    int64_t size;
    double seconds;
    int64_t resumedAt;
    const char* line;
  } cases[] = {
      {"report.pdf", 5000000, 4.2, 0, "report.pdf  5 MB in 4.2s, 1.2 MB/s"},
      {"report.pdf", 5000000, 2.0, 2000000, "report.pdf  5 MB in 2.0s, 1.5 MB/s (resumed at 2 MB)"},
      {"tiny.txt", 35000, 0, 0, "tiny.txt  35 KB in 0.00s"},
      {"tiny.txt", 35000, 0.04, 0, "tiny.txt  35 KB in 0.04s, 875 KB/s"},
      {"big.bin", 1500000000, 125, 0, "big.bin  1.5 GB in 2m 05s, 12 MB/s"},
  };
  for (const auto& c : cases) EXPECT_EQ(summaryLine(c.name, c.size, c.seconds, c.resumedAt), c.line);
}

TEST(SpeedMeter, MeasuresTheLastSecondsAndSlowsDownWhenNothingArrives) {
  using Clock = SpeedMeter::Clock;
  const Clock::time_point t0{};
  const struct {
    const char* what;
    std::vector<std::pair<int, int64_t>> samples;  // milliseconds, bytes done
    int at;                                        // milliseconds
    double speed;
  } cases[] = {
      {"one sample says nothing", {{0, 0}}, 1000, -1},
      {"steady", {{0, 0}, {1000, 1000000}}, 1000, 1000000},
      {"a stall slows it down", {{0, 0}, {1000, 1000000}}, 2000, 500000},
      {"a fast start leaves the window",
       {{0, 0}, {1000, 10000000}, {2000, 11000000}, {3000, 12000000}, {4000, 13000000}, {5000, 14000000},
        {6000, 15000000}, {7000, 16000000}, {8000, 17000000}},
       8000, 1000000},
      {"bytes dropped (the chunk began again) start over", {{0, 0}, {1000, 1000000}, {2000, 500000}}, 2000, -1},
      {"resumed: only this run's bytes count", {{0, 2000000}, {2000, 3000000}}, 2000, 500000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    SpeedMeter meter;
    for (const auto& [ms, done] : c.samples) meter.add(t0 + std::chrono::milliseconds(ms), done);
    EXPECT_DOUBLE_EQ(meter.bytesPerSecond(t0 + std::chrono::milliseconds(c.at)), c.speed);
  }
}

// What a printer wrote to its two streams.
struct Captured {
  ~Captured() {
    std::fclose(err);
    std::fclose(out);
  }
  static std::vector<std::string> lines(std::FILE* stream) {
    std::rewind(stream);
    std::vector<std::string> lines;
    for (char line[4096]; std::fgets(line, sizeof line, stream);) lines.emplace_back(line, std::strcspn(line, "\n"));
    return lines;
  }
  static std::string text(std::FILE* stream) {
    std::string text;
    for (const auto& line : lines(stream)) text += line + "\n";
    return text;
  }
  std::FILE* err = std::tmpfile();
  std::FILE* out = std::tmpfile();
};

// A log gets a line when a download has moved on by a tenth and 5 seconds
// have passed, whichever comes later; a download of unknown size every 5 seconds.
TEST(ProgressPrinter, LogLinesComeAtTheRarerOfATenthAndFiveSeconds) {
  const struct {
    const char* what;
    int64_t total;
    int64_t startAt;
    std::vector<std::pair<double, int64_t>> progress;  // seconds, bytes done
    std::vector<std::string> prefixes;                 // of the lines written
  } cases[] = {
      {"fast: every 5 seconds at most", 10000000, 0,
       {{1, 5000000}, {6, 5500000}, {7, 9000000}, {12, 9500000}, {20, 9600000}},
       {"a.bin: 10 MB", "a.bin: 55% of 10 MB", "a.bin: 95% of 10 MB"}},
      {"slow: every tenth", 10000000, 0, {{5, 200000}, {20, 1000000}, {25, 1200000}, {40, 2000000}},
       {"a.bin: 10 MB", "a.bin: 10% of 10 MB", "a.bin: 20% of 10 MB"}},
      {"unknown size: every 5 seconds", 0, 0, {{1, 100}, {5, 5000}, {7, 7000}, {10.5, 10000}},
       {"a.bin: size unknown", "a.bin: 5 KB", "a.bin: 10 KB"}},
      {"resumed: the next tenth counts from where it began", 10000000, 2000000, {{6, 2500000}, {7, 3000000}},
       {"a.bin: resuming at 2 MB of 10 MB", "a.bin: 30% of 10 MB"}},
  };
  const ProgressPrinter::Clock::time_point t0{};
  auto at = [&](double seconds) { return t0 + std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds)); };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Captured captured;
    {
      ProgressPrinter printer(ProgressPrinter::Mode::Log, captured.err, captured.out);
      printer.started("id", "a.bin", c.startAt, c.total, t0);
      for (const auto& [seconds, done] : c.progress) printer.progressed("id", done, c.total, at(seconds));
    }
    const auto lines = captured.lines(captured.err);
    ASSERT_EQ(lines.size(), c.prefixes.size()) << ::testing::PrintToString(lines);
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_TRUE(lines[i].starts_with(c.prefixes[i])) << lines[i];
    EXPECT_TRUE(captured.text(captured.out).empty());
  }
}

TEST(ProgressPrinter, PlacedFilesGoToStandardOutputInEveryMode) {
  const ProgressPrinter::Clock::time_point t0{};
  for (auto mode : {ProgressPrinter::Mode::Terminal, ProgressPrinter::Mode::Log, ProgressPrinter::Mode::Quiet}) {
    Captured captured;
    {
      ProgressPrinter printer(mode, captured.err, captured.out);
      printer.started("id", "a.bin", 0, 3000000, t0);
      printer.progressed("id", 3000000, 3000000, t0 + 1s);
      printer.redraw(t0 + 1s);
      printer.note("shelf: a.bin: Failed; retrying");
      printer.placed("id", "/out/a(1).bin", 3000000, t0 + 2s);
      printer.placed("", "/out/earlier.bin", 0, t0 + 2s);  // placed before this run
      printer.error("shelf: b.bin: refused");
    }
    EXPECT_EQ(captured.lines(captured.out), (std::vector<std::string>{"/out/a(1).bin", "/out/earlier.bin"}));
    const std::string err = captured.text(captured.err);
    const bool quiet = mode == ProgressPrinter::Mode::Quiet;
    EXPECT_EQ(err.find("a(1).bin  3 MB in 2.0s, 1.5 MB/s") != std::string::npos, !quiet) << err;
    EXPECT_EQ(err.find("retrying") != std::string::npos, !quiet) << err;
    EXPECT_NE(err.find("shelf: b.bin: refused"), std::string::npos) << err;
    EXPECT_EQ(err.find("\033[") != std::string::npos, mode == ProgressPrinter::Mode::Terminal) << err;
  }
}

TEST(AddressList, SkipsBlankLinesAndCommentsAndKeepsLineNumbers) {
  const struct {
    const char* what;
    std::string text;
    std::vector<std::pair<std::string, int>> addresses;
  } cases[] = {
      {"mixed",
       "http://a/1\n\n  # comment\n\thttp://b/2  \r\n#x\nnot a url\nhttp://c/3",
       {{"http://a/1", 1}, {"http://b/2", 4}, {"not a url", 6}, {"http://c/3", 7}}},
      {"empty", "", {}},
      {"only blanks and comments", "\n \r\n# one\n   #two\n", {}},
      {"a '#' inside a line belongs to it", "http://a/page#part\n", {{"http://a/page#part", 1}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::pair<std::string, int>> got;
    for (const auto& entry : parseAddressList(c.text)) got.emplace_back(entry.text, entry.line);
    EXPECT_EQ(got, c.addresses);
  }
}

// A missing list is refused through the command, in ShelfGet.InputAndRefusals.
TEST(AddressList, RefusesAListLargerThanTheLimit) {
  const std::string list = makeTemporaryDirectory() + "/list.txt";
  std::ofstream(list) << "http://a/1\nhttp://b/2\n";
  std::vector<ListedAddress> addresses;
  std::string error;
  EXPECT_FALSE(readAddressList(list, &addresses, &error, 10));
  EXPECT_NE(error.find("is larger than"), std::string::npos) << error;
  EXPECT_TRUE(readAddressList(list, &addresses, &error, 22));
  EXPECT_EQ(addresses.size(), 2u);
  fs::remove_all(fs::path(list).parent_path());
}

}  // namespace
