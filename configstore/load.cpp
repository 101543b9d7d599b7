// Loading the stored switch objects back into a state blob: every row of the
// three mapping tables is read from each switch object (and from each of its
// port elements) into property lists, nested the way the state serialization
// nests them.  Nothing is written to the store and the state database is
// not touched.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "data/property_list_internal.h"
#include "host/host_limits.h"
#include "host/status_text.h"
#include "state/state_db.h"

namespace zel::persist {

namespace {

constexpr uint32_t kOuterVersion = 5;
constexpr const char *kPortPoolsName = "com.zorlan.common.port.respools.cfg";
constexpr const char *kPortPoolsKey = "traffic_resources";

// Entries of the per-switch list other than ports; a port element whose key
// is one of them would overwrite it, so such a port is not loaded.
constexpr const char *kSwitchListNames[] = {"switchVersion", "className", "maxPorts",
                                            "globalPropList", "hostPropList"};

void *MallocAlloc(uint64_t bytes) { return std::malloc(bytes); }
ZELDataAllocFn g_allocFn = MallocAlloc;
ZELDataFreeFn g_freeFn = std::free;


bool IsSwitchListName(const char *name) {
  for (const char *reserved : kSwitchListNames) {
    if (std::strcmp(reserved, name) == 0) {
      return true;
    }
  }
  return false;
}

// What decoding the returned blob into an empty state database accepts.
// Every blob a load returns with status 0 must decode whole and hold every
// switch the load read: the decoder refuses a switch it cannot rebuild and
// then empties the whole table, so one switch object edited by hand would
// cost every switch.  The load therefore fails, with a message naming the
// switch, where the decoder would refuse it (more switch objects than the
// table holds, a uuid too long for a switch id or met twice, which the outer
// list would otherwise silently merge, ports beyond the switch's or the
// host's limit), and passes over a port whose key is too long for a port id,
// as it passes over a port whose key it cannot read.
struct DecodeRoom {
  uint32_t hostPorts = 0;      // the host's port limit, as the decoder reads it
  uint64_t portsLoaded = 0;    // ports of the switches loaded so far
};

// The limit the state database has read, else the one it would read; when
// it cannot be read no blob decodes on this host, and no check is made.
uint32_t HostPortLimit() {
  uint32_t limit = zel::state::MaxPortsSystemWide();
  if (limit == 0 && zel::host::KernelInfoGetMaxPortsSystemWide(&limit) != STATUS_OK) {
    limit = UINT32_MAX;
  }
  return limit;
}

// How a list is added to the switch list: in place of an entry of the same
// name, as ZELData_Update adds it, or appended, without a walk over the
// switch list, for a name the list cannot hold yet (a port's: see LoadPorts).
enum class Put { kUpdate, kAppend };

// Serializes `inner` with `version` into `outer` under `name` (type 16).
ReturnStatus Nest(PropertyList *outer, const char *name, PropertyList *inner, uint32_t version,
                  Put put) {
  if (put == Put::kAppend) {
    return zel::data::AppendSerialized(outer, name, inner, version, kLibraryType);
  }
  return zel::data::SerializeInto(outer, name, inner, version, kLibraryType, ZELData_Update);
}

// The outer list of the blob: one entry per switch, named by its uuid.  Each
// switch's list is kept as it is until every switch has loaded, and then
// written once, straight into the blob, instead of being copied into an
// entry of the outer list and the outer list into the blob.  While the data
// layer traces (zeldata_debug >= 2) each switch list is nested into the
// outer list as it loads, so that the traces come out as they always have.
class OuterList {
 public:
  OuterList() = default;
  OuterList(const OuterList &) = delete;
  OuterList &operator=(const OuterList &) = delete;
  ~OuterList() {
    ZELData_Free(list_);
    for (const Switch &sw : switches_) {
      ZELData_Free(sw.list);
    }
  }

  bool Create() {
    if (ZELData_Alloc(&list_, g_allocFn, g_freeFn) != STATUS_OK) {
      list_ = nullptr;
      return false;
    }
    switches_.reserve(ZEL_MAX_SWITCHES);
    return true;
  }

  bool Has(const char *uuid) const {
    for (const Switch &sw : switches_) {
      if (sw.uuid == uuid) {
        return true;
      }
    }
    PropertyEntry *existing = nullptr;
    return ZELData_Lookup(list_, uuid, &existing) == STATUS_OK;
  }

