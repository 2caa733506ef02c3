// The speed of one transfer, from the positions it reports. The module reports
// when a piece is written, so reports may come seconds apart: the rate is taken
// between the newest report and the newest one at least kWindow older (or the
// oldest kept), which smooths a burst or a short pause over a few seconds.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>

namespace shelf {

class TransferRate {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kWindow{5};
  // With no report for this long (and at least three times the usual gap), the transfer counts as stalled.
  static constexpr std::chrono::seconds kStall{10};

  // A report: the transfer has `position` bytes at `at`. A position lower than
  // the last (a restart from the beginning) starts the measurement again.
  void add(Clock::time_point at, int64_t position);

  // Bytes per second, or none until two reports span some time. 0 when stalled.
  std::optional<double> bytesPerSecond(Clock::time_point now) const;

 private:
  struct Sample {
    Clock::time_point at;
    int64_t position;
  };
  std::deque<Sample> samples_;
};

}  // namespace shelf
