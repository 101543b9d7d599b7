// Shared by the hardening and state file tests: a scratch directory, a child
// process that may crash or block, and a device that fails every command.
#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "kernel/channel.h"

namespace hardening {

class TempDir {
 public:
  TempDir() : path_(mkdtemp(tmpl_) != nullptr ? tmpl_ : "") {}
  ~TempDir() { std::filesystem::remove_all(path_); }
  const std::string &path() const { return path_; }

 private:
  char tmpl_[32] = "/tmp/zel-harden-XXXXXX";
  std::string path_;
};

inline std::vector<uint8_t> Slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// fn's exit code in a child; -1 when it blocks for five seconds (it is killed),
// -2 when it dies.
inline int InChild(const std::function<int()> &fn) {
  const pid_t child = fork();
  if (child == 0) _exit(fn());
  for (int i = 0, wstatus = 0; i < 5000; ++i, usleep(1000)) {
    if (waitpid(child, &wstatus, WNOHANG) == child)
      return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -2;
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  return -1;
}

// A device that fails every command.
class FailingDevice : public zel::host::DeviceTransport {
 public:
  int Open(const char *, int) override { return 7; }
  int Ioctl(int, unsigned long, void *arg) override {
    return static_cast<ZELPYXCommand *>(arg)->status = STATUS_FAILURE, -1;
  }
  int Close(int) override { return 0; }
};

}  // namespace hardening
