// Where the host keeps everything: one root folder, like an application sandbox.
//   ROOT/Library    temporary files, databases, preferences
//   ROOT/Documents  finished files (or the folder given with --documents)
#pragma once

#include <optional>
#include <string>

namespace shelfkit {

struct RootLayout {
  std::string root;
  std::string library;
  std::string documents;

  // `root` defaults to $XDG_DATA_HOME/shelf, else ~/.local/share/shelf.
  static RootLayout resolve(const std::optional<std::string>& root,
                            const std::optional<std::string>& documents);
  // A root that is its own Library (no Library/ level), with documents elsewhere:
  // the state of `shelf get` beside its output folder.
  static RootLayout flat(const std::string& library, const std::string& documents);

  // Creates the folders. Returns false with `error` set when one cannot be made.
  bool create(std::string* error) const;

  std::string preferencesFile() const { return library + "/Preferences/defaults.json"; }
  std::string databasesDirectory() const { return library + "/Databases"; }
};

// Holds an exclusive lock on a root for the life of the object, so that only one
// process owns it.
class RootLock {
 public:
  explicit RootLock(const RootLayout& layout);
  ~RootLock();
  RootLock(const RootLock&) = delete;
  RootLock& operator=(const RootLock&) = delete;
  bool held() const { return fd_ >= 0; }

  // True iff a process holds the lock of `layout`'s root now: its owner runs.
  // The lock ends with the process, however it ends, so a crashed owner does not count.
  static bool isHeld(const RootLayout& layout);

 private:
  int fd_ = -1;
};

}  // namespace shelfkit
