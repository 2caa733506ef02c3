#include "shelf/ProgressPrinter.h"

#include <cstdio>

namespace {

std::string mebibytes(int64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1024 * 1024));
  return text;
}

}  // namespace

void ProgressPrinter::update(const std::string& name, int64_t received, int64_t size) {
  if (!terminal_) {
    const int tenth = size > 0 ? static_cast<int>(received * 10 / size) : -1;
    auto [it, fresh] = lastTenth_.emplace(name, tenth);
    if (!fresh && (tenth <= it->second || tenth < 0)) return;
    it->second = tenth;
    if (size > 0) {
      std::fprintf(stderr, "%s: %d%% of %s\n", name.c_str(), tenth * 10, mebibytes(size).c_str());
    } else {
      std::fprintf(stderr, "%s: started\n", name.c_str());
    }
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (barShown_ && now - lastDraw_ < std::chrono::milliseconds(100) && received != size) return;
  lastDraw_ = now;
  constexpr int kWidth = 30;
  std::string bar;
  if (size > 0) {
    const int filled = static_cast<int>(received * kWidth / size);
    bar = "[" + std::string(filled, '#') + std::string(kWidth - filled, ' ') + "] " +
          std::to_string(received * 100 / size) + "%  " + mebibytes(received) + " / " + mebibytes(size);
  } else {
    bar = mebibytes(received);
  }
  std::string shown = name.size() > 40 ? name.substr(0, 37) + "..." : name;
  std::fprintf(stderr, "\r\033[K%s  %s", shown.c_str(), bar.c_str());
  std::fflush(stderr);
  barShown_ = true;
}

void ProgressPrinter::message(const std::string& text) {
  if (barShown_) std::fprintf(stderr, "\r\033[K");
  std::fprintf(stderr, "%s\n", text.c_str());
  barShown_ = false;
}

void ProgressPrinter::finish() {
  if (barShown_) std::fprintf(stderr, "\n");
  barShown_ = false;
}