  // Adds the list of a switch whose uuid the list does not hold; takes the
  // list over on success.
  ReturnStatus Add(const char *uuid, PropertyList *&list, uint32_t version) {
    if (!direct_) {  // the uuid is new: the entry is appended without a search
      return zel::data::AppendSerialized(list_, uuid, list, version, kLibraryType);
    }
    const uint32_t size = list->serialSize;
    const uint64_t entryLength = zel::data::EntryLengthFor(size);
    if (size > zel::data::kMaxDataLength || total_ + entryLength > 0xFFFFFFFFu) {
      return STATUS_BAD_PARAM;  // what appending it to the outer list gives
    }
    switches_.push_back(Switch{uuid, list});
    list = nullptr;
    total_ += entryLength;
    return STATUS_OK;
  }

  // The blob: the outer list serialized with the outer version.
  ReturnStatus Serialize(void **blob, uint32_t *length) {
    if (!direct_) {
      return ZELData_Serialize(list_, blob, length, kOuterVersion);
    }
    std::vector<zel::data::NamedList> lists;
    lists.reserve(switches_.size());
    for (const Switch &sw : switches_) {
      lists.push_back({sw.uuid.c_str(), sw.list});
    }
    return zel::data::SerializeLists(lists.data(), lists.size(), static_cast<uint32_t>(total_),
                                     kLibraryType, g_allocFn, g_freeFn, blob, length);
  }

 private:
  struct Switch {
    std::string uuid;
    PropertyList *list;
  };
  const bool direct_ = zeldata_debug < 2;
  PropertyList *list_ = nullptr;
  std::vector<Switch> switches_;
  uint64_t total_ = zel::data::kHeaderSize + zel::data::kEndMarkerSize;
};

// Whether a switch id of the uuid's length fits, and the outer list does not
// hold it yet.
uint32_t CheckSwitchId(const char *uuid, const OuterList &outer) {
  if (std::strlen(uuid) >= ZEL_SWITCH_ID_SIZE) {
    CS_ERROR("Switch uuid %s is longer than %u characters\n", uuid, ZEL_SWITCH_ID_SIZE - 1);
    return kFailure;
  }
  if (outer.Has(uuid)) {
    CS_ERROR("Duplicate switch uuid %s in configstore\n", uuid);
    return kFailure;
  }
  return 0;
}

// Whether the ports of a switch fit its maxPorts and the host's limit, as
// the decoder adds them after the ports of the switches before it; a class
// with flags takes the host's limit as its maxPorts.
uint32_t CheckPortRoom(const char *uuid, const char *className, int32_t maxPorts,
                       PropertyList *switchList, DecodeRoom *room) {
  uint64_t ports = 0;
  for (PropertyEntry *e = nullptr; ZELData_Next(switchList, e, &e) == STATUS_OK;) {
    ++ports;
  }
  ports -= sizeof kSwitchListNames / sizeof kSwitchListNames[0];
  const uint64_t freePorts =
      room->hostPorts - std::min<uint64_t>(room->portsLoaded, room->hostPorts);
  const auto wanted = static_cast<uint32_t>(maxPorts);
  if (zel::state::ClassFlags(className) == 0 && (wanted > freePorts || ports > wanted)) {
    CS_ERROR("Switch %s: max_ports %u for %llu ports does not fit the %llu free ports of the host\n",
             uuid, wanted, static_cast<unsigned long long>(ports),
             static_cast<unsigned long long>(freePorts));
    return kFailure;
  }
  if (ports > freePorts) {
    CS_ERROR("Switch %s: %llu ports do not fit the %llu free ports of the host\n", uuid,
             static_cast<unsigned long long>(ports), static_cast<unsigned long long>(freePorts));
    return kFailure;
  }
  room->portsLoaded += ports;
  return 0;
}

// Frees what it holds on every exit.
struct Owned {
  PropertyList *list = nullptr;
  char *text = nullptr;
  char *className = nullptr;
  Owned() = default;
  Owned(const Owned &) = delete;
  Owned &operator=(const Owned &) = delete;
  ~Owned() {
    ZELData_Free(list);
    std::free(text);
    std::free(className);
  }
};

uint32_t LoadProps(const char *listName, cs::Object *object, PropertyList *switchList,
                   uint32_t tableIndex, uint32_t version, cs::Object *resourceManagement, Put put);

// The sub-object the path of the last row with sub-objects on its path led
// to.  Rows of a table mostly lead through the same sub-object ("settings"),
// and the load only reads the object, so a row whose path names the same
// sub-objects as the last one reuses what that row found, absent included.
class ResolvedPath {
 public:
  uint32_t Resolve(const PropToConfigEntry &row, cs::Object *owner, cs::Object **parent) {
    if (row.depth < 2) {
      return ResolvePropPath(row.path, row.depth, owner, parent, false);
    }
    if (last_ == nullptr || !SameSubObjects(*last_, row)) {
      status_ = ResolvePropPath(row.path, row.depth, owner, &parent_, false);
      last_ = &row;
    }
    *parent = parent_;
    return status_;
  }

