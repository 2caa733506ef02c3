#include "shelfkit/runtime/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace shelfkit {

void syncDirectory(const std::string& directory) {
  int fd = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

bool writeFileAtomically(const std::string& path, std::string_view contents) {
  const std::string directory = std::filesystem::path(path).parent_path().string();
  std::string tmp = path + ".tmp.XXXXXX";
  int fd = ::mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = true;
  const char* data = contents.data();
  size_t left = contents.size();
  while (ok && left > 0) {
    ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ok = false;
    else data += n, left -= static_cast<size_t>(n);
  }
  ok = ok && ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  ok = ok && ::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(tmp.c_str());
    return false;
  }
  syncDirectory(directory);
  return true;
}

std::string moveAside(const std::string& path) {
  std::string aside = path + ".corrupt";
  ::rename(path.c_str(), aside.c_str());
  return aside;
}

}  // namespace shelfkit
