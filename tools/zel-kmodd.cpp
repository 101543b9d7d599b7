// zel-kmodd: serves the emulated kernel switch module to every process on
// the machine (see sim/kmod/daemon.h and the frame protocol in
// sim/kmod/frame.h).  Programs reach it through libzel_devshim.so.
#include <CLI/CLI.hpp>

#include "sim/kmod/daemon.h"

int main(int argc, char **argv) {
  zel::kmod::DaemonOptions options;
  CLI::App app{"The emulated kernel switch module, served on a Unix socket; its state lives "
               "only as long as the daemon"};
  app.add_option("--socket", options.socketPath,
                 "socket path (default $XDG_RUNTIME_DIR/zel/kmod.sock, else /run/zel/kmod.sock)");
  app.add_flag("--background", options.background,
               "detach once the socket listens (default: stay in the foreground)");
  app.add_option("--host-port-limit", options.hostPortLimit,
                 "the host's system-wide port limit (default 4096)")
      ->check(CLI::Range(1u, 1u << 20));
  CLI11_PARSE(app, argc, argv);
  return zel::kmod::RunDaemon(options);
}
