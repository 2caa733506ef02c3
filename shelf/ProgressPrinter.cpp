#include "shelf/ProgressPrinter.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "module/platform/ui/Formatting.h"

namespace {

constexpr std::size_t kDefaultWidth = 80;

}  // namespace

ProgressPrinter::Download* ProgressPrinter::find(const std::string& id) {
  auto it = std::find_if(downloads_.begin(), downloads_.end(), [&](const Download& d) { return d.id == id; });
  return it == downloads_.end() ? nullptr : &*it;
}

ProgressFigures ProgressPrinter::figuresOf(const Download& download, Clock::time_point now) const {
  return {download.name, download.done, download.total, download.meter.bytesPerSecond(now)};
}

void ProgressPrinter::started(const std::string& id, const std::string& name, int64_t done, int64_t total,
                              Clock::time_point now) {
  Download* download = find(id);
  const bool first = download == nullptr;
  if (first) {
    download = &downloads_.emplace_back();
    download->id = id;
    download->firstStart = now;
    download->resumedAt = done;
  }
  download->name = name;
  download->done = done;
  download->total = total;
  download->running = true;
  download->meter = SpeedMeter();
  download->meter.add(now, done);
  if (mode_ != Mode::Log || !first) return;
  download->lastLog = now;
  download->lastLogTenth = total > 0 ? static_cast<int>(done * 10 / total) : 0;
  std::string line = name + ": ";
  if (done > 0) line += "resuming at " + platform::fileSizeString(done) + " of ";
  line += total > 0 ? platform::fileSizeString(total) : "size unknown";
  std::fprintf(err_, "%s\n", line.c_str());
  std::fflush(err_);
}

void ProgressPrinter::progressed(const std::string& id, int64_t done, int64_t total, Clock::time_point now) {
  Download* download = find(id);
  if (!download) return;
  download->done = done;
  download->total = total;
  download->meter.add(now, done);
  if (mode_ == Mode::Log) logIfDue(*download, now);
}

void ProgressPrinter::logIfDue(Download& download, Clock::time_point now) {
  if (now - download.lastLog < kLogInterval) return;
  const int tenth = download.total > 0 ? static_cast<int>(std::min<int64_t>(download.done, download.total) * 10 / download.total) : 0;
  if (download.total > 0 && tenth <= download.lastLogTenth) return;
  download.lastLog = now;
  download.lastLogTenth = tenth;
  std::fprintf(err_, "%s\n", logLine(figuresOf(download, now)).c_str());
  std::fflush(err_);
}

void ProgressPrinter::stopped(const std::string& id) {
  if (Download* download = find(id)) download->running = false;
}

void ProgressPrinter::placed(const std::string& id, const std::string& path, int64_t size, Clock::time_point now) {
  auto it = std::find_if(downloads_.begin(), downloads_.end(), [&](const Download& d) { return d.id == id; });
  if (it != downloads_.end()) {
    const Download download = std::move(*it);
    downloads_.erase(it);  // its line goes with the summary
    if (mode_ != Mode::Quiet) {
      const double seconds = std::chrono::duration<double>(now - download.firstStart).count();
      const auto slash = path.rfind('/');
      above(err_, summaryLine(slash == std::string::npos ? path : path.substr(slash + 1), size, seconds,
                              download.resumedAt));
    }
  }
  above(out_, path);
}

void ProgressPrinter::error(const std::string& text) { above(err_, text); }

void ProgressPrinter::note(const std::string& text) {
  if (mode_ != Mode::Quiet) above(err_, text);
}

void ProgressPrinter::above(std::FILE* stream, const std::string& line) {
  clearBlock();
  std::fprintf(stream, "%s\n", line.c_str());
  std::fflush(stream);
  if (mode_ == Mode::Terminal) redraw(lastDraw_);
}

void ProgressPrinter::clearBlock() {
  if (drawn_ == 0) return;
  // Back to the first line of the block, then everything below goes.
  std::fprintf(err_, "\r\033[%zuA\033[J", drawn_);
  std::fflush(err_);
  drawn_ = 0;
}

std::size_t ProgressPrinter::width() const {
  winsize size{};
  if (::ioctl(::fileno(err_), TIOCGWINSZ, &size) == 0 && size.ws_col > 1) return size.ws_col - 1;
  return kDefaultWidth - 1;
}

void ProgressPrinter::redraw(Clock::time_point now) {
  if (mode_ != Mode::Terminal || finished_) return;
  lastDraw_ = now;
  clearBlock();
  const std::size_t columns = width();
  for (const Download& download : downloads_) {
    if (!download.running) continue;
    std::fprintf(err_, "%s\n", terminalLine(figuresOf(download, now), columns).c_str());
    ++drawn_;
  }
  std::fflush(err_);
}

void ProgressPrinter::finish() {
  if (finished_) return;
  redraw(Clock::now());
  drawn_ = 0;  // what was running when the run ended stays on the screen
  finished_ = true;
}
