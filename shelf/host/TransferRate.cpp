#include "shelf/host/TransferRate.h"

#include <algorithm>

namespace shelf {
namespace {

constexpr auto kShortestSpan = std::chrono::milliseconds(200);

}  // namespace

void TransferRate::add(Clock::time_point at, int64_t position) {
  if (!samples_.empty() && (position < samples_.back().position || at < samples_.back().at)) samples_.clear();
  samples_.push_back({at, position});
  // Keep one sample older than the window: the rate is measured from it.
  while (samples_.size() > 2 && at - samples_[1].at >= kWindow) samples_.pop_front();
}

std::optional<double> TransferRate::bytesPerSecond(Clock::time_point now) const {
  if (samples_.size() < 2) return std::nullopt;
  const Sample& first = samples_.front();
  const Sample& last = samples_.back();
  const auto span = last.at - first.at;
  if (span < kShortestSpan) return std::nullopt;
  const auto usualGap = span / static_cast<int64_t>(samples_.size() - 1);
  if (now - last.at > std::max<Clock::duration>(kStall, 3 * usualGap)) return 0.0;
  return static_cast<double>(last.position - first.position) / std::chrono::duration<double>(span).count();
}

}  // namespace shelf
