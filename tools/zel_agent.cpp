// zel_agent: a small management agent that uses only libzel's public API.
// Run with libzel_devshim.so preloaded it drives zel-kmodd, the emulated
// kernel module shared by every process (see tools/run-restart.sh).
//
//   zel_agent populate                 switches, ports and properties
//   zel_agent add-switch NAME          one switch (class vswitch, version 7)
//   zel_agent add-ports NAME PREFIX N  ports PREFIX-0 .. PREFIX-(N-1)
//   zel_agent count NAME               prints the switch's normal ports
//   zel_agent stats                    prints the module's own summary
//   zel_agent persist file:PATH|store  the persistable state, written
// Restoring and comparing are zelctl's (kernel restore, diff kernel ...).
// The store is the one ZEL_CONFIGSTORE_PATH names.  Exit status: 0 done,
// 2 a step failed.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "zel/configstore.h"
#include "zel/file.h"
#include "zel/kernel.h"
#include "zel/state.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Failure {
  std::string what;
};

void Require(ReturnStatus status, const std::string &what) {
  if (status != STATUS_OK) {
    char text[32];
    std::snprintf(text, sizeof text, "status 0x%08x", status);
    throw Failure{what + ": " + text};
  }
}

Bytes Text(const std::string &s) { return Bytes(s.c_str(), s.c_str() + s.size() + 1); }
Bytes U32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }

void SetGlobal(const char *sw, const char *name, const Bytes &value) {
  Require(ZELPYX_GlobalPropSet(sw, name, value.data(), uint32_t(value.size()), 16),
          std::string("set ") + name + " on " + sw);
}

void AddSwitch(const std::string &name, const char *className, uint32_t version) {
  const char *sw = name.c_str();
  Require(ZELPYX_SwitchAdd(sw, className, 0, version), "add switch " + name);
  // The store keeps a switch only with its version, and its ports only
  // under a resource-management setting.
  SetGlobal(sw, "com.zorlan.common.version", U32(version));
  SetGlobal(sw, "com.zorlan.common.respools.sched", {1});
}

void AddPort(const std::string &sw, const std::string &port, uint32_t connectId) {
  Require(ZELPYX_PortAdd(sw.c_str(), port.c_str(), nullptr, 0), "add port " + sw + "/" + port);
  const std::pair<const char *, Bytes> props[] = {
      {"com.zorlan.common.port.alias", Text("vm-" + port)},
      {"com.zorlan.common.port.connectid", U32(connectId)},
      {"com.zorlan.common.port.portgroupid", Text("pg-" + sw)},
      {"com.zorlan.common.port.volatile.stats", U32(connectId * 7)}};
  for (const auto &[name, value] : props) {
    Require(ZELPYX_PortDataSet(sw.c_str(), port.c_str(), name, value.data(),
                               uint32_t(value.size()), 16),
            "set " + std::string(name) + " on " + sw + "/" + port);
  }
}

void Populate() {
  AddSwitch("sw-blue", "etherswitch", 6);
  SetGlobal("sw-blue", "com.zorlan.common.alias", Text("storage-net"));
  SetGlobal("sw-blue", "com.acme.monitoring", Text("enabled"));
  Require(ZELPYX_HostPropSet("sw-blue", "com.zorlan.common.host.portset", "ps-blue", 8, 16),
          "set the host portset of sw-blue");
  for (uint32_t i = 0; i < 4; ++i) AddPort("sw-blue", std::to_string(100 + i), 0x1000 + i);

  AddSwitch("sw-green", "vswitch", 7);
  SetGlobal("sw-green", "com.zorlan.common.alias", Text("tenant-net"));
  SetGlobal("sw-green", "com.zorlan.extraconfig.owner", Text("team-green"));
  for (uint32_t i = 0; i < 3; ++i) AddPort("sw-green", "vnic-" + std::to_string(i), 0x2000 + i);
}

uint32_t CountPorts(const std::string &sw) {
  ZELPYXPortList *list = nullptr;
  Require(ZELPYX_SwitchPortList(sw.c_str(), &list, PORT_KIND_NORMAL), "list the ports of " + sw);
  const uint32_t count = list->count;
  ZELPYX_DataFree(list);
  return count;
}

Bytes PersistableState() {
  void *blob = nullptr;
  uint32_t length = 0;
  Require(ZELPYX_PersistentStateGetWithFile(&blob, &length, nullptr),
          "fetch the persistable state");
  Bytes out(static_cast<uint8_t *>(blob), static_cast<uint8_t *>(blob) + length);
  std::free(blob);
  return out;
}

void Persist(const std::string &target) {
  const Bytes state = PersistableState();
  if (target == "store") {
    if (const uint32_t status = ZELState_SaveBufToConfigStore(state.data(), uint32_t(state.size()))) {
      throw Failure{"save to the store: status " + std::to_string(status)};
    }
  } else if (target.rfind("file:", 0) == 0) {
    Require(ZELFile_WriteClassical(target.c_str() + 5, state.data(), uint32_t(state.size()), 1),
            "write " + target);
  } else {
    throw Failure{target + ": expected file:PATH or store"};
  }
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"a small agent on libzel's public API"};
  app.require_subcommand(1);
  std::string name, prefix, where;
  uint32_t count = 0;

  app.add_subcommand("populate", "create switches, ports and properties")->callback(Populate);
  auto *addSwitch = app.add_subcommand("add-switch", "add one switch");
  addSwitch->add_option("NAME", name)->required();
  addSwitch->callback([&] { AddSwitch(name, "vswitch", 7); });
  auto *addPorts = app.add_subcommand("add-ports", "add ports PREFIX-0 .. PREFIX-(N-1)");
  addPorts->add_option("NAME", name)->required();
  addPorts->add_option("PREFIX", prefix)->required();
  addPorts->add_option("N", count)->required();
  addPorts->callback([&] {
    for (uint32_t i = 0; i < count; ++i) AddPort(name, prefix + "-" + std::to_string(i), i);
  });
  auto *countCmd = app.add_subcommand("count", "print the number of normal ports of a switch");
  countCmd->add_option("NAME", name)->required();
  countCmd->callback([&] { std::printf("%u\n", CountPorts(name)); });
  app.add_subcommand("stats", "print the module's summary of the host")->callback([] {
    void *out = nullptr;
    uint32_t length = 0;
    Require(ZELPYX_CmdExec("", "stats", nullptr, 0, &out, &length), "run the module's stats");
    std::fwrite(out, 1, length, stdout);
    ZELPYX_DataFree(out);
  });
  auto *persist = app.add_subcommand("persist", "persist the state (file:PATH or store)");
  persist->add_option("WHERE", where)->required();
  persist->callback([&] { Persist(where); });
  zelconfigstore_debug = 0;
  try {
    CLI11_PARSE(app, argc, argv);
  } catch (const Failure &failure) {
    std::fflush(stdout);
    std::fprintf(stderr, "zel_agent: %s\n", failure.what.c_str());
    return 2;
  }
  return 0;
}
