// A data-loader delegate that records what a loader reports and checks that
// every report arrives on the main thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "module/platform/MainQueue.h"
#include "module/transfer/DFDownloadOperationDataLoader.h"

class LoaderProbe : public DFDownloadOperationDataLoaderDelegate {
 public:
  void downloadOperationDataLoaderDownloadOperationUpdated(DFDownloadOperationDataLoader& loader) override {
    offMain += !platform::isMainThread();
    ++updates;
    positions.push_back(loader.downloadOperation()->actualPosition());
  }
  void downloadOperationDataLoader(DFDownloadOperationDataLoader&, const std::optional<std::string>& error) override {
    offMain += !platform::isMainThread();
    ++completions;
    lastError = error;
  }

  int updates = 0;
  int completions = 0;
  int offMain = 0;
  std::optional<std::string> lastError;
  std::vector<int64_t> positions;
};
