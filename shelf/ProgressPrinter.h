// Download progress on the terminal: a bar redrawn in place on a TTY, plain
// lines (at most one per tenth of a file) otherwise.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

class ProgressPrinter {
 public:
  explicit ProgressPrinter(bool terminal) : terminal_(terminal) {}
  void update(const std::string& name, int64_t received, int64_t size);
  // A line of its own, above the bar.
  void message(const std::string& text);
  // Ends the bar's line.
  void finish();

 private:
  const bool terminal_;
  bool barShown_ = false;
  std::chrono::steady_clock::time_point lastDraw_{};
  std::map<std::string, int> lastTenth_;
};
