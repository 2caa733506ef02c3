#include "shelf/GetStateFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr int kAttempts = 5;

}  // namespace

GetStateFolder::GetStateFolder(const std::string& outputDirectory)
    : layout_(shelfkit::RootLayout::flat(outputDirectory + "/" + kName, outputDirectory)) {}

GetStateFolder::~GetStateFolder() {
  if (lockFd_ >= 0) ::close(lockFd_);
}

GetStateFolder::Opened GetStateFolder::open(std::string* error) {
  // A run that ends removes the folder while it holds the lock: a lock taken on
  // a file that is no longer at its path is worth nothing, and we try again.
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (!layout_.create(error)) return Opened::Failed;
    const int fd = ::open(lockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      if (errno == ENOENT) continue;
      *error = "cannot create " + lockPath() + ": " + std::strerror(errno);
      return Opened::Failed;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      const int cause = errno;
      ::close(fd);
      if (cause == EWOULDBLOCK) return Opened::Busy;
      *error = "cannot lock " + lockPath() + ": " + std::strerror(cause);
      return Opened::Failed;
    }
    struct stat opened {}, named {};
    if (::fstat(fd, &opened) == 0 && ::stat(lockPath().c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
        opened.st_ino == named.st_ino) {
      lockFd_ = fd;
      return Opened::Ready;
    }
    ::close(fd);
  }
  *error = "cannot hold " + path() + ": it keeps being removed";
  return Opened::Failed;
}

void GetStateFolder::remove() {
  std::error_code ignored;
  fs::remove_all(path(), ignored);
}
