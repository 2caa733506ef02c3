#include "shelfkit/runtime/RootLayout.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

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

RootLock::RootLock(const RootLayout& layout) {
  std::string path = layout.library + "/shelf.lock";
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ >= 0 && ::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

RootLock::~RootLock() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace shelfkit
