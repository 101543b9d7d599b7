#include "sim/kmod/daemon.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>

#include "sim/emulated_kernel.h"
#include "sim/kmod/session.h"

namespace zel::kmod {
namespace {

namespace fs = std::filesystem;

// A failure to set up: the message, and the exit status 1.
struct SetupError {
  std::string what;
};

[[noreturn]] void Throw(const std::string &what, int error) {
  throw SetupError{what + ": " + std::strerror(error)};
}

sockaddr_un AddressOf(const std::string &path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    Throw(path, ENAMETOOLONG);
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return addr;
}

// The socket's directory: created 0700 when missing (with its parents).
void PrepareDirectory(const fs::path &dir) {
  if (dir.empty() || fs::exists(dir)) {
    return;
  }
  PrepareDirectory(dir.parent_path());
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    Throw(dir.string(), errno);
  }
}

// A socket file left by a daemon that died is removed; one that answers
// belongs to a running daemon and is left alone.
void RemoveStaleSocket(const std::string &path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) {
    return;
  }
  if (!S_ISSOCK(st.st_mode)) {
    throw SetupError{path + ": exists and is not a socket"};
  }
  const sockaddr_un addr = AddressOf(path);
  const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool live = probe >= 0 && ::connect(probe, reinterpret_cast<const sockaddr *>(&addr),
                                            sizeof addr) == 0;
  if (probe >= 0) ::close(probe);
  if (live) {
    throw SetupError{path + ": another zel-kmodd is serving it"};
  }
  ::unlink(path.c_str());
}

int Listen(const std::string &path) {
  PrepareDirectory(fs::path(path).parent_path());
  RemoveStaleSocket(path);
  // Bound under a temporary name and renamed once it listens, so the path
  // never names a socket that refuses connections.
  const std::string temporary = path + ".new";
  const sockaddr_un addr = AddressOf(temporary);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    Throw("socket", errno);
  }
  ::unlink(temporary.c_str());
  // Created 0600 from the start, so no other user can connect in between.
  const mode_t old = ::umask(0177);
  const int bound = ::bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
  const int error = errno;
  ::umask(old);
  if (bound != 0) {
    Throw(temporary, error);
  }
  if (::listen(fd, 128) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
    const int failed = errno;
    ::unlink(temporary.c_str());
    Throw(path, failed);
  }
  return fd;
}

// The termination signals arrive through a descriptor, so that every
// session thread leaves them blocked and the accept loop sees them.
int SignalDescriptor() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  const int fd = ::signalfd(-1, &set, SFD_CLOEXEC);
  if (fd < 0) {
    Throw("signalfd", errno);
  }
  return fd;
}

void Serve(host::DeviceTransport *device, int fd) {
  {
    FdChannel channel(fd);
    Session session(*device, channel);
    session.Run();
  }
  ::close(fd);
}

[[noreturn]] void AcceptLoop(int listener, int signals, host::DeviceTransport *device,
                             const std::string &path) {
  pollfd fds[2] = {{listener, POLLIN, 0}, {signals, POLLIN, 0}};
  for (;;) {
    if (::poll(fds, 2, -1) < 0) {
      continue;  // EINTR
    }
    if (fds[1].revents != 0) {
      break;
    }
    const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      continue;
    }
    try {
      std::thread(Serve, device, client).detach();
    } catch (const std::system_error &) {
      ::close(client);  // no thread to serve it: the client sees the end of the stream
    }
  }
  ::unlink(path.c_str());
  // The module's state goes with the process; the sessions still running
  // are cut off as the device would be on a host restart.
  std::_Exit(0);
}

}  // namespace

int RunDaemon(const DaemonOptions &options) {
  const std::string path = options.socketPath.empty() ? DefaultSocketPath() : options.socketPath;
  int listener = -1;
  int signals = -1;
  try {
    signals = SignalDescriptor();
    listener = Listen(path);
  } catch (const SetupError &e) {
    std::fprintf(stderr, "zel-kmodd: %s\n", e.what.c_str());
    return 1;
  } catch (const fs::filesystem_error &e) {
    std::fprintf(stderr, "zel-kmodd: %s: %s\n", path.c_str(), e.code().message().c_str());
    return 1;
  }
  if (options.background) {
    const pid_t pid = ::fork();
    if (pid < 0) {
      std::fprintf(stderr, "zel-kmodd: fork: %s\n", std::strerror(errno));
      return 1;
    }
    if (pid > 0) {
      std::_Exit(0);  // the socket already listens: a client may connect now
    }
    ::setsid();
  }
  auto *device = options.hostPortLimit != 0 ? new sim::EmulatedKernel(options.hostPortLimit)
                                            : new sim::EmulatedKernel();
  AcceptLoop(listener, signals, device, path);
}

}  // namespace zel::kmod
