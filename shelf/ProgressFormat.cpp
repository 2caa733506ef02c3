#include "shelf/ProgressFormat.h"

#include <cmath>
#include <cstdio>

#include "module/platform/ui/Formatting.h"

namespace {

constexpr std::size_t kBarWidth = 20;
constexpr std::size_t kShortestName = 8;
constexpr double kLongestDuration = 100 * 3600;  // past this a time says nothing
constexpr auto kSampleSpacing = std::chrono::milliseconds(100);
constexpr std::size_t kMaxSamples = 128;

std::string printed(const char* format, auto... values) {
  char text[64];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

int percentOf(const ProgressFigures& figures) {
  if (figures.total <= 0) return 0;
  const double share = static_cast<double>(std::max<int64_t>(0, figures.done)) / static_cast<double>(figures.total);
  return static_cast<int>(std::min(100.0, std::floor(share * 100)));
}

std::string timeLeftText(const ProgressFigures& figures) {
  auto left = secondsLeft(figures);
  return left ? durationText(*left, false) + " left" : "-- left";
}

// The part of a terminal line after the name.
std::string figuresText(const ProgressFigures& figures) {
  if (figures.total <= 0)
    return platform::fileSizeString(figures.done) + "  " + speedText(figures.bytesPerSecond);
  const int percent = percentOf(figures);
  const std::size_t filled = static_cast<std::size_t>(percent) * kBarWidth / 100;
  std::string text = "[";
  text.append(filled, '#').append(kBarWidth - filled, ' ').append("] ");
  text += printed("%3d%%", percent);
  text += "  " + platform::fileSizeString(figures.done) + " / " + platform::fileSizeString(figures.total);
  text += "  " + speedText(figures.bytesPerSecond) + "  " + timeLeftText(figures);
  return text;
}

bool continuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

std::size_t codePoints(const std::string& text) {
  std::size_t count = 0;
  for (char c : text) count += !continuationByte(c);
  return count;
}

}  // namespace

std::string durationText(double seconds, bool tenths) {
  if (!std::isfinite(seconds) || seconds < 0 || seconds >= kLongestDuration) return "--";
  if (tenths && seconds < 0.995) return printed("%.2fs", seconds);
  if (tenths && seconds < 9.95) return printed("%.1fs", seconds);
  const auto whole = static_cast<long long>(std::ceil(seconds - (tenths ? 0.5 : 0.0)));
  if (whole < 60) return printed("%llds", whole);
  if (whole < 3600) return printed("%lldm %02llds", whole / 60, whole % 60);
  return printed("%lldh %02lldm", whole / 3600, whole % 3600 / 60);
}

std::string speedText(double bytesPerSecond) {
  if (!(bytesPerSecond >= 0)) return "--/s";
  return platform::fileSizeString(static_cast<int64_t>(std::llround(bytesPerSecond))) + "/s";
}

std::optional<double> secondsLeft(const ProgressFigures& figures) {
  if (figures.total <= 0 || !(figures.bytesPerSecond > 0)) return std::nullopt;
  return static_cast<double>(std::max<int64_t>(0, figures.total - figures.done)) / figures.bytesPerSecond;
}

std::string fitText(const std::string& text, std::size_t columns) {
  if (codePoints(text) <= columns) return text;
  if (columns <= 3) return std::string(columns, '.');
  std::size_t kept = 0;
  std::size_t end = 0;
  while (end < text.size()) {
    if (!continuationByte(text[end]) && kept == columns - 3) break;
    kept += !continuationByte(text[end]);
    ++end;
  }
  return text.substr(0, end) + "...";
}

std::string terminalLine(const ProgressFigures& figures, std::size_t width) {
  const std::string rest = figuresText(figures);
  const std::size_t room = width > codePoints(rest) + 2 ? width - codePoints(rest) - 2 : 0;
  std::string line = fitText(figures.name, std::max(room, kShortestName)) + "  " + rest;
  return fitText(line, width);
}

std::string logLine(const ProgressFigures& figures) {
  if (figures.total <= 0)
    return figures.name + ": " + platform::fileSizeString(figures.done) + ", " + speedText(figures.bytesPerSecond);
  return figures.name + ": " + std::to_string(percentOf(figures)) + "% of " + platform::fileSizeString(figures.total) +
         ", " + speedText(figures.bytesPerSecond) + ", " + timeLeftText(figures);
}

std::string summaryLine(const std::string& name, int64_t size, double seconds, int64_t resumedAt) {
  const int64_t fetched = std::max<int64_t>(0, size - std::max<int64_t>(0, resumedAt));
  std::string line = name + "  " + platform::fileSizeString(size) + " in " + durationText(seconds, true);
  if (seconds > 0) line += ", " + speedText(static_cast<double>(fetched) / seconds);
  if (resumedAt > 0) line += " (resumed at " + platform::fileSizeString(resumedAt) + ")";
  return line;
}

void SpeedMeter::add(Clock::time_point now, int64_t done) {
  if (!samples_.empty() && done < samples_.back().done) samples_.clear();
  const std::size_t n = samples_.size();
  if (n >= 2 && samples_[n - 1].time - samples_[n - 2].time < kSampleSpacing) {
    samples_.back() = {now, done};  // too close to the one before: the newest point moves instead
  } else {
    samples_.push_back({now, done});
  }
  while (samples_.size() > 2 && (samples_[1].time <= now - kWindow || samples_.size() > kMaxSamples))
    samples_.pop_front();
}

double SpeedMeter::bytesPerSecond(Clock::time_point now) const {
  if (samples_.size() < 2) return -1;
  const Sample& base = samples_.front();
  const double seconds = std::chrono::duration<double>(now - base.time).count();
  if (seconds <= 0) return -1;
  return static_cast<double>(samples_.back().done - base.done) / seconds;
}
