#include "shelfkit/runtime/PosixFileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "module/platform/FileCopy.h"
#include "shelfkit/runtime/AtomicFile.h"

namespace fs = std::filesystem;

namespace shelfkit {

PosixFileManager::PosixFileManager(std::string libraryDirectory, std::string documentsDirectory)
    : library_(std::move(libraryDirectory)), documents_(std::move(documentsDirectory)) {}

bool PosixFileManager::createDirectoryAtPath(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  return fs::is_directory(path, error);
}

bool PosixFileManager::fileExistsAtPath(const std::string& path) const {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::optional<int64_t> PosixFileManager::fileSizeAtPath(const std::string& path) const {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  return static_cast<int64_t>(st.st_size);
}

bool PosixFileManager::moveItemAtPath(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) == 0) {
    syncDirectory(fs::path(to).parent_path().string());
    return true;
  }
  if (errno != EXDEV) return false;
  // Across file systems: copy, flush, then delete the original.
  std::error_code error;
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (error) {
    fs::remove_all(to, error);
    return false;
  }
  syncDirectory(fs::path(to).parent_path().string());
  fs::remove_all(from, error);
  return true;
}

bool PosixFileManager::removeItemAtPath(const std::string& path) {
  std::error_code error;
  return fs::remove_all(path, error) > 0 && !error;
}

namespace {

bool flush(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

// Copies `from` into a new file at `to`, never replacing one, and flushes it.
platform::FileManager::PlaceResult copyExclusively(const std::string& from, const std::string& to) {
  using Result = platform::FileManager::PlaceResult;
  // The copy is made under a hidden name beside the destination and renamed
  // when complete, so the destination never holds a partial file.
  const fs::path part = fs::path(to).parent_path() / ("." + fs::path(from).filename().string() + ".part");
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return Result::Failed;
  int out = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) {
    ::close(in);
    return Result::Failed;
  }
  bool ok = platform::copyFileContents(in, out);
  ok = ok && ::fsync(out) == 0;
  ok = (::close(out) == 0) && ok;
  ::close(in);
  if (ok && ::renameat2(AT_FDCWD, part.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    ::unlink(from.c_str());
    return Result::Placed;
  }
  const int error = errno;
  ::unlink(part.c_str());
  return ok && error == EEXIST ? Result::Exists : Result::Failed;
}

}  // namespace

platform::FileManager::PlaceResult PosixFileManager::placeItemAtPath(const std::string& from, const std::string& to) {
  flush(from);  // the data is on disk before its name moves
  const std::string directory = fs::path(to).parent_path().string();
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    syncDirectory(directory);
    return PlaceResult::Placed;
  }
  if (errno == EEXIST) return PlaceResult::Exists;
  if (errno == EXDEV || errno == EINVAL || errno == ENOSYS) {
    PlaceResult result = copyExclusively(from, to);
    if (result == PlaceResult::Placed) syncDirectory(directory);
    return result;
  }
  return PlaceResult::Failed;
}

std::optional<std::string> PosixFileManager::uniqueIdOfItemAtPath(const std::string& path) const {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return std::to_string(static_cast<unsigned long long>(st.st_dev)) + ":" +
         std::to_string(static_cast<unsigned long long>(st.st_ino));
}

std::vector<std::string> PosixFileManager::contentsOfDirectoryAtPath(const std::string& path) const {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(path, error)) names.push_back(entry.path().filename().string());
  return names;
}

bool PosixFileManager::writeContentsAtomically(const std::string& path, const std::string& contents) {
  return writeFileAtomically(path, contents);
}

std::optional<std::string> PosixFileManager::contentsAtPath(const std::string& path) const {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace shelfkit
