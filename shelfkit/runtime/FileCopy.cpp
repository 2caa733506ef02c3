#include "module/platform/FileCopy.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cerrno>

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
  ::sync_file_range(fd, offset, length, SYNC_FILE_RANGE_WRITE);
}

}  // namespace platform
