// One `shelf` process as a user starts it, for the programs built with
// SHELF_BINARY: standard output and error together into a file, standard
// input read from one. Waited for, signalled or killed by its process id.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Files.h"
#include "tests/support/TestHost.h"

class ShelfProcess {
 public:
  explicit ShelfProcess(const std::vector<std::string>& arguments, const std::string& input = "")
      : folder_(makeTemporaryDirectory()) {
    std::ofstream(folder_ + "/in") << input;
    std::vector<char*> argv{const_cast<char*>(SHELF_BINARY)};
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, (folder_ + "/in").c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (folder_ + "/out").c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (::posix_spawn(&pid_, SHELF_BINARY, &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~ShelfProcess() {
    if (pid_ > 0 && !waited_) {
      ::kill(pid_, SIGKILL);
      wait();
    }
    std::filesystem::remove_all(folder_);
  }
  void signal(int number) { ::kill(pid_, number); }
  // The exit status, or 128 + the signal that ended it.
  int wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    waited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  std::string output() const { return readFile(folder_ + "/out"); }

 private:
  const std::string folder_;
  pid_t pid_ = -1;
  bool waited_ = false;
};

struct Finished {
  int status;
  std::string output;
};
inline Finished runShelf(const std::vector<std::string>& arguments, const std::string& input = "") {
  ShelfProcess process(arguments, input);
  const int status = process.wait();
  return {status, process.output()};
}

// Polls `condition` every 20 ms; false when it still fails after `timeout`.
inline bool waitFor(const std::function<bool()>& condition, std::chrono::seconds timeout = std::chrono::seconds(60)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}
