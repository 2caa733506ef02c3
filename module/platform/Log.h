// The platform log: diagnostics only, never user-facing.
#pragma once

#include <functional>
#include <string>

namespace platform {

void log(const std::string& message);

// Test seam: when set, log lines go to `sink` instead of standard error.
void setLogSinkForTesting(std::function<void(const std::string&)> sink);

}  // namespace platform
