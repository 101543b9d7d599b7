// The conversions seen from zelctl: a property through its save case into a
// scratch object, and a stored switch object through the load cases of every
// row, each problem named by its key.
#include "configstore/inspect.h"

#include <cstdlib>
#include <memory>

#include "configstore/kinds.h"

namespace zel::persist {

namespace {

struct ObjectDeleter {
  void operator()(cs::Object *o) const { cs::DestroyConfigStoreObject(o); }
};
using ObjectPtr = std::unique_ptr<cs::Object, ObjectDeleter>;

struct TextDeleter {
  void operator()(char *p) const { std::free(p); }
};
using TextPtr = std::unique_ptr<char, TextDeleter>;

struct ListDeleter {
  void operator()(PropertyList *l) const { ZELData_Free(l); }
};
using ListPtr = std::unique_ptr<PropertyList, ListDeleter>;

void *MallocBytes(uint64_t n) { return std::malloc(n); }

// Keeps the library's current-switch variables as they were.
class CurrentSwitch {
 public:
  CurrentSwitch(int32_t cls, bool qor) : cls_(currentSwitchClass), qor_(currentSwitchIsQor) {
    currentSwitchClass = cls;
    currentSwitchIsQor = qor;
  }
  ~CurrentSwitch() {
    currentSwitchClass = cls_;
    currentSwitchIsQor = qor_;
  }
  CurrentSwitch(const CurrentSwitch &) = delete;
  CurrentSwitch &operator=(const CurrentSwitch &) = delete;

