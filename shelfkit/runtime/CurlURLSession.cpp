#include "shelfkit/runtime/CurlURLSession.h"

#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "module/platform/FileManager.h"

namespace shelfkit {
namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(100);
std::atomic<uint64_t> gNextTaskIdentifier{1};

}  // namespace

CurlURLSession::CurlURLSession(platform::URLSessionConfiguration configuration,
                               std::weak_ptr<platform::URLSessionDownloadDelegate> delegate,
                               std::shared_ptr<platform::OperationQueue> delegateQueue, std::string downloadDirectory)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      delegateQueue_(std::move(delegateQueue)),
      downloadDirectory_(std::move(downloadDirectory)) {}

std::shared_ptr<platform::URLSessionDownloadTask> CurlURLSession::downloadTaskWithRequest(
    const platform::URLRequest& request) {
  auto task = std::make_shared<CurlDownloadTask>(shared_from_this(), request, gNextTaskIdentifier++);
  std::lock_guard lock(mutex_);
  std::erase_if(tasks_, [](const auto& t) { return t.expired(); });
  tasks_.push_back(task);
  if (invalidated_) {
    // An invalidated session runs nothing: the task ends as cancelled once resumed.
    task->cancel();
  }
  return task;
}

void CurlURLSession::invalidateAndCancel() {
  std::vector<std::shared_ptr<CurlDownloadTask>> live;
  {
    std::lock_guard lock(mutex_);
    invalidated_ = true;
    for (auto& t : tasks_)
      if (auto task = t.lock()) live.push_back(std::move(task));
  }
  for (auto& task : live) task->cancel();
}

bool CurlURLSession::invalidated() const {
  std::lock_guard lock(mutex_);
  return invalidated_;
}

void CurlURLSession::deliver(std::function<void(platform::URLSessionDownloadDelegate&, platform::URLSession&)> call,
                             std::function<void()> then) {
  delegateQueue_->addOperation([self = shared_from_this(), call = std::move(call), then = std::move(then)] {
    if (auto delegate = self->delegate_.lock()) call(*delegate, *self);
    if (then) then();
  });
}

CurlDownloadTask::CurlDownloadTask(std::shared_ptr<CurlURLSession> session, platform::URLRequest request,
                                   uint64_t identifier)
    : session_(std::move(session)), request_(std::move(request)), identifier_(identifier) {}

CurlDownloadTask::~CurlDownloadTask() {
  if (fd_ >= 0) ::close(fd_);
  if (!path_.empty()) ::unlink(path_.c_str());
}

void CurlDownloadTask::resume() {
  std::unique_lock lock(mutex_);
  if (state_ != State::Suspended) return;
  state_ = State::Running;

  platform::FileManager::defaultManager()->createDirectoryAtPath(session_->downloadDirectory());
  path_ = session_->downloadDirectory() + "/download-XXXXXX";
  fd_ = ::mkostemp(path_.data(), O_CLOEXEC);
  if (fd_ >= 0) ::fchmod(fd_, 0644);  // the body may become the user's file as it is
  if (fd_ < 0) {
    path_.clear();
    state_ = State::Completed;
    lock.unlock();
    completeWithError(localizedDescriptionForCurlError(CURLE_WRITE_ERROR));
    return;
  }

  auto self = shared_from_this();  // the engine keeps the task alive until it completes
  CurlEngine::Callbacks callbacks;
  callbacks.onResponse = [self](const platform::HTTPURLResponse& response) {
    std::lock_guard lock(self->mutex_);
    self->response_ = response;
    self->expected_ = response.expectedContentLength();
    return true;
  };
  callbacks.onBody = [self](const char* data, size_t length) { return self->onBody(data, length); };
  callbacks.onComplete = [self](CURLcode result, bool cancelled) { self->onComplete(result, cancelled); };
  transfer_ = CurlEngine::shared().start(request_, std::move(callbacks));
}

void CurlDownloadTask::cancel() {
  std::unique_lock lock(mutex_);
  if (state_ == State::Running) {
    CurlEngine::shared().cancel(transfer_);
  } else if (state_ == State::Suspended) {
    state_ = State::Completed;
    lock.unlock();
    completeWithError(localizedDescriptionForCurlError(CURLE_ABORTED_BY_CALLBACK));
  }
}

std::optional<platform::HTTPURLResponse> CurlDownloadTask::response() const {
  std::lock_guard lock(mutex_);
  return response_;
}

bool CurlDownloadTask::onBody(const char* data, size_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd_, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
    written_ += n;
  }
  auto now = std::chrono::steady_clock::now();
  if (now - lastReport_ >= kProgressInterval) {
    lastReport_ = now;
    reportProgress();
  }
  return true;
}

void CurlDownloadTask::reportProgress() {
  int64_t delta = written_ - reported_, total = written_, expected = expected_;
  reported_ = written_;
  session_->deliver([self = shared_from_this(), delta, total, expected](platform::URLSessionDownloadDelegate& d,
                                                                         platform::URLSession& s) {
    d.didWriteData(s, *self, delta, total, expected);
  });
}

void CurlDownloadTask::onComplete(CURLcode result, bool cancelled) {
  {
    std::lock_guard lock(mutex_);
    state_ = State::Completed;
  }
  ::close(fd_);
  fd_ = -1;
  if (result != CURLE_OK || cancelled) {
    completeWithError(localizedDescriptionForCurlError(cancelled ? CURLE_ABORTED_BY_CALLBACK : result));
    return;
  }
  if (written_ > reported_ || written_ == 0) reportProgress();
  // The file belongs to the delivery from here on: it is removed once the
  // delegate has seen it.
  std::string path = std::move(path_);
  path_.clear();
  session_->deliver(
      [self = shared_from_this(), path](platform::URLSessionDownloadDelegate& d, platform::URLSession& s) {
        d.didFinishDownloadingToURL(s, *self, path);
      },
      [path] { ::unlink(path.c_str()); });
  completeWithError(std::nullopt);
}

void CurlDownloadTask::completeWithError(std::optional<std::string> error) {
  session_->deliver([self = shared_from_this(), error](platform::URLSessionDownloadDelegate& d, platform::URLSession& s) {
    d.didCompleteWithError(s, *self, error);
  });
}

}  // namespace shelfkit

namespace platform {

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(URLSessionConfiguration configuration,
                                                                 std::weak_ptr<URLSessionDownloadDelegate> delegate,
                                                                 std::shared_ptr<OperationQueue> delegateQueue) {
  std::string directory = FileManager::defaultManager()->libraryDirectory() + "/Caches/URLSessionDownloads";
  return std::make_shared<shelfkit::CurlURLSession>(std::move(configuration), std::move(delegate),
                                                    std::move(delegateQueue), std::move(directory));
}

}  // namespace platform
