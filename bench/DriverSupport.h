// What the benchmark drivers share: a loader delegate that notes the end.
#pragma once

#include <optional>
#include <string>

#include "module/transfer/DFDownloadOperationDataLoader.h"

struct CompletionRecorder : DFDownloadOperationDataLoaderDelegate {
  bool finished = false;
  std::optional<std::string> error;
  void downloadOperationDataLoaderDownloadOperationUpdated(DFDownloadOperationDataLoader&) override {}
  void downloadOperationDataLoader(DFDownloadOperationDataLoader&, const std::optional<std::string>& e) override {
    finished = true;
    error = e;
  }
};
