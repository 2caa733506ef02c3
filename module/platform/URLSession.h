// Background URL sessions with download tasks. Each task sends its request,
// follows redirects, writes the body to a file of its own and reports on the
// session's delegate queue: progress (coalesced to about ten a second, plus
// one at the end), the finished file with the response, then completion.
// One engine thread serves every session; connections are reused.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "module/platform/OperationQueue.h"
#include "module/platform/URL.h"
#include "module/platform/URLResponse.h"

namespace platform {

struct URLRequest {
  explicit URLRequest(URL url) : url(std::move(url)) {}
  URL url;
  std::vector<std::pair<std::string, std::string>> headers;
  // For a bounded byte range: when the answer is a 206 for exactly that range,
  // its body may be written straight into this file at the range's first byte
  // instead of a file of its own (each byte is then written once). Any other
  // answer goes to a file of its own as usual.
  std::string rangeDestinationPath;
  void setValue(std::string value, std::string field) { headers.emplace_back(std::move(field), std::move(value)); }
};

// Network service types, as a hint to the engine.
enum class NetworkServiceType { Default = 0, Background = 3 };

struct URLSessionConfiguration {
  static URLSessionConfiguration backgroundSessionConfigurationWithIdentifier(std::string identifier) {
    URLSessionConfiguration configuration;
    configuration.identifier = std::move(identifier);
    return configuration;
  }
  std::string identifier;
  NetworkServiceType networkServiceType = NetworkServiceType::Default;
};

class URLSession;

class URLSessionTask {
 public:
  virtual ~URLSessionTask() = default;
  virtual void resume() = 0;
  // Stops the transfer; the task then completes with the "cancelled" error.
  virtual void cancel() = 0;
  // The response head, once it arrived.
  virtual std::optional<HTTPURLResponse> response() const = 0;
  virtual uint64_t taskIdentifier() const = 0;
  // Body bytes received so far.
  virtual int64_t countOfBytesReceived() const = 0;
};

using URLSessionDownloadTask = URLSessionTask;

// Called on the session's delegate queue.
class URLSessionDownloadDelegate {
 public:
  virtual ~URLSessionDownloadDelegate() = default;
  virtual void didWriteData(URLSession& session, URLSessionDownloadTask& downloadTask, int64_t bytesWritten,
                            int64_t totalBytesWritten, int64_t totalBytesExpectedToWrite) = 0;
  // The body is in the file at `location`, which is deleted when this returns;
  // or, when `location` is the request's rangeDestinationPath, it was written
  // there in place: countOfBytesReceived() bytes at the range's first byte.
  virtual void didFinishDownloadingToURL(URLSession& session, URLSessionDownloadTask& downloadTask,
                                         const std::string& location) = 0;
  // None on success; otherwise the error's localized description.
  virtual void didCompleteWithError(URLSession& session, URLSessionTask& task,
                                    const std::optional<std::string>& error) = 0;
};

class URLSession {
 public:
  virtual ~URLSession() = default;

  // The session holds its delegate weakly and reports on `delegateQueue`.
  static std::shared_ptr<URLSession> sessionWithConfiguration(URLSessionConfiguration configuration,
                                                              std::weak_ptr<URLSessionDownloadDelegate> delegate,
                                                              std::shared_ptr<OperationQueue> delegateQueue);

  virtual const URLSessionConfiguration& configuration() const = 0;
  virtual std::shared_ptr<URLSessionDownloadTask> downloadTaskWithRequest(const URLRequest& request) = 0;
  // Cancels every task; the session accepts no new tasks afterwards.
  virtual void invalidateAndCancel() = 0;
};

}  // namespace platform
