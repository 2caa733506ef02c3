// What `shelf get` prints while it runs. On a terminal: one line per running
// download (name, bar, percent, done and total, speed, time left), redrawn in
// place, with messages and summaries scrolling above. In a log (not a
// terminal): a line per download when it has moved on by a tenth and 5 seconds
// have passed since its last line, whichever comes later. Quiet: only errors.
// Every mode prints placed files' paths on `out`, one a line.
// REQUIRES: one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "shelf/ProgressFormat.h"

class ProgressPrinter {
 public:
  enum class Mode { Terminal, Log, Quiet };
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kLogInterval{5};
  static constexpr int kLogStep = 10;  // percent

  ProgressPrinter(Mode mode, std::FILE* err, std::FILE* out) : mode_(mode), err_(err), out_(out) {}
  ~ProgressPrinter() { finish(); }
  ProgressPrinter(const ProgressPrinter&) = delete;
  ProgressPrinter& operator=(const ProgressPrinter&) = delete;

  // A transfer of download `id` began (again) at `done` bytes.
  void started(const std::string& id, const std::string& name, int64_t done, int64_t total, Clock::time_point now);
  void progressed(const std::string& id, int64_t done, int64_t total, Clock::time_point now);
  // The transfer ended without its file; its terminal line goes.
  void stopped(const std::string& id);
  // Download `id` is placed at `path`: its summary, then the path. An `id`
  // never seen (a file placed before this run) prints the path alone.
  void placed(const std::string& id, const std::string& path, int64_t size, Clock::time_point now);

  void error(const std::string& text);  // in every mode
  void note(const std::string& text);   // not when quiet
  // Terminal: draws the running downloads' lines anew.
  void redraw(Clock::time_point now);
  // Terminal: draws the lines a last time and leaves them; nothing is drawn after.
  void finish();

 private:
  struct Download {
    std::string id;
    std::string name;
    int64_t done = 0;
    int64_t total = 0;
    SpeedMeter meter;
    Clock::time_point firstStart;
    int64_t resumedAt = 0;
    bool running = false;
    Clock::time_point lastLog;
    int lastLogTenth = -1;
  };
  Download* find(const std::string& id);
  ProgressFigures figuresOf(const Download& download, Clock::time_point now) const;
  void logIfDue(Download& download, Clock::time_point now);
  // Terminal: puts a line above the running downloads' lines.
  void above(std::FILE* stream, const std::string& line);
  void clearBlock();
  std::size_t width() const;

  const Mode mode_;
  std::FILE* const err_;
  std::FILE* const out_;
  std::vector<Download> downloads_;  // in order of first start
  std::size_t drawn_ = 0;            // terminal lines of the block on screen now
  Clock::time_point lastDraw_{};
  bool finished_ = false;
};
