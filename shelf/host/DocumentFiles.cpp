#include "shelf/host/DocumentFiles.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "module/platform/Localization.h"
#include "module/platform/MainQueue.h"
#include "module/platform/RecentItems.h"
#include "shelf/host/FileResolver.h"

namespace fs = std::filesystem;

namespace shelf {
namespace {

std::string hostText(const char* english) { return platform::localizedString("shelf", english); }

std::string quoted(const std::string& name) { return "\u201C" + name + "\u201D"; }

// The folder, opened once per change so both names are looked up in the same directory.
class Folder {
 public:
  explicit Folder(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
  ~Folder() {
    if (fd_ >= 0) ::close(fd_);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  int fd() const { return fd_; }

 private:
  const int fd_;
};

DocumentError failed(const std::string& name) {
  return {DocumentError::Kind::Failed, hostText("The file could not be changed:") + " " + quoted(name) + " (" + std::strerror(errno) + ")"};
}

// Moves `from` to `to` inside one folder unless `to` exists. Where the file
// system cannot rename without replacing, a second link is made (which fails
// when the name exists) and the first removed.
int renameWithoutReplacing(int folder, const std::string& from, const std::string& to) {
  if (::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -1;
  if (::linkat(folder, from.c_str(), folder, to.c_str(), 0) != 0) return -1;
  return ::unlinkat(folder, from.c_str(), 0);
}

}  // namespace

DocumentFiles::DocumentFiles(std::string documentsDirectory) : documents_(std::move(documentsDirectory)) {}

bool DocumentFiles::isAcceptableName(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameBytes || name.front() == '.') return false;
  for (unsigned char c : name)
    if (c == '/' || c < 0x20 || c == 0x7f) return false;
  return true;
}

std::optional<DocumentError> DocumentFiles::checkListed(const std::string& name) const {
  // A name with a slash or ".." could reach a file the folder does not list.
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      !FileResolver::documentInside(documents_, name))
    return DocumentError{DocumentError::Kind::NotFound, hostText("No such document:") + " " + quoted(name)};
  return std::nullopt;
}

std::optional<DocumentError> DocumentFiles::remove(const std::string& name) const {
  DCHECK_ON_MAIN();
  if (auto error = checkListed(name)) return error;
  Folder folder(documents_);
  // A symbolic link is removed, never what it points to.
  if (folder.fd() < 0 || ::unlinkat(folder.fd(), name.c_str(), 0) != 0) return failed(name);
  platform::RecentItemsRegistry::sharedInstance()->fileMoved((fs::path(documents_) / name).string(), std::nullopt);
  return std::nullopt;
}

std::optional<DocumentError> DocumentFiles::rename(const std::string& name, const std::string& newName) const {
  DCHECK_ON_MAIN();
  if (auto error = checkListed(name)) return error;
  if (!isAcceptableName(newName))
    return DocumentError{DocumentError::Kind::BadName,
                         hostText("A name may not be empty, start with a dot or contain a slash or control characters.")};
  if (newName == name) return std::nullopt;
  Folder folder(documents_);
  if (folder.fd() < 0) return failed(name);
  if (renameWithoutReplacing(folder.fd(), name, newName) != 0) {
    if (errno == EEXIST)
      return DocumentError{DocumentError::Kind::Exists, hostText("A document with that name already exists:") + " " + quoted(newName)};
    return failed(name);
  }
  platform::RecentItemsRegistry::sharedInstance()->fileMoved((fs::path(documents_) / name).string(),
                                                             (fs::path(documents_) / newName).string());
  return std::nullopt;
}

}  // namespace shelf
