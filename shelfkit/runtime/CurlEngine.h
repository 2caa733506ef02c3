// One libcurl multi handle driven by one I/O thread serves every transfer of
// the process: no thread per transfer, and connections are pooled and reused.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "module/platform/URLResponse.h"
#include "module/platform/URLSession.h"

namespace shelfkit {

class CurlEngine {
 public:
  using TransferId = uint64_t;

  // Called on the engine thread; they must not block.
  struct Callbacks {
    // The final response head (after redirects). Return false to end the
    // transfer here, successfully, without reading the body.
    std::function<bool(const platform::HTTPURLResponse&)> onResponse;
    // Body bytes; return false to abort the transfer (a write error).
    std::function<bool(const char* data, size_t length)> onBody;
    // The end: CURLE_OK on success; `cancelled` when cancel() ended it.
    std::function<void(CURLcode result, bool cancelled)> onComplete;
  };

  // The engine of the process; its thread starts on first use.
  static CurlEngine& shared();

  // Starts a GET (or HEAD when `headOnly`) for `request`. Thread-safe.
  TransferId start(const platform::URLRequest& request, Callbacks callbacks, bool headOnly = false);
  // Ends a transfer; its onComplete runs with `cancelled`. Thread-safe; unknown ids are ignored.
  void cancel(TransferId id);

  // Transfers in flight (for tests).
  size_t activeTransfers() const;

 private:
  struct Transfer;
  CurlEngine();
  void run();
  void addTransfer(std::unique_ptr<Transfer> transfer);
  void finish(Transfer* transfer, CURLcode result, bool cancelled);
  static size_t headerCallback(char* data, size_t size, size_t count, void* user);
  static size_t writeCallback(char* data, size_t size, size_t count, void* user);

  CURLM* multi_;
  std::atomic<TransferId> nextId_{1};
  mutable std::mutex mutex_;  // guards commands_ and the size of transfers_
  std::vector<std::function<void()>> commands_;
  std::unordered_map<TransferId, std::unique_ptr<Transfer>> transfers_;  // engine thread only
  std::atomic<size_t> active_{0};
  std::thread thread_;
};

// The localized description of a libcurl failure, in the words users know
// from their platform's URL loading.
std::string localizedDescriptionForCurlError(CURLcode code);

}  // namespace shelfkit
