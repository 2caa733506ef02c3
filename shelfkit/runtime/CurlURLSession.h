// URL sessions with download tasks over the shared libcurl engine.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "module/platform/URLSession.h"
#include "shelfkit/runtime/CurlEngine.h"

namespace shelfkit {

class CurlDownloadTask;

class CurlURLSession : public platform::URLSession, public std::enable_shared_from_this<CurlURLSession> {
 public:
  // Bodies are written to files in `downloadDirectory`.
  CurlURLSession(platform::URLSessionConfiguration configuration,
                 std::weak_ptr<platform::URLSessionDownloadDelegate> delegate,
                 std::shared_ptr<platform::OperationQueue> delegateQueue, std::string downloadDirectory);

  const platform::URLSessionConfiguration& configuration() const override { return configuration_; }
  std::shared_ptr<platform::URLSessionDownloadTask> downloadTaskWithRequest(const platform::URLRequest& request) override;
  void invalidateAndCancel() override;

  // Runs `call` with the delegate on the delegate queue, if the delegate still
  // exists, then `then` in any case.
  void deliver(std::function<void(platform::URLSessionDownloadDelegate&, platform::URLSession&)> call,
               std::function<void()> then = {});
  const std::string& downloadDirectory() const { return downloadDirectory_; }
  bool invalidated() const;

 private:
  const platform::URLSessionConfiguration configuration_;
  const std::weak_ptr<platform::URLSessionDownloadDelegate> delegate_;
  const std::shared_ptr<platform::OperationQueue> delegateQueue_;
  const std::string downloadDirectory_;
  mutable std::mutex mutex_;  // guards the two below
  std::vector<std::weak_ptr<CurlDownloadTask>> tasks_;
  bool invalidated_ = false;
};

class CurlDownloadTask : public platform::URLSessionTask, public std::enable_shared_from_this<CurlDownloadTask> {
 public:
  CurlDownloadTask(std::shared_ptr<CurlURLSession> session, platform::URLRequest request, uint64_t identifier);
  ~CurlDownloadTask() override;

  void resume() override;
  void cancel() override;
  std::optional<platform::HTTPURLResponse> response() const override;
  uint64_t taskIdentifier() const override { return identifier_; }

 private:
  enum class State { Suspended, Running, Completed };
  bool onBody(const char* data, size_t length);
  void onComplete(CURLcode result, bool cancelled);
  void reportProgress();
  void completeWithError(std::optional<std::string> error);

  const std::shared_ptr<CurlURLSession> session_;
  const platform::URLRequest request_;
  const uint64_t identifier_;

  mutable std::mutex mutex_;  // guards state_, transfer_ and response_
  State state_ = State::Suspended;
  CurlEngine::TransferId transfer_ = 0;
  std::optional<platform::HTTPURLResponse> response_;

  // Engine thread only, while running.
  int fd_ = -1;
  std::string path_;
  int64_t written_ = 0;
  int64_t reported_ = 0;
  int64_t expected_ = -1;
  std::chrono::steady_clock::time_point lastReport_{};
};

}  // namespace shelfkit