 private:
  static bool SameSubObjects(const PropToConfigEntry &a, const PropToConfigEntry &b) {
    if (a.depth != b.depth) {
      return false;
    }
    for (uint32_t i = 0; i + 1 < a.depth && i < ZEL_CONFIG_PATH_COMPONENTS; ++i) {
      if (std::strcmp(a.path[i], b.path[i]) != 0) {
        return false;
      }
    }
    return true;
  }

  const PropToConfigEntry *last_ = nullptr;
  cs::Object *parent_ = nullptr;
  uint32_t status_ = 0;
};

uint32_t LoadRow(const LoadArgs &args, uint32_t kind) {
  const KindCase *c = FindKind(kind);
  if (c == nullptr) {
    return kFailure;
  }
  try {
    return c->load(args);
  } catch (...) {
    return kFailure;  // allocation failure inside the conversion
  }
}

void ReportRow(const char *name, const char *key, uint32_t kind, uint32_t status) {
  CS_ERROR("Faild to load prop: %s, key: %s, type:%d from configstore, rc: %d\n", name, key,
           static_cast<int>(kind), static_cast<int>(status));
}

// The port filter, the port elements and the uplink port keys of a switch.
struct PortSet {
  cs::Filter *filter = nullptr;
  cs::Object **elements = nullptr;
  int count = 0;
  char **uplinkKeys = nullptr;
  int numUplinkKeys = 0;
  PortSet() = default;
  PortSet(const PortSet &) = delete;
  PortSet &operator=(const PortSet &) = delete;
  ~PortSet() {
    cs::DestroyFilterSpecObject(filter);
    std::free(elements);  // the elements belong to the switch object
    cs::DestroyStringArrayValue(&uplinkKeys, numUplinkKeys);
  }
};

// One entry per port element, named by its "key".  A switch object without
// a "ports" list or without "resource_management" loads no ports.  A port is
// passed over, and the walk goes on, when its key cannot be read or names an
// entry of the switch list, and when its rows end with status 6 (something
// its conversions need is absent): one such port does not cost the others.
// A port's list is appended to the switch list without a search for its
// name: the store keeps the keys of a list's elements unique, and a key that
// names an entry of the switch list, or is too long for a port id (and would
// be cut on its way into an entry's name), is passed over first.
uint32_t LoadPorts(cs::Object *object, PropertyList *switchList, uint32_t version) {
  PortSet ports;
  int status = cs::CreateFilterSpecObject("ports", "", "", "", &ports.filter);
  if (status == cs::kOk) {
    status = cs::GetSubObjectInstances(object, ports.filter, &ports.elements, &ports.count);
  }
  cs::Object *resourceManagement = nullptr;
  if (status == cs::kOk) {
    status = cs::GetSubObject(object, "resource_management", "", &resourceManagement);
  }
  if (status != cs::kOk) {
    return status == cs::kNotFound ? 0 : Status(status);
  }
  cs::GetValueStringArray(object, "uplink_port_keys", &ports.uplinkKeys, &ports.numUplinkKeys);

  for (int i = 0; i < ports.count; ++i) {
    Owned key;
    if (int s = cs::GetValueStr(ports.elements[i], "key", &key.text); s != cs::kOk) {
      CS_ERROR("Failed to get port key, rc: %d\n", s);
      continue;
    }
    if (IsSwitchListName(key.text)) {
      CS_ERROR("Port key %s is reserved, port skipped\n", key.text);
      continue;
    }
    if (std::strlen(key.text) > zel::state::MaxPortIdLength(version)) {
      CS_ERROR("Port key %s is too long, port skipped\n", key.text);
      continue;
    }
    const bool uplink = ports.numUplinkKeys > 0 &&
                        StringExistInArray(key.text, ports.uplinkKeys, ports.numUplinkKeys);
    const uint32_t result = LoadProps(key.text, ports.elements[i], switchList, kTablePort, version,
                                      uplink ? resourceManagement : nullptr, Put::kAppend);
    if (result == kAbsent) {
      continue;
    }
    if (result != 0) {
      return result;
    }
  }
  return 0;
}

// A list, entry or serialization failure of a switch.
uint32_t SwitchListFailure(const char *uuid, ReturnStatus status) {
  CS_TRACE("Load zel: %s from configstore failed, error: %s\n", uuid,
           zel::host::PYX_ReturnStatusToString(status));
  return kFailure;
}

// One switch object into its entry of the outer list.
uint32_t LoadSwitch(cs::Object *object, OuterList &outer, DecodeRoom *room) {
  Owned uuid;
  if (int status = cs::GetValueStr(object, "uuid", &uuid.text); status != cs::kOk) {
    CS_ERROR("Failed to get uuid, rc: %d\n", status);
    return Status(status);
  }
  CS_TRACE("Loading switch:%s\n", uuid.text);
  if (uint32_t status = CheckSwitchId(uuid.text, outer); status != 0) {
    return status;
  }
  cs::Object *product = nullptr;
  if (int status = cs::GetSubObject(object, "product", "", &product); status != cs::kOk) {
    return Status(status);
  }
  Owned sw;
  if (uint32_t status = GetForwardingClass(object, &sw.className); status != 0) {
    return status;
  }
  int32_t maxPorts = 0;
  if (int status = cs::GetValueInt(object, "max_ports", &maxPorts); status != cs::kOk) {
    CS_ERROR("Failed to get max_ports, rc: %d\n", status);
    return Status(status);
  }
  if (ReturnStatus status = ZELData_Alloc(&sw.list, g_allocFn, g_freeFn); status != STATUS_OK) {
    sw.list = nullptr;
    return SwitchListFailure(uuid.text, status);
  }
  currentSwitchClass = ClassCode(sw.className);
  uint32_t version = 0;
  if (uint32_t status = GetConfigSwitchVersion(object, &version); status != 0) {
    return status;
  }
  ReturnStatus added = ZELData_Update(sw.list, "switchVersion", &version, sizeof version,
                                      kLibraryType);
  if (added == STATUS_OK) {
    added = ZELData_Update(sw.list, "className", sw.className,
                           static_cast<uint32_t>(std::strlen(sw.className) + 1), kLibraryType);
  }
  if (added == STATUS_OK) {
    added = ZELData_Update(sw.list, "maxPorts", &maxPorts, sizeof maxPorts, kLibraryType);
  }
  if (added != STATUS_OK) {
    return SwitchListFailure(uuid.text, added);
  }
  uint32_t status = LoadPropsFromConfigStore("globalPropList", object, sw.list, kTableGlobal,
                                             version, nullptr);
  if (status == 0) {
    status = LoadPropsFromConfigStore("hostPropList", object, sw.list, kTableHost, version,
                                      nullptr);
  }
  if (status == 0) {
    status = LoadPorts(object, sw.list, version);
  }
  if (status == 0) {
    status = CheckPortRoom(uuid.text, sw.className, maxPorts, sw.list, room);
  }
  if (status != 0) {
    return status;
  }
  if (ReturnStatus nested = outer.Add(uuid.text, sw.list, version); nested != STATUS_OK) {
    return SwitchListFailure(uuid.text, nested);
  }
  return 0;
}

// Everything the load opens, released on every exit.
struct LoadSession {
  cs::Store *store = nullptr;
  cs::Filter *filter = nullptr;
  cs::Object **current = nullptr;
  int numCurrent = 0;
  cs::Object **desired = nullptr;
  int numDesired = 0;
  OuterList outer;
  LoadSession() = default;
  LoadSession(const LoadSession &) = delete;
  LoadSession &operator=(const LoadSession &) = delete;
  ~LoadSession() {
    Release(current, numCurrent);
    Release(desired, numDesired);
    cs::DestroyFilterSpecObject(filter);
    if (store != nullptr) {
      cs::DestroyStore(store);
    }
  }
  static void Release(cs::Object **objects, int count) {
    for (int i = 0; i < count; ++i) {
      cs::DestroyConfigStoreObject(objects[i]);
    }
    std::free(objects);
  }
};

// The desired objects take over the stored "portset_name" of the current
// object at the same position.
void CopyPortsetNames(const LoadSession &s) {
  for (int i = 0; i < s.numDesired; ++i) {
    char *name = nullptr;
    if (cs::GetValueStr(s.current[i], "portset_name", &name) == cs::kOk) {
      cs::SetValueStr(s.desired[i], "portset_name", name);
      std::free(name);
    }
  }
}

uint32_t LoadBuf(void **blob, uint32_t *length, bool desired) {
  LoadSession s;
  if (int status = cs::GetStore(0, &s.store); status != cs::kOk || s.store == nullptr) {
    CS_ERROR("Get store failed");
    return status != cs::kOk ? Status(status) : kFailure;
  }
  if (int status = cs::CreateFilterSpecObject(kSwitchSel1, kSwitchSel2, kSwitchSel3, "", &s.filter);
      status != cs::kOk) {
    return Status(status);
  }
  if (desired) {
    if (int status = cs::GetDesiredUserConfigInstances(kSwitchSel1, kSwitchSel2, kSwitchSel3,
                                                       &s.desired, &s.numDesired);
        status != cs::kOk) {
      CS_ERROR("Failed to get zel desired user config instances");
      return Status(status);
    }
  }
  if (int status = cs::GetInstances(s.store, s.filter, &s.current, &s.numCurrent);
      status != cs::kOk) {
    CS_ERROR("Failed to get zel instances");
    return Status(status);
  }
  cs::Object **objects = s.current;
  int count = s.numCurrent;
  if (desired) {
    if (s.numDesired != s.numCurrent) {
      return kFailure;
    }
    CopyPortsetNames(s);
    objects = s.desired;
    count = s.numDesired;
  }
  if (!s.outer.Create()) {
    return kFailure;
  }
  if (count > ZEL_MAX_SWITCHES) {
    CS_ERROR("Too many switch objects in configstore: %d, at most %d\n", count, ZEL_MAX_SWITCHES);
    return kFailure;
  }
  DecodeRoom room{HostPortLimit()};
  for (int i = 0; i < count; ++i) {
    const uint32_t status = LoadSwitch(objects[i], s.outer, &room);
    if (status == 0) {
      continue;
    }
    char *uuid = nullptr;
    const int reread = cs::GetValueStr(objects[i], "uuid", &uuid);
    if (reread != cs::kOk) {
      return Status(reread);
    }
    CS_ERROR("Failed to load buf of switch: %s from configstore\n", uuid);
    std::free(uuid);
    return status;
  }
  void *buffer = nullptr;
  uint32_t size = 0;
  const ReturnStatus serialized = s.outer.Serialize(&buffer, &size);
  if (serialized != STATUS_OK) {
    return serialized;
  }
  *blob = buffer;
  *length = size;
  return 0;
}

uint32_t LoadProps(const char *listName, cs::Object *object, PropertyList *switchList,
                   uint32_t tableIndex, uint32_t version, cs::Object *resourceManagement, Put put) {
  const PropToConfigEntry *rows = GetConfigMap(static_cast<int>(tableIndex));
  CS_TRACE("LoadProps: %s\n", listName);
  Owned result;
  uint32_t status = 0;
  if (rows == nullptr || ZELData_Alloc(&result.list, g_allocFn, g_freeFn) != STATUS_OK) {
    result.list = nullptr;
    status = kFailure;
  }
  ResolvedPath last;
  for (const PropToConfigEntry *row = rows; status == 0 && row->name != nullptr; ++row) {
    cs::Object *parent = nullptr;
    const uint32_t resolved = last.Resolve(*row, object, &parent);
    if (resolved == kAbsent) {
      continue;  // a sub-object on the path is absent: nothing stored for the row
    }
    if (resolved != 0) {
      status = resolved;
      break;
    }
    const char *key = RowKey(*row);
    if (row->kind == kKindPortResourcePools) {
      continue;  // read after the rows, for uplink ports only
    }
    const LoadArgs args{object, parent, key, result.list, row->name, row->flags, tableIndex,
                        version};
    status = LoadRow(args, row->kind);
    if (status != 0) {
      ReportRow(row->name, key, row->kind, status);
    }
  }
  if (status == 0 && tableIndex == kTablePort && resourceManagement != nullptr) {
    const LoadArgs args{object,           resourceManagement, kPortPoolsKey, result.list,
                        kPortPoolsName,   kLibraryType,       tableIndex,    version};
    status = LoadRow(args, kKindPortResourcePools);
    if (status != 0) {
      ReportRow(kPortPoolsName, kPortPoolsKey, kKindPortResourcePools, status);
    }
  }
  if (status == 0 && Nest(switchList, listName, result.list, version, put) != STATUS_OK) {
    status = kFailure;
  }
  if (status != 0) {
    CS_ERROR("Load zel props from configstore failed, props type:%s\n", listName);
  }
  return status;
}

}  // namespace

uint32_t LoadPropsFromConfigStore(const char *listName, cs::Object *object,
                                  PropertyList *switchList, uint32_t tableIndex, uint32_t version,
                                  cs::Object *resourceManagement) {
  return LoadProps(listName, object, switchList, tableIndex, version, resourceManagement,
                   Put::kUpdate);
}

uint32_t GetForwardingClass(cs::Object *switchObject, char **className) {
  *className = nullptr;
  cs::Object *product = nullptr;
  if (int status = cs::GetSubObject(switchObject, "product", nullptr, &product);
      status != cs::kOk) {
    CS_ERROR("Failed to get product obj, rc: %d\n", status);
    return Status(status);
  }
  if (int status = cs::GetValueStr(product, "forwarding_class", className); status != cs::kOk) {
    CS_ERROR("Failed to get forwarding_class, rc: %d\n", status);
    return Status(status);
  }
  return 0;
}

uint32_t GetConfigSwitchVersion(cs::Object *switchObject, uint32_t *version) {
  cs::Object *product = nullptr;
  if (int status = cs::GetSubObject(switchObject, "product", "", &product); status != cs::kOk) {
    CS_ERROR("Failed to get product obj, rc: %d\n", status);
    return Status(status);
  }
  Owned text;
  if (int status = cs::GetValueStr(product, "version", &text.text); status != cs::kOk) {
    CS_ERROR("Failed to get version obj, rc: %d\n", status);
    return Status(status);
  }
  uint8_t qor = 0;
  if (cs::GetValueBool(switchObject, "qor_enabled", &qor) != cs::kOk) {
    qor = 0;
    CS_TRACE("Unabled to get qor_enabled");
  }
  static constexpr struct {
    const char *text;
    uint32_t code;
    uint32_t qorCode;
  } kVersions[] = {
      {"6.0.0", 4, 4}, {"6.5.0", 5, 5}, {"6.6.0", 6, 6}, {"7.0.0", 7, 107}, {"QOR 1.0", 100, 100},
  };
  for (const auto &v : kVersions) {
    if (std::strcmp(v.text, text.text) == 0) {
      *version = qor != 0 ? v.qorCode : v.code;
      return 0;
    }
  }
  CS_ERROR("Unknown zel version %s\n", text.text);
  return kFailure;
}

namespace testing {

void SetLoadAllocator(ZELDataAllocFn allocFn, ZELDataFreeFn freeFn) {
  g_allocFn = allocFn != nullptr ? allocFn : MallocAlloc;
  g_freeFn = freeFn != nullptr ? freeFn : std::free;
}

}  // namespace testing

}  // namespace zel::persist

using namespace zel::persist;

ZEL_API uint32_t ZELState_LoadFromConfigStoreAsBuf(void **blob, uint32_t *length, bool desired) {
  if (blob == nullptr || length == nullptr) {
    return kFailure;
  }
  try {
    return LoadBuf(blob, length, desired);
  } catch (...) {
    return kFailure;
  }
}

ZEL_API bool StringExistInArray(const char *text, char **array, int count) {
  if (text == nullptr || array == nullptr || count < 1) {
    return false;
  }
  for (int i = 0; i < count; ++i) {
    if (array[i] != nullptr && std::strcmp(array[i], text) == 0) {
      return true;
    }
  }
  return false;
}
