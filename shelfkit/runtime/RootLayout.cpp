#include "shelfkit/runtime/RootLayout.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace shelfkit {

RootLayout RootLayout::resolve(const std::optional<std::string>& root,
                               const std::optional<std::string>& documents) {
  RootLayout layout;
  if (root) {
    layout.root = fs::absolute(*root).lexically_normal().string();
  } else if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') {
    layout.root = std::string(xdg) + "/shelf";
  } else {
    const char* home = std::getenv("HOME");
    layout.root = std::string(home && *home ? home : ".") + "/.local/share/shelf";
  }
  while (layout.root.size() > 1 && layout.root.back() == '/') layout.root.pop_back();
  layout.library = layout.root + "/Library";
  layout.documents = documents ? fs::absolute(*documents).lexically_normal().string()
                               : layout.root + "/Documents";
  while (layout.documents.size() > 1 && layout.documents.back() == '/') layout.documents.pop_back();
  return layout;
}

RootLayout RootLayout::flat(const std::string& library, const std::string& documents) {
  RootLayout layout;
  layout.root = layout.library = fs::absolute(library).lexically_normal().string();
  layout.documents = fs::absolute(documents).lexically_normal().string();
  for (std::string* path : {&layout.root, &layout.library, &layout.documents})
    while (path->size() > 1 && path->back() == '/') path->pop_back();
  return layout;
}

bool RootLayout::create(std::string* error) const {
  for (const std::string& dir : {library, library + "/Preferences", databasesDirectory(), documents}) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (!fs::is_directory(dir, ec)) {
      if (error) *error = "cannot create the folder " + dir;
      return false;
    }
  }
  return true;
}

namespace {

std::string lockPath(const RootLayout& layout) { return layout.library + "/shelf.lock"; }

}  // namespace

RootLock::RootLock(const RootLayout& layout) {
  fd_ = ::open(lockPath(layout).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) return;
  // isHeld() takes the lock for a moment; a few tries keep that from looking like an owner.
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return;
    if (errno != EWOULDBLOCK) break;
    ::usleep(10000);
  }
  ::close(fd_);
  fd_ = -1;
}

bool RootLock::isHeld(const RootLayout& layout) {
  const int fd = ::open(lockPath(layout).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;  // no host ever ran here
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);  // releases the shared lock, if taken
  return held;
}

RootLock::~RootLock() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace shelfkit
