// The file manager over std::filesystem and POSIX calls.
#pragma once

#include "module/platform/FileManager.h"

namespace shelfkit {

class PosixFileManager : public platform::FileManager {
 public:
  PosixFileManager(std::string libraryDirectory, std::string documentsDirectory);

  std::string libraryDirectory() const override { return library_; }
  std::string documentsDirectory() const override { return documents_; }
  bool createDirectoryAtPath(const std::string& path) override;
  bool fileExistsAtPath(const std::string& path) const override;
  std::optional<int64_t> fileSizeAtPath(const std::string& path) const override;
  bool moveItemAtPath(const std::string& from, const std::string& to) override;
  bool removeItemAtPath(const std::string& path) override;
  PlaceResult placeItemAtPath(const std::string& from, const std::string& to) override;
  std::optional<std::string> uniqueIdOfItemAtPath(const std::string& path) const override;
  std::vector<std::string> contentsOfDirectoryAtPath(const std::string& path) const override;
  bool writeContentsAtomically(const std::string& path, const std::string& contents) override;
  std::optional<std::string> contentsAtPath(const std::string& path) const override;

 private:
  const std::string library_;
  const std::string documents_;
};

}  // namespace shelfkit
