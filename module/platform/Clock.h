// Wall-clock time, with a seam for tests where waits matter.
#pragma once

#include <chrono>
#include <functional>

namespace platform {

using Date = std::chrono::system_clock::time_point;

Date now();

// Test seam: replaces the clock; an empty function restores the system clock.
void setClockForTesting(std::function<Date()> clock);

// Seconds from now until `date`: positive when `date` lies in the future.
double timeIntervalSinceNow(Date date);

}  // namespace platform
