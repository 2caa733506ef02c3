// File-system access the module needs, behind one seam so tests can inject faults.
// Operations report failure as false or none; they never throw.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

class FileManager {
 public:
  virtual ~FileManager() = default;

  // The manager the host installed.
  static std::shared_ptr<FileManager> defaultManager();
  static void setDefaultManager(std::shared_ptr<FileManager> manager);

  // The user's Library and Documents directories.
  virtual std::string libraryDirectory() const = 0;
  virtual std::string documentsDirectory() const = 0;

  // Creates `path` and any missing parents. True when it exists as a directory afterwards.
  virtual bool createDirectoryAtPath(const std::string& path) = 0;
  virtual bool fileExistsAtPath(const std::string& path) const = 0;
  // Size of the regular file at `path`, or none.
  virtual std::optional<int64_t> fileSizeAtPath(const std::string& path) const = 0;
  // Moves `from` to `to`, copying then deleting across file systems.
  virtual bool moveItemAtPath(const std::string& from, const std::string& to) = 0;
  // Removes a file, or a directory with its contents.
  virtual bool removeItemAtPath(const std::string& path) = 0;

  enum class PlaceResult { Placed, Exists, Failed };
  // Moves the file `from` to `to` only if nothing exists at `to`, atomically:
  // an existing file is never replaced. The file is flushed to disk first.
  // Across file systems it is copied to ".NAME.part" beside `to` (NAME: the
  // last component of `from`), then renamed.
  virtual PlaceResult placeItemAtPath(const std::string& from, const std::string& to) = 0;

  // The names in a directory (not "." or ".."), or none when it cannot be read.
  virtual std::vector<std::string> contentsOfDirectoryAtPath(const std::string& path) const = 0;
  // Writes a small file whole and flushed, replacing any old one; true on success.
  virtual bool writeContentsAtomically(const std::string& path, const std::string& contents) = 0;
  // The whole contents of a small file, or none.
  virtual std::optional<std::string> contentsAtPath(const std::string& path) const = 0;

  // A text that identifies the file at `path` (its device and inode), or none.
  virtual std::optional<std::string> uniqueIdOfItemAtPath(const std::string& path) const = 0;
};

}  // namespace platform
