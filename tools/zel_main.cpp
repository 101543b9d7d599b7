// The end-to-end run on embedded defaults: the in-process emulated kernel
// module stands in for the device, a working directory holds the
// configuration store's database and the state file.
//
// It builds switches of three classes in the kernel module, takes the
// persistable state from it, writes that state to the state file and to the
// configuration store, reads both back, checks that they agree, and finally
// shows a switch flagged not to be persisted being taken from the state
// file instead of the kernel.  Exit status: 0 when every check passes, 1
// when a check fails, 2 when a step cannot run at all.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "host/feature_flags.h"
#include "host/status_text.h"
#include "kernel/channel.h"
#include "sim/emulated_kernel.h"
#include "sim/state_view.h"
#include "zel/configstore.h"
#include "zel/file.h"
#include "zel/kernel.h"
#include "zel/state.h"

namespace {

namespace fs = std::filesystem;
using zel::sim::PropsView;
using zel::sim::PropView;
using zel::sim::SwitchView;
using Bytes = std::vector<uint8_t>;

constexpr const char kStoreFile[] = "configstore.db";
constexpr const char kStateFile[] = "zel.state";

// A step that cannot go on: its message, then exit status 2.
struct StepFailure {
  std::string what;
};

void Require(ReturnStatus status, const std::string &what) {
  if (status != STATUS_OK) {
    throw StepFailure{what + ": " + zel::host::PYX_ReturnStatusToString(status)};
  }
}

Bytes Text(const std::string &s) {
  Bytes b(s.begin(), s.end());
  b.push_back(0);
  return b;
}

Bytes U32(uint32_t v) {
  return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
}

// --- what the run puts into the kernel module ---

struct PortSpec {
  std::string id;
  uint32_t kind;  // PORT_KIND_*
  PropsView props;
};

struct SwitchSpec {
  std::string id;
  std::string className;
  uint32_t version;
  uint32_t maxPorts;  // 0 for the classes that take the host's limit
  PropsView global, host;
  std::vector<PortSpec> ports;
};

// Every switch carries its version and a resource-management setting: the
// store keeps a switch's ports only under that setting, and cannot load a
// switch back without its version.  Next to the properties with rows of
// their own come vendor, opaque and extra-config ones, which the store keeps
// in its catch-all lists; one of type 32 shows what it does not keep.
std::vector<SwitchSpec> Switches() {
  auto common = [](const std::string &alias, uint32_t version) {
    return PropsView{{"com.zorlan.common.alias", Text(alias), 16},
                     {"com.zorlan.common.version", U32(version), 16},
                     {"com.zorlan.common.respools.sched", {1}, 16}};
  };
  auto port = [](const std::string &alias, uint32_t connectId, const std::string &group) {
    return PropsView{{"com.zorlan.common.port.alias", Text(alias), 16},
                     {"com.zorlan.common.port.connectid", U32(connectId), 16},
                     {"com.zorlan.common.port.portgroupid", Text(group), 16},
                     {"com.zorlan.common.port.block", Text("false"), 16},
                     {"com.zorlan.port.extraConfig.vnic.external.id", Text("5000c2-" + alias), 16},
                     {"com.zorlan.common.port.volatile.stats", U32(12345), 16}};
  };
  std::vector<SwitchSpec> specs;

  SwitchSpec ether{"es-0001", "etherswitch", 6, 0, common("storage-net", 6), {}, {}};
  ether.global.push_back({"com.zorlan.etherswitch.ipv4addr", {192, 168, 10, 1}, 16});
  ether.global.push_back({"com.zorlan.etherswitch.beaconTimeout", U32(5), 16});
  ether.global.push_back({"com.acme.monitoring", Text("enabled"), 16});
  ether.global.push_back({"com.acme.flow.counters", Bytes{0xde, 0xad, 0xbe, 0xef}, 24});
  ether.global.push_back({"com.zorlan.common.stats.volatile.rx", U32(7), 16});
  ether.host = {{"com.zorlan.common.host.portset", Text("ps-es-0001"), 16},
                {"com.acme.host.role", Text("edge"), 16}};
  ether.ports = {{"100", PORT_KIND_NORMAL, port("vm-db-1", 0x1001, "pg-db")},
                 {"101", PORT_KIND_NORMAL, port("vm-db-2", 0x1002, "pg-db")},
                 {"101", PORT_KIND_SHADOW, {}}};
  specs.push_back(ether);

  SwitchSpec vsw{"sw-0002", "vswitch", 7, 0, common("tenant-net", 7), {}, {}};
  vsw.global.push_back({"com.zorlan.common.respools.version", Text("3.0"), 16});
  vsw.global.push_back({"com.zorlan.common.opaqueZel", Text("false"), 16});
  vsw.global.push_back({"com.zorlan.extraconfig.owner", Text("team-blue"), 16});
  vsw.global.push_back({"com.acme.rate.sample", Text("x"), 32});
  vsw.host = {{"com.zorlan.common.host.portset", Text("ps-sw-0002"), 16}};
  vsw.ports = {{"vnic-web-1", PORT_KIND_NORMAL, port("web-1", 0x2001, "pg-web")},
               {"vnic-web-2", PORT_KIND_NORMAL, port("web-2", 0x2002, "pg-web")},
               {"vnic-tmp", PORT_KIND_NORMAL, {{ZEL_PROP_PORT_PERSIST, {1}, 16}}},
               {"vnic-old", PORT_KIND_ZOMBIE, {}}};
  specs.push_back(vsw);

  SwitchSpec limited{"lab-0003", "labswitch", 5, 64, common("lab-net", 5), {}, {}};
  limited.global.push_back({"com.zorlan.common.resv.threshold", U32(75), 16});
  limited.host = {{"com.zorlan.common.host.portset", Text("ps-lab-0003"), 16}};
  limited.ports = {{"1", PORT_KIND_NORMAL, port("probe-1", 0x3001, "pg-lab")},
                   {"7", PORT_KIND_LOCAL_CACHE, {}}};
  specs.push_back(limited);
  return specs;
}

Bytes EncodeProps(const PropsView &props) {
  zel::sim::List list;
  Require(zel::sim::NewList(&list), "allocate a property list");
  for (const PropView &p : props) {
    Require(ZELData_Append(list.get(), p.name.c_str(), p.value.data(),
                           static_cast<uint32_t>(p.value.size()), p.type),
            "append " + p.name);
  }
  Bytes out;
  Require(zel::sim::EncodeList(list.get(), 7, &out), "encode a port's properties");
  return out;
}

void CreateInKernel(const SwitchSpec &sw) {
  const char *id = sw.id.c_str();
  Require(ZELPYX_SwitchAdd(id, sw.className.c_str(), sw.maxPorts, sw.version), "add switch " + sw.id);
  for (const PropView &p : sw.global) {
    Require(ZELPYX_GlobalPropSet(id, p.name.c_str(), p.value.data(),
                                 static_cast<uint32_t>(p.value.size()), p.type),
            "set " + p.name);
  }
  for (const PropView &p : sw.host) {
    Require(ZELPYX_HostPropSet(id, p.name.c_str(), p.value.data(),
                               static_cast<uint32_t>(p.value.size()), p.type),
            "set " + p.name);
  }
  for (const PortSpec &port : sw.ports) {
    PropsView props = port.props;
    if (port.kind != PORT_KIND_NORMAL) {
      props.insert(props.begin(), {ZEL_PROP_PORT_TYPE, U32(port.kind), 16});
    }
    const Bytes data = props.empty() ? Bytes{} : EncodeProps(props);
    Require(ZELPYX_PortAdd(id, port.id.c_str(), data.empty() ? nullptr : data.data(),
                           static_cast<uint32_t>(data.size())),
            "add port " + port.id);
  }
}

// --- reading states back ---

std::vector<SwitchView> ViewBlob(const void *blob, uint32_t length, const std::string &what) {
  std::vector<SwitchView> view;
  Require(zel::sim::ViewState(blob, length, &view), "decode " + what);
  return view;
}

// The state file or the store's state, through ZELFile_Read.
Bytes ReadBack(const std::string &statePath, bool fromStore) {
  zel::host::SetConfigStoreFeatures(fromStore, fromStore);
  void *blob = nullptr;
  int32_t length = 0;
  uint32_t offset = 0;
  const ReturnStatus status = ZELFile_Read(statePath.c_str(), &blob, &length, &offset);
  zel::host::SetConfigStoreFeatures(false, false);
  Require(status, fromStore ? "read the configuration store" : "read the state file");
  const auto *bytes = static_cast<const uint8_t *>(blob);
  Bytes out(bytes, bytes + std::max(length, 0));
  std::free(static_cast<uint8_t *>(blob) - offset);
  return out;
}

Bytes Persist(const std::string &statePath) {
  void *blob = nullptr;
  uint32_t length = 0;
  Require(ZELPYX_PersistentStateGetWithFile(&blob, &length, statePath.c_str()),
          "take the persistable state");
  const auto *bytes = static_cast<const uint8_t *>(blob);
  Bytes out(bytes, bytes + length);
  std::free(blob);
  return out;
}

// --- checks ---

class Checks {
 public:
  bool Check(bool ok, const std::string &what) {
    std::printf("  [%s] %s\n", ok ? "ok" : "FAILED", what.c_str());
    ++total_;
    failed_ += ok ? 0 : 1;
    return ok;
  }
  int total() const { return total_; }
  int failed() const { return failed_; }

