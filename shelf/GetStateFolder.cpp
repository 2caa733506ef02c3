#include "shelf/GetStateFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "shelfkit/runtime/AtomicFile.h"

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

std::vector<GetStateFolder::Placed> GetStateFolder::placed() const {
  // One JSON object a line; a line cut short by a crash is skipped.
  std::vector<Placed> entries;
  std::ifstream in(placedPath());
  for (std::string line; std::getline(in, line);) {
    const auto entry = nlohmann::json::parse(line, nullptr, false);
    if (!entry.is_object()) continue;
    const auto url = entry.find("url");
    const auto path = entry.find("path");
    if (url != entry.end() && url->is_string() && path != entry.end() && path->is_string())
      entries.push_back({url->get<std::string>(), path->get<std::string>()});
  }
  return entries;
}

namespace {

std::string placedLine(const GetStateFolder::Placed& entry) {
  const nlohmann::json json = {{"url", entry.url}, {"path", entry.path}};
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace

void GetStateFolder::notePlaced(const std::string& url, const std::string& path) {
  const int fd = ::open(placedPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;  // the file is placed all the same; a later run would fetch it again
  const std::string line = placedLine({url, path});
  (void)!::write(fd, line.data(), line.size());
  ::close(fd);
}

void GetStateFolder::forgetPlaced(const std::string& url) {
  auto entries = placed();
  if (std::erase_if(entries, [&](const Placed& entry) { return entry.url == url; }) == 0) return;
  std::string text;
  for (const auto& entry : entries) text += placedLine(entry);
  shelfkit::writeFileAtomically(placedPath(), text);
}
