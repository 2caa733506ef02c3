// Captures the platform log for the life of the object.
#pragma once

#include <string>
#include <vector>

#include "module/platform/Log.h"

class LogCapture {
 public:
  LogCapture() {
    platform::setLogSinkForTesting([this](const std::string& line) { lines.push_back(line); });
  }
  ~LogCapture() { platform::setLogSinkForTesting(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines;
};