 private:
  int total_ = 0, failed_ = 0;
};

const SwitchView *Find(const std::vector<SwitchView> &switches, const std::string &id) {
  for (const SwitchView &sw : switches) {
    if (sw.id == id) return &sw;
  }
  return nullptr;
}

std::string Join(std::vector<std::string> items) {
  std::sort(items.begin(), items.end());
  std::string out;
  for (const std::string &s : items) out += (out.empty() ? "" : ", ") + s;
  return out.empty() ? "none" : out;
}

std::vector<std::string> SwitchIds(const std::vector<SwitchView> &switches) {
  std::vector<std::string> ids;
  for (const SwitchView &sw : switches) ids.push_back(sw.id);
  return ids;
}

std::vector<std::string> PortIds(const SwitchView &sw) {
  std::vector<std::string> ids;
  for (const auto &port : sw.ports) ids.push_back(port.id);
  return ids;
}

std::string Describe(const PropView &p) {
  return p.name + " (type " + std::to_string(p.type) + ", " + std::to_string(p.value.size()) +
         " bytes)";
}

// The store keeps a property only when its type has bit 0x08 or 0x10, gives
// back the properties of a list in its own order, and keeps each value and
// type the way this run writes them.  So the lists are compared as sets of
// (name, type, value) after setting aside, on the file's side, what the
// store never takes; *notCarried counts those.
bool SameCarriedProps(const PropsView &fromFile, const PropsView &fromStore, int *notCarried,
                      std::string *difference) {
  auto byName = [](PropsView props) {
    std::sort(props.begin(), props.end(),
              [](const PropView &a, const PropView &b) { return a.name < b.name; });
    return props;
  };
  PropsView carried;
  for (const PropView &p : fromFile) {
    if ((p.type & 0x18) != 0) {
      carried.push_back(p);
    } else {
      ++*notCarried;
    }
  }
  const PropsView a = byName(carried), b = byName(fromStore);
  for (size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
    if (i >= a.size() || i >= b.size() || !(a[i] == b[i])) {
      *difference = i < a.size() ? "file has " + Describe(a[i]) : "";
      *difference += i < b.size() ? std::string(difference->empty() ? "" : ", ") + "store has " +
                                        Describe(b[i])
                                  : "";
      return false;
    }
  }
  return true;
}

void CompareSwitch(const SwitchView &file, const SwitchView &store, Checks *checks) {
  checks->Check(file.className == store.className && file.version == store.version &&
                    file.maxPorts == store.maxPorts,
                file.id + ": class " + file.className + ", version " +
                    std::to_string(file.version) + ", maxPorts " + std::to_string(file.maxPorts) +
                    (file.className == store.className && file.version == store.version &&
                             file.maxPorts == store.maxPorts
                         ? " on both sides"
                         : " in the file; the store has class " + store.className + ", version " +
                               std::to_string(store.version) + ", maxPorts " +
                               std::to_string(store.maxPorts)));
  checks->Check(Join(PortIds(file)) == Join(PortIds(store)),
                file.id + ": ports " + Join(PortIds(file)) +
                    (Join(PortIds(file)) == Join(PortIds(store))
                         ? " on both sides"
                         : "; the store has " + Join(PortIds(store))));
  int notCarried = 0, compared = 0;
  std::string difference;
  bool same = SameCarriedProps(file.global, store.global, &notCarried, &difference) &&
              SameCarriedProps(file.host, store.host, &notCarried, &difference);
  compared += static_cast<int>(file.global.size() + file.host.size());
  for (const auto &port : file.ports) {
    compared += static_cast<int>(port.props.size());
    const auto it = std::find_if(store.ports.begin(), store.ports.end(),
                                 [&](const auto &p) { return p.id == port.id; });
    same = same && it != store.ports.end() &&
           SameCarriedProps(port.props, it->props, &notCarried, &difference);
  }
  std::string what = file.id + ": " + std::to_string(compared - notCarried) +
                     " switch, host and port properties agree";
  if (notCarried != 0) {
    what += " (" + std::to_string(notCarried) +
            " of a type the store does not keep, left out of the comparison)";
  }
  checks->Check(same, same ? what : file.id + ": properties differ: " + difference);
}

size_t CountProps(const std::vector<SwitchView> &switches) {
  size_t n = 0;
  for (const SwitchView &sw : switches) {
    n += sw.global.size() + sw.host.size();
    for (const auto &port : sw.ports) n += port.props.size();
  }
  return n;
}

size_t CountPorts(const std::vector<SwitchView> &switches) {
  size_t n = 0;
  for (const SwitchView &sw : switches) n += sw.ports.size();
  return n;
}

bool HasVolatileName(const std::vector<SwitchView> &switches) {
  auto any = [](const PropsView &props) {
    return std::any_of(props.begin(), props.end(), [](const PropView &p) {
      return p.name.find(".volatile.") != std::string::npos;
    });
  };
  for (const SwitchView &sw : switches) {
    if (any(sw.global) || any(sw.host)) return true;
    for (const auto &port : sw.ports) {
      if (any(port.props)) return true;
    }
  }
  return false;
}

const PropView *Lookup(const PropsView &props, const std::string &name) {
  for (const PropView &p : props) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

// A fresh working directory: created when missing; when it exists, only
// files this run makes may be in it, and they are removed.
void PrepareWorkdir(const fs::path &dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) throw StepFailure{"create " + dir.string() + ": " + ec.message()};
  for (const auto &entry : fs::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(kStoreFile, 0) != 0 && name.rfind(kStateFile, 0) != 0) {
      throw StepFailure{dir.string() + " holds " + name + ", which this run did not make; " +
                        "give an empty or new directory with --workdir"};
    }
  }
  for (const auto &entry : fs::directory_iterator(dir)) fs::remove(entry.path());
}

