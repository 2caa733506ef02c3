// The texts `shelf get` shows about a download, as pure functions of the
// figures: sizes in the units of the web UI ("999 bytes", "35 KB", "1.5 MB"),
// speeds, times left and the summary of a placed file.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

// What is known of one download at a moment.
struct ProgressFigures {
  std::string name;
  int64_t done = 0;
  int64_t total = 0;           // 0: unknown
  double bytesPerSecond = -1;  // negative: not measured yet
};

// "4s", "42s", "4m 05s", "2h 03m"; "--" for a negative, infinite or huge value.
// Whole seconds are rounded up. With `tenths`, durations under ten seconds keep
// one decimal ("4.2s"), under one second two ("0.04s").
std::string durationText(double seconds, bool tenths);
// "850 KB/s"; "--/s" when not measured.
std::string speedText(double bytesPerSecond);
// Seconds until `total` at the given speed; none when unknown or stalled.
std::optional<double> secondsLeft(const ProgressFigures& figures);

// One terminal line, at most `width` columns (the name is shortened to fit):
//   report.pdf  [########            ]  40%  2 MB / 5 MB  1.2 MB/s  3s left
//   stream.bin  2 MB  1.2 MB/s                                  (unknown size)
std::string terminalLine(const ProgressFigures& figures, std::size_t width);
// One line of a log: "report.pdf: 40% of 5 MB, 1.2 MB/s, 3s left" or "stream.bin: 2 MB, 1.2 MB/s".
std::string logLine(const ProgressFigures& figures);
// The end of a placed file: "report.pdf  5 MB in 4.2s, 1.2 MB/s", with
// " (resumed at 2 MB)" when this run began at `resumedAt` > 0. The speed counts
// this run's bytes only.
std::string summaryLine(const std::string& name, int64_t size, double seconds, int64_t resumedAt);

// Shortens UTF-8 `text` to at most `columns` code points, ending in "..." when cut.
std::string fitText(const std::string& text, std::size_t columns);

// The current speed of one download: bytes over the last few seconds. A
// stalled download slows down to 0 as time passes without bytes.
class SpeedMeter {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kWindow{5};

  // A new total at `now`. A total below the last one (the transfer began the
  // chunk again) starts the measurement over.
  void add(Clock::time_point now, int64_t done);
  // Bytes per second over the window; negative until two samples are known.
  double bytesPerSecond(Clock::time_point now) const;

 private:
  struct Sample {
    Clock::time_point time;
    int64_t done;
  };
  std::deque<Sample> samples_;  // oldest first; one before the window is kept as its base
};
