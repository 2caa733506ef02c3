#include "module/platform/FileCopy.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace {

// Starts writeback on a thread of its own at idle priority: submitting the
// pages costs CPU that the transfer needs on a small machine, so it is done
// when a core would otherwise idle. Writeback is only a head start for the
// flush before placement; ranges beyond a bounded backlog are skipped.
class WritebackThread {
 public:
  static WritebackThread& shared() {
    static WritebackThread thread;
    return thread;
  }
  void add(int fd, int64_t offset, int64_t length) {
    std::lock_guard lock(mutex_);
    if (pending_.size() >= kMaxPending) {
      ::close(fd);
      return;
    }
    pending_.push_back({fd, offset, length});
    ready_.notify_one();
  }
  ~WritebackThread() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_one();
    thread_.join();
    for (const auto& range : pending_) ::close(range.fd);
  }

 private:
  struct Range {
    int fd;
    int64_t offset, length;
  };
  static constexpr size_t kMaxPending = 256;

  WritebackThread() : thread_([this] { run(); }) {}
  void run() {
    sched_param idle{};
    ::pthread_setschedparam(::pthread_self(), SCHED_IDLE, &idle);
    std::unique_lock lock(mutex_);
    for (;;) {
      ready_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
      if (stopping_) return;
      const Range range = pending_.front();
      pending_.pop_front();
      lock.unlock();
      ::sync_file_range(range.fd, range.offset, range.length, SYNC_FILE_RANGE_WRITE);
      ::close(range.fd);
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Range> pending_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace

namespace platform {

bool copyFileContents(int in, int out) {
  for (;;) {
    ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
    if (n > 0) continue;
    if (n == 0) return true;
    if (errno == EINTR) continue;
    break;  // no kernel copy between these two (another file system, appending): try sendfile
  }
  for (bool first = true;; first = false) {
    ssize_t n = ::sendfile(out, in, nullptr, 1 << 30);
    if (n > 0) continue;
    if (n == 0) return true;
    if (errno == EINTR) continue;
    if (!first) return false;
    break;  // not for these kinds of file: through a buffer
  }
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = ::read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0;
    for (ssize_t done = 0; done < n;) {
      ssize_t w = ::write(out, buffer + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      done += w;
    }
  }
}

void startWriteback(int fd, int64_t offset, int64_t length) {
  const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy >= 0) WritebackThread::shared().add(copy, offset, length);
}

}  // namespace platform
