// Deleting and renaming the files of the documents folder, for the JSON API and
// the Documents screen. Only a file the folder lists (FileResolver's
// documentInside) is touched, only by its own name in the folder itself, and a
// new name is one plain name: nothing is moved out of the folder, nothing
// existing is replaced. The recent items follow the change.
// REQUIRES: main thread.
#pragma once

#include <optional>
#include <string>

namespace shelf {

struct DocumentError {
  enum class Kind { BadName, NotFound, Exists, Failed } kind;
  std::string message;
};

class DocumentFiles {
 public:
  // Longest name a Linux file system takes, in bytes.
  static constexpr size_t kMaxNameBytes = 255;

  explicit DocumentFiles(std::string documentsDirectory);

  // True iff `name` may be given to a file of the folder: not empty, at most
  // kMaxNameBytes, no slash, no control character, not starting with a dot
  // (which would hide it, or name the folder or its parent).
  static bool isAcceptableName(const std::string& name);

  std::optional<DocumentError> remove(const std::string& name) const;
  // Renames `name` to `newName`; fails with Exists when that name is taken.
  std::optional<DocumentError> rename(const std::string& name, const std::string& newName) const;

 private:
  std::optional<DocumentError> checkListed(const std::string& name) const;

  const std::string documents_;
};

}  // namespace shelf
