// An observer that writes down the manager's Started, Stopped, Completed and
// Removed notifications as "started NAME" and so on, in order.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "module/core/DFDownloadManager.h"

struct Journal : DFDownloadManagerDelegate {
  std::vector<std::string> events;
  void downloadOperationStarted(DFDownloadManager&, const Record& r) override { add("started", r); }
  void downloadOperationStopped(DFDownloadManager&, const Record& r) override { add("stopped", r); }
  void downloadOperationCompleted(DFDownloadManager&, const Record& r) override { add("completed", r); }
  void downloadOperationRemoved(DFDownloadManager&, const Record& r) override { add("removed", r); }
  void add(const char* what, const Record& r) { events.push_back(std::string(what) + " " + r->filename().value_or("?")); }
  std::vector<std::string> take() { return std::exchange(events, {}); }
};