 private:
  int32_t cls_;
  bool qor_;
};

// Runs the load case of every row of a table over `owner` into a scratch
// list; the first failing row is a problem (the load stops there too).
void CheckRows(cs::Object *owner, uint32_t tableIndex, uint32_t version,
               cs::Object *resourceManagement, const std::string &where,
               std::vector<ObjectProblem> *out) {
  PropertyList *raw = nullptr;
  if (ZELData_Alloc(&raw, MallocBytes, std::free) != STATUS_OK) {
    out->push_back({where, "out of memory", kFailure});
    return;
  }
  ListPtr list(raw);
  auto run = [&](const LoadArgs &args, uint32_t kind, const std::string &key) {
    const KindCase *c = FindKind(kind);
    uint32_t status = kFailure;
    try {
      status = c != nullptr ? c->load(args) : kFailure;
    } catch (...) {
    }
    if (status != 0) {
      out->push_back(
          {key,
           std::string("\"") + args.name + "\" (kind " + std::to_string(kind) + ") does not load",
           status});
    }
    return status == 0;
  };
  for (const PropToConfigEntry *row = GetConfigMap(static_cast<int>(tableIndex));
       row != nullptr && row->name != nullptr; ++row) {
    cs::Object *parent = nullptr;
    const uint32_t resolved = ResolvePropPath(row->path, row->depth, owner, &parent, false);
    std::string key;
    for (uint32_t i = 0; i < row->depth; ++i) {
      if (i > 0) key += '/';
      key += row->path[i];
    }
    if (resolved == kAbsent || row->kind == kKindPortResourcePools) continue;
    if (resolved != 0) {
      out->push_back({where + key, "path does not resolve", resolved});
      return;
    }
    const LoadArgs args{owner,     parent,     RowKey(*row), list.get(),
                        row->name, row->flags, tableIndex,   version};
    if (!run(args, row->kind, where + key)) return;
  }
  if (tableIndex == kTablePort && resourceManagement != nullptr) {
    const LoadArgs args{owner,
                        resourceManagement,
                        "traffic_resources",
                        list.get(),
                        "com.zorlan.common.port.respools.cfg",
                        kLibraryType,
                        tableIndex,
                        version};
    run(args, kKindPortResourcePools, "resource_management/traffic_resources");
  }
}

void CheckPorts(cs::Object *object, uint32_t version, std::vector<ObjectProblem> *out) {
  cs::Filter *filter = nullptr;
  cs::Object **elements = nullptr;
  int count = 0;
  int status = cs::CreateFilterSpecObject("ports", "", "", "", &filter);
  if (status == cs::kOk) status = cs::GetSubObjectInstances(object, filter, &elements, &count);
  cs::DestroyFilterSpecObject(filter);
  cs::Object *resourceManagement = nullptr;
  if (status == cs::kOk) {
    status = cs::GetSubObject(object, "resource_management", "", &resourceManagement);
  }
  if (status != cs::kOk) {
    if (status != cs::kNotFound) {
      out->push_back({"ports", "ports unreadable", Status(status)});
    }
    std::free(elements);
    return;
  }
  char **uplinks = nullptr;
  int numUplinks = 0;
  cs::GetValueStringArray(object, "uplink_port_keys", &uplinks, &numUplinks);
  for (int i = 0; i < count; ++i) {
    char *raw = nullptr;
    if (cs::GetValueStr(elements[i], "key", &raw) != cs::kOk) continue;  // the load skips it
    TextPtr key(raw);
    const bool uplink = StringExistInArray(key.get(), uplinks, numUplinks);
    CheckRows(elements[i], kTablePort, version, uplink ? resourceManagement : nullptr,
              "ports[" + std::string(key.get()) + "]/", out);
  }
  cs::DestroyStringArrayValue(&uplinks, numUplinks);
  std::free(elements);
}

}  // namespace

uint32_t DescribeProperty(uint32_t tableIndex, const char *className, uint32_t version,
                          const char *name, const void *value, uint32_t length, std::string *json) {
  json->clear();
  CurrentSwitch current(ClassCode(className), version > 99);
  cs::Object *raw = nullptr;
  if (int s = cs::CreateObject(kSwitchSel1, kSwitchSel2, kSwitchSel3, "describe", "{}", &raw);
      s != cs::kOk) {
    return Status(s);
  }
  ObjectPtr root(raw);
  cs::Object *owner = root.get();
  if (tableIndex == kTablePort) {
    if (int s = cs::CreateSubObject(root.get(), "ports", "port", &owner); s != cs::kOk) {
      return Status(s);
    }
  }
  // Conversions are run whatever the type word: a property a save would
  // pass over still shows what it holds.
  const uint32_t status =
      SavePropToConfigStore(owner, name, value, length, tableIndex, kPersistTypeBits);
  if (status != 0) return status;
  char *text = nullptr;
  if (int s = cs::ExportObjectJson(owner, &text); s != cs::kOk) return Status(s);
  json->assign(text);
  std::free(text);
  return 0;
}

std::vector<ObjectProblem> CheckSwitchObject(cs::Object *object) {
  std::vector<ObjectProblem> out;
  auto missing = [&](const char *key, const char *what, uint32_t status) {
    out.push_back({key, std::string(status == kAbsent ? "no " : "unreadable ") + what, status});
  };
  char *raw = nullptr;
  if (int s = cs::GetValueStr(object, "uuid", &raw); s != cs::kOk)
    missing("uuid", "uuid", Status(s));
  std::free(raw);
  raw = nullptr;
  cs::Object *product = nullptr;
  if (int s = cs::GetSubObject(object, "product", "", &product); s != cs::kOk) {
    missing("product", "product", Status(s));
    return out;
  }
  if (int s = cs::GetValueStr(product, "forwarding_class", &raw); s != cs::kOk) {
    missing("product/forwarding_class", "forwarding class", Status(s));
  }
  TextPtr className(raw);
  int32_t maxPorts = 0;
  if (int s = cs::GetValueInt(object, "max_ports", &maxPorts); s != cs::kOk) {
    missing("max_ports", "max_ports", Status(s));
  }
  raw = nullptr;
  if (int s = cs::GetValueStr(product, "version", &raw); s != cs::kOk) {
    missing("product/version", "version", Status(s));
    return out;
  }
  TextPtr versionText(raw);
  uint32_t version = 0;
  if (GetConfigSwitchVersion(object, &version) != 0) {
    out.push_back({"product/version", "unknown version \"" + std::string(versionText.get()) + "\"",
                   kFailure});
    return out;
  }
  CurrentSwitch current(ClassCode(className.get()), version > 99);
  CheckRows(object, kTableGlobal, version, nullptr, "", &out);
  CheckRows(object, kTableHost, version, nullptr, "", &out);
  CheckPorts(object, version, &out);
  return out;
}

}  // namespace zel::persist
