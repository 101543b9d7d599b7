// Shared by the hardening tests: a scratch directory and a child process
// that may crash or block.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

namespace hardening {

// A new directory under /tmp for the life of the object.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/zel-harden-XXXXXX";
    path_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// Runs fn in a child process and returns its exit code; -1 when it has not
// ended within five seconds (it is killed then), -2 when it died.
inline int InChild(const std::function<int()> &fn) {
  const pid_t child = fork();
  if (child == 0) _exit(fn());
  for (int i = 0; i < 5000; ++i) {
    int wstatus = 0;
    if (waitpid(child, &wstatus, WNOHANG) == child) {
      return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -2;
    }
    usleep(1000);
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  return -1;
}

}  // namespace hardening
