// zelctl migrate: the state moved from one place to another, only after it
// verifies.  A state file is written by the library's replace-by-rename
// writer and the store by its one-transaction save, so a failure leaves the
// target as it was.
#include <cstdio>

#include "host/feature_flags.h"
#include "tools/zelctl/zelctl.h"
#include "zel/configstore.h"
#include "zel/file.h"

namespace zelctl {

namespace {

void WriteFile(const Source &to, const Bytes &blob) {
  zel::host::SetConfigStoreFeatures(false, false);
  const ReturnStatus status =
      ZELFile_Write(to.path.c_str(), blob.data(), static_cast<uint32_t>(blob.size()));
  if (status != STATUS_OK) {
    Fail(to.name, "not written: " + StatusText(status) + "; the file is as it was");
  }
}

void WriteStore(const Source &to, const Bytes &blob) {
  UseStore(to, false);
  const uint32_t status =
      ZELState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size()));
  if (status != 0) {
    Fail(to.name, "not saved: " + StoreStatusText(status) + "; the store is as it was");
  }
}

int Migrate(const std::string &fromName, const std::string &toName) {
  const Source to = ParseSource(toName);
  if (to.kind != Source::kFile && to.kind != Source::kStore) {
    Fail(toName, "a migration writes to file:PATH or store[:DBPATH] only");
  }
  const Source from = ParseSource(fromName);
  const Bytes blob = ReadState(from);  // verified, or an input error
  const size_t switches = DecodeState(from, blob).switches.size();
  if (to.kind == Source::kFile) {
    WriteFile(to, blob);
  } else {
    WriteStore(to, blob);
  }
  std::printf("migrated %zu switch%s from %s to %s\n", switches, switches == 1 ? "" : "es",
              fromName.c_str(), toName.c_str());
  return kExitOk;
}

}  // namespace

void AddMigrate(CLI::App &app) {
  auto from = std::make_shared<std::string>();
  auto to = std::make_shared<std::string>();
  auto *cmd = app.add_subcommand(
      "migrate",
      "move the state from FROM to TO (a state file or the store, either way), only "
      "after FROM verifies; a failure leaves TO as it was");
  cmd->add_option("FROM", *from, "file:PATH, blob:PATH, store[:DBPATH], desired[:DBPATH] or kernel")
      ->required();
  cmd->add_option("TO", *to, "file:PATH or store[:DBPATH]")->required();
  cmd->callback([=] { g_exit = Migrate(*from, *to); });
}

}  // namespace zelctl
