#include "shelfkit/runtime/PosixFileManager.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

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

}  // namespace shelfkit
