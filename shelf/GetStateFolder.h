// Where `shelf get` keeps what lets a run be resumed: OUT/.shelf-get beside the
// files it places (record database, temporary files, preferences), so that it
// lies on the output folder's file system and placing a file is a rename. One
// run at a time holds it, by a lock on OUT/.shelf-get/get.lock.
#pragma once

#include <string>
#include <vector>

#include "shelfkit/runtime/RootLayout.h"

class GetStateFolder {
 public:
  static constexpr const char* kName = ".shelf-get";
  enum class Opened { Ready, Busy, Failed };

  // `outputDirectory` exists.
  explicit GetStateFolder(const std::string& outputDirectory);
  ~GetStateFolder();  // lets go of the lock
  GetStateFolder(const GetStateFolder&) = delete;
  GetStateFolder& operator=(const GetStateFolder&) = delete;

  // Creates the folder and takes its lock. Busy: another run holds it.
  // Failed: `error` says why.
  Opened open(std::string* error);
  // The folders of the state, with the output folder as documents folder.
  const shelfkit::RootLayout& layout() const { return layout_; }
  const std::string& path() const { return layout_.library; }
  // Removes the whole folder. REQUIRES: open() answered Ready; nothing of it is wanted.
  void remove();

  // The files that runs since the folder was made placed, with their
  // addresses, so that running an interrupted list again skips them. The list
  // goes with the folder, once a run has left nothing to resume.
  struct Placed {
    std::string url;
    std::string path;
  };
  std::vector<Placed> placed() const;
  void notePlaced(const std::string& url, const std::string& path);
  void forgetPlaced(const std::string& url);

 private:
  std::string lockPath() const { return layout_.library + "/get.lock"; }
  std::string placedPath() const { return layout_.library + "/placed.jsonl"; }

  shelfkit::RootLayout layout_;
  int lockFd_ = -1;
};