int Run(const fs::path &workdir) {
  PrepareWorkdir(workdir);
  const std::string storePath = (workdir / kStoreFile).string();
  const std::string statePath = (workdir / kStateFile).string();
  setenv("ZEL_CONFIGSTORE_PATH", storePath.c_str(), 1);
  zel::host::SetConfigStoreFeatures(false, false);

  zel::sim::EmulatedKernel kernel;
  zel::kernel::ScopedTransport useEmulator(&kernel);
  std::printf("zel main job in %s\n", workdir.string().c_str());
  std::printf("  device: the in-process emulated kernel module\n");
  std::printf("  configuration store: %s\n  state file: %s\n\n", storePath.c_str(),
              statePath.c_str());

  std::printf("1. switches created in the kernel module\n");
  const std::vector<SwitchSpec> specs = Switches();
  for (const SwitchSpec &sw : specs) {
    CreateInKernel(sw);
    std::printf("  %-9s %-12s version %u, %zu ports, %zu global and %zu host properties\n",
                sw.id.c_str(), sw.className.c_str(), sw.version, sw.ports.size(),
                sw.global.size(), sw.host.size());
  }
  void *raw = nullptr;
  uint32_t rawLength = 0;
  Require(ZELPYX_StateGet(&raw, &rawLength), "fetch the kernel's state");
  const std::vector<SwitchView> kernelView = ViewBlob(raw, rawLength, "the kernel's state");
  ZELPYX_DataFree(raw);

  std::printf("\n2. persistable state taken from the kernel module\n");
  const Bytes persisted = Persist(statePath);
  const std::vector<SwitchView> persistedView = ViewBlob(persisted.data(),
                                                         uint32_t(persisted.size()), "the state");
  std::printf("  %zu switches, %zu ports, %zu properties, %zu bytes (the kernel holds %zu ports "
              "and %zu properties)\n",
              persistedView.size(), CountPorts(persistedView), CountProps(persistedView),
              persisted.size(), CountPorts(kernelView), CountProps(kernelView));

  std::printf("\n3. written\n");
  Require(ZELFile_Write(statePath.c_str(), persisted.data(), uint32_t(persisted.size())),
          "write the state file");
  std::printf("  state file: %ju bytes on disk\n", uintmax_t(fs::file_size(statePath)));
  if (const uint32_t saved = ZELState_SaveToConfigStore(); saved != 0) {
    throw StepFailure{"save to the configuration store: status " + std::to_string(saved)};
  }
  std::printf("  configuration store: %zu switch objects saved\n", persistedView.size());

  std::printf("\n4. read back\n");
  const Bytes fromFile = ReadBack(statePath, false);
  const Bytes fromStore = ReadBack(statePath, true);
  const std::vector<SwitchView> fileView = ViewBlob(fromFile.data(), uint32_t(fromFile.size()),
                                                    "the state file");
  const std::vector<SwitchView> storeView = ViewBlob(fromStore.data(), uint32_t(fromStore.size()),
                                                     "the configuration store's state");
  std::printf("  state file: %zu bytes; configuration store: a state of %zu bytes\n",
              fromFile.size(), fromStore.size());

  std::printf("\n5. checks\n");
  Checks checks;
  const bool padded =
      fromFile.size() >= persisted.size() && fromFile.size() % 512 == 0 &&
      std::equal(persisted.begin(), persisted.end(), fromFile.begin()) &&
      std::all_of(fromFile.begin() + persisted.size(), fromFile.end(), [](uint8_t b) { return b == 0; });
  checks.Check(padded, "the state file gives back the persisted state byte for byte "
                       "(zero-padded to whole 512-byte blocks)");
  checks.Check(Join(SwitchIds(persistedView)) == Join(SwitchIds(kernelView)),
               "every switch of the kernel is persisted: " + Join(SwitchIds(persistedView)));
  checks.Check(!HasVolatileName(persistedView) && HasVolatileName(kernelView),
               "names containing \".volatile.\" are left out of the persisted state");
  size_t persistable = 0;
  for (const SwitchSpec &sw : specs) {
    persistable += std::count_if(sw.ports.begin(), sw.ports.end(), [](const PortSpec &p) {
      return p.kind == PORT_KIND_NORMAL && Lookup(p.props, ZEL_PROP_PORT_PERSIST) == nullptr;
    });
  }
  checks.Check(CountPorts(persistedView) == persistable,
               "only normal ports without \"" ZEL_PROP_PORT_PERSIST "\" are persisted: " +
                   std::to_string(CountPorts(persistedView)) + " of " +
                   std::to_string(CountPorts(kernelView)));
  checks.Check(Join(SwitchIds(storeView)) == Join(SwitchIds(fileView)),
               "the configuration store and the state file hold the same switches: " +
                   Join(SwitchIds(storeView)));
  for (const SwitchView &sw : fileView) {
    if (const SwitchView *stored = Find(storeView, sw.id)) CompareSwitch(sw, *stored, &checks);
  }

  std::printf("\n6. a switch flagged \"" ZEL_PROP_NOPERSIST "\"\n");
  const std::string flagged = "sw-0002";
  Require(ZELPYX_GlobalPropSet(flagged.c_str(), ZEL_PROP_NOPERSIST, "\1", 1, 16), "flag " + flagged);
  Require(ZELPYX_GlobalPropSet(flagged.c_str(), "com.zorlan.common.alias", "changed", 8, 16),
          "change the alias of " + flagged);
  Require(ZELPYX_PortAdd(flagged.c_str(), "vnic-new", nullptr, 0), "add a port to " + flagged);
  std::printf("  %s flagged in the kernel, its alias changed and a port added\n", flagged.c_str());
  const Bytes again = Persist(statePath);
  const std::vector<SwitchView> againView = ViewBlob(again.data(), uint32_t(again.size()),
                                                     "the second state");
  const SwitchView *stored = Find(againView, flagged);
  const SwitchView *before = Find(fileView, flagged);
  const PropView *storedAlias = stored ? Lookup(stored->global, "com.zorlan.common.alias") : nullptr;
  const PropView *aliasBefore = before ? Lookup(before->global, "com.zorlan.common.alias") : nullptr;
  checks.Check(storedAlias != nullptr && aliasBefore != nullptr && *storedAlias == *aliasBefore &&
                   Join(PortIds(*stored)) == Join(PortIds(*before)),
               flagged + " comes from the state file, not from the kernel (alias and ports as "
                         "stored)");
  checks.Check(Join(SwitchIds(againView)) == Join(SwitchIds(fileView)),
               "the other switches still come from the kernel: " + Join(SwitchIds(againView)));

  std::printf("\n%s: %d of %d checks passed\n", checks.failed() == 0 ? "result" : "RESULT",
              checks.total() - checks.failed(), checks.total());
  return checks.failed() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"libzel end to end: kernel module (emulated), state file and configuration store"};
  std::string workdir = "work-main";
  bool verbose = false;
  app.add_option("--workdir", workdir,
                 "working directory for the store and the state file (emptied of earlier runs)");
  app.add_flag("--verbose", verbose, "print the configuration store's trace");
  CLI11_PARSE(app, argc, argv);
  zelconfigstore_debug = verbose ? 10 : 0;
  try {
    return Run(workdir);
  } catch (const StepFailure &failure) {
    std::fflush(stdout);
    std::fprintf(stderr, "zel_main: %s\n", failure.what.c_str());
    return 2;
  } catch (const std::exception &e) {
    std::fflush(stdout);
    std::fprintf(stderr, "zel_main: %s\n", e.what());
    return 2;
  }
}
