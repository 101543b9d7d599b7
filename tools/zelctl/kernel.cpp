// zelctl kernel: the kernel switch module through the library's device
// channel, as every agent reaches it: its persistable state, its whole
// state, its counters, and a stored state handed back to it.
#include "zel/kernel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/zelctl/zelctl.h"

namespace zelctl {

namespace {

// A failed request: "zelctl: kernel: REQUEST: what the channel said: status".
[[noreturn]] void KernelFailure(const std::string &request, const std::string &said,
                                ReturnStatus status) {
  Fail("kernel", request + ": " + (said.empty() ? "" : said + ": ") + StatusText(status));
}

int KernelState(const ShowOptions &o) {
  void *blob = nullptr;
  uint32_t length = 0;
  ReturnStatus status = STATUS_OK;
  const std::string said = Quietly([&] { status = ZELPYX_StateGet(&blob, &length); });
  if (status != STATUS_OK) KernelFailure("state", said, status);
  Bytes bytes(static_cast<uint8_t *>(blob), static_cast<uint8_t *>(blob) + length);
  ZELPYX_DataFree(blob);
  const Source source{Source::kKernel, "kernel", ""};
  if (auto problem = VerifyState(bytes, false)) {
    Fail("kernel", "state: at byte " + std::to_string(problem->offset) + ": " + problem->what);
  }
  return Show(DecodeState(source, bytes), o.switchId, o.portId, o.json);
}

int Stats(const std::string &switchId) {
  void *out = nullptr;
  uint32_t length = 0;
  ReturnStatus status = STATUS_OK;
  const std::string said = Quietly(
      [&] { status = ZELPYX_CmdExec(switchId.c_str(), "stats", nullptr, 0, &out, &length); });
  if (status != STATUS_OK) KernelFailure("stats", said, status);
  std::fwrite(out, 1, length, stdout);
  if (length > 0 && static_cast<const char *>(out)[length - 1] != '\n') std::fputc('\n', stdout);
  ZELPYX_DataFree(out);
  return kExitOk;
}

int Restore(const std::string &name) {
  const Source source = ParseSource(name);
  if (source.kind == Source::kKernel) Fail(name, "the kernel cannot be restored from itself");
  const Bytes blob = ReadState(source);
  const size_t switches = DecodeState(source, blob).switches.size();
  ReturnStatus status = STATUS_OK;
  const std::string said =
      Quietly([&] { status = ZELPYX_StateInit(blob.data(), static_cast<uint32_t>(blob.size())); });
  if (status != STATUS_OK) KernelFailure("restore", said, status);
  std::printf("restored %zu switch%s from %s\n", switches, switches == 1 ? "" : "es", name.c_str());
  return kExitOk;
}

}  // namespace

void AddKernel(CLI::App &app) {
  auto *kernel = app.add_subcommand("kernel", "the kernel switch module, through its device");
  kernel->require_subcommand(1);
  auto show = std::make_shared<ShowOptions>();
  auto *cmd =
      kernel->add_subcommand("show", "show the module's persistable state (as show kernel)");
  AddShowOptions(cmd, *show, false);
  cmd->callback(
      [show] { g_exit = Show(LoadState("kernel"), show->switchId, show->portId, show->json); });
  auto state = std::make_shared<ShowOptions>();
  cmd = kernel->add_subcommand("state", "show the module's whole state, volatile parts included");
  AddShowOptions(cmd, *state, false);
  cmd->callback([state] { g_exit = KernelState(*state); });
  auto switchId = std::make_shared<std::string>();
  cmd = kernel->add_subcommand("stats", "print the module's counters (its \"stats\" command)");
  cmd->add_option("--switch", *switchId, "the counters of one switch");
  cmd->callback([switchId] { g_exit = Stats(*switchId); });
  auto from = std::make_shared<std::string>();
  cmd = kernel->add_subcommand("restore",
                               "hand a stored state to the module (it takes its state from it)");
  cmd->add_option("SOURCE", *from, "file:PATH, blob:PATH, store[:DBPATH] or desired[:DBPATH]")
      ->required();
  cmd->callback([from] { g_exit = Restore(*from); });
}

}  // namespace zelctl
