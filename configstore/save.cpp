// Saving a state blob into the configuration store: the blob is loaded into
// the state database (under its lock, emptied again before returning), each
// switch is rewritten into its switch object property by property, stale
// switch objects are deleted, and all of it is one store transaction.
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "host/host_log.h"
#include "zel/state.h"

namespace zel::persist {

namespace {

constexpr int kLogDebug = 7;  // system-log priority of the progress lines

// Holds the state handle lock and keeps the state database empty outside
// the save.
class StateSession {
 public:
  StateSession() : lock_(ZelSwitchHandleLock()) { ZELState_ConfigReset(); }
  ~StateSession() {
    ZELState_ConfigReset();
    ZelSwitchHandleUnlock(lock_);
  }
  StateSession(const StateSession &) = delete;
  StateSession &operator=(const StateSession &) = delete;

 private:
  ZelRecLock *lock_;
};

// The store handle, the switch filter and the stored switch objects the save
// is responsible for, all released on every exit.  Closing a store with an
// open transaction discards the transaction.
struct StoreSession {
  cs::Store *store = nullptr;
  cs::Filter *filter = nullptr;
  cs::Object **objects = nullptr;  // from GetInstances; a slot is null once taken
  int count = 0;
  cs::Object *single = nullptr;  // from Get, for one switch
  // The uuid each gathered object held when it was read (empty when none),
  // for the stale check at the end, and the listed objects by instance id.
  std::vector<std::optional<std::string>> storedUuids;
  std::unordered_map<std::string, int> byInstance;

  StoreSession() = default;
  StoreSession(const StoreSession &) = delete;
  StoreSession &operator=(const StoreSession &) = delete;
  ~StoreSession() {
    cs::DestroyFilterSpecObject(filter);
    cs::DestroyConfigStoreObject(single);
    for (int i = 0; i < count; ++i) {
      cs::DestroyConfigStoreObject(objects[i]);
    }
    std::free(objects);
    if (store != nullptr) {
      cs::DestroyStore(store);
    }
  }
  cs::Object *Gathered(int i) const { return single != nullptr ? single : objects[i]; }
  int NumGathered() const { return single != nullptr ? 1 : count; }

  // Hands over the listed object stored under `id` (null when none was
  // listed), so that a switch is rewritten from the listing instead of
  // being read and parsed a second time.  The row cannot have changed since:
  // the listing ran in this transaction and each switch is written once.
  cs::Object *Take(const char *id) {
    const auto it = byInstance.find(id);
    if (it == byInstance.end()) {
      return nullptr;
    }
    cs::Object *object = std::exchange(objects[it->second], nullptr);
    byInstance.erase(it);
    return object;
  }
};

struct SaveContext {
  uint32_t status = 0;
  StoreSession *session = nullptr;
};

enum class Trace { kNone, kGlobal, kHost };

// Saves every entry of a property list, in list order.
uint32_t SavePropList(cs::Object *object, PropertyList *list, uint32_t tableIndex, Trace trace) {
  PropertyEntry *entry = nullptr;
  while (ZELData_Next(list, entry, &entry) == STATUS_OK) {
    const char *name = ZELData_Name(entry);
    if (trace == Trace::kGlobal) {
      CS_TRACE("SaveGlobalProp: %s\n", name);
    } else if (trace == Trace::kHost) {
      CS_TRACE("SaveHostProp: %s\n", name);
    }
    void *value = nullptr;
    const uint32_t length = ZELData_Data(entry, &value);
    const uint32_t status = SavePropToConfigStore(object, name, value, length, tableIndex,
                                                  ZELData_PropType(entry));
    if (status != 0) {
      return status;
    }
  }
  return 0;
}

struct PortWalk {
  cs::Object *object;
  uint32_t status = 0;
};

// One port into its element of "ports" (the element a port of the same id
// made before is reused).
bool SavePort(PortState *port, void *context) {
  auto *walk = static_cast<PortWalk *>(context);
  if (port == nullptr) {
    return true;  // a marked slot without a port ends the walk
  }
  cs::Object *element = nullptr;
  walk->status = GetOrCreateSubObject(true, walk->object, "ports", ZEL_PortId(port), &element);
  if (walk->status == 0) {
    walk->status = SavePropList(element, ZEL_PortData(port), kTablePort, Trace::kNone);
  }
  return walk->status != 0;
}

// Removes from a stored switch object everything a save writes, so that
// nothing of an earlier save survives.
void ClearSwitchObject(cs::Object *object) {
  for (const char *const *p = UNUSED_PRIMITIVE_PROPS; *p != nullptr; ++p) {
    cs::RemoveValue(object, *p);
  }
  for (const char *const *p = UNUSED_SINGLETON_PROPS; *p != nullptr; ++p) {
    cs::DeleteSubObject(object, *p, "");
  }
  for (const char *const *p = UNUSED_NON_SINGLETON_PROPS; *p != nullptr; ++p) {
    cs::Filter *filter = nullptr;
    cs::CreateFilterSpecObject(*p, "", "", "", &filter);
    cs::DeleteSubObjectInstances(object, filter);
    cs::DestroyFilterSpecObject(filter);
  }
}

// The fixed keys and every property of the switch; 0 or the failing status.
uint32_t FillSwitchObject(SwitchState *sw, cs::Object *object, int64_t start) {
  cs::Object *product = nullptr;
  uint32_t status = GetOrCreateSubObject(true, object, "product", "", &product);
  if (status != 0) {
    return status;
  }
  cs::SetValueStr(product, "forwarding_class", ZEL_ClassName(sw));
  cs::SetValueInt(object, "max_ports", static_cast<int32_t>(ZEL_GetNewMaxPorts(sw)));
  CS_TRACE("SaveZEL: %s\n", ZEL_SwitchName(sw));
  cs::SetValueStr(object, "name", ZEL_SwitchName(sw));
  cs::SetValueStr(object, "uuid", ZEL_SwitchId(sw));
  configStoreTimeMs += NowMs() - start;

  status = SavePropList(object, ZEL_GlobalPropList(sw), kTableGlobal, Trace::kGlobal);
  if (status == 0) {
    status = SavePropList(object, ZEL_HostPropList(sw), kTableHost, Trace::kHost);
  }
  if (status == 0) {
    PortWalk walk{object};
    ZELState_PortForEach(sw, SavePort, &walk);
    status = walk.status;
  }
  return status;
}

// A switch object without a version text is written like any other (the
// save's result stays as it is), but no load succeeds while the store holds
// it: the load needs the version of every switch.  The warning makes that
// visible when it is made, not at the next start.
void WarnIfUnloadable(cs::Object *object, const char *id) {
  cs::Object *product = nullptr;
  char *version = nullptr;
  if (cs::GetSubObject(object, "product", "", &product) == cs::kOk &&
      cs::GetValueStr(product, "version", &version) == cs::kOk) {
    std::free(version);
    return;
  }
  CS_ERROR("Warning: switch %s is saved without \"com.zorlan.common.version\"; "
           "no load succeeds until it has one\n", id);
}

// Rewrites one switch's object; returns true to stop the walk over switches.
bool SaveSwitchToConfigStore(SwitchState *sw, void *context) {
  auto *ctx = static_cast<SaveContext *>(context);
  const char *id = ZEL_SwitchId(sw);
  currentSwitchIsQor = ZEL_Version(sw) > 99;
  currentSwitchClass = ClassCode(ZEL_ClassName(sw));
  const int64_t start = NowMs();

  cs::Object *object = ctx->session->Take(id);
  if (object != nullptr ||
      cs::Get(ctx->session->store, kSwitchSel1, kSwitchSel2, kSwitchSel3, id, &object) == cs::kOk) {
    ClearSwitchObject(object);
  } else if (cs::CreateObject(kSwitchSel1, kSwitchSel2, kSwitchSel3, id, "{}", &object) !=
             cs::kOk) {
    CS_ERROR("Get/Create zel_switch:%s failed\n", id);
    ctx->status = kFailure;
    return true;
  }

  const uint32_t status = FillSwitchObject(sw, object, start);
  if (status != 0) {
    cs::DestroyConfigStoreObject(object);
    ctx->status = status;
    CS_ERROR("Failed to save zel: %s to configstore\n", id);
    return true;
  }
  WarnIfUnloadable(object, id);
  const int64_t setStart = NowMs();
  const int setStatus = cs::Set(ctx->session->store, object, "EXTERNAL");
  configStoreTimeMs += NowMs() - setStart;
  cs::DestroyConfigStoreObject(object);
  ctx->status = static_cast<uint32_t>(setStatus);
  if (setStatus != cs::kOk) {
    CS_ERROR("Failed to save zel: %s to configstore\n", id);
    return true;
  }
  return false;
}

// The stored switch objects this save answers for: the one switch's object,
// or every switch object.  A failing read leaves the set empty.
void GatherStoredSwitches(StoreSession &session, const char *switchId) {
  if (switchId != nullptr) {
    if (cs::Get(session.store, kSwitchSel1, kSwitchSel2, kSwitchSel3, switchId,
                &session.single) != cs::kOk) {
      session.single = nullptr;
    }
    return;
  }
  cs::CreateFilterSpecObject(kSwitchSel1, kSwitchSel2, kSwitchSel3, "", &session.filter);
  const int64_t start = NowMs();
  cs::GetInstances(session.store, session.filter, &session.objects, &session.count);
  zel::host::SysLog(kLogDebug, "ZELState_SaveBufToConfigStore_ByInstance GetInstances time: %lldms",
                    static_cast<long long>(NowMs() - start));
  if (session.objects == nullptr) {
    session.count = 0;
  }
  for (int i = 0; i < session.count; ++i) {
    char *instance = nullptr;
    if (cs::GetObjectInstanceId(session.objects[i], &instance) == cs::kOk) {
      session.byInstance.emplace(instance, i);
      std::free(instance);
    }
  }
}

// The uuid of every gathered object, read before any of them is rewritten.
void RecordStoredUuids(StoreSession &session) {
  for (int i = 0; i < session.NumGathered(); ++i) {
    char *uuid = nullptr;
    std::optional<std::string> text;
    if (cs::GetValueStr(session.Gathered(i), "uuid", &uuid) == cs::kOk) {
      text = uuid;
      std::free(uuid);
    }
    session.storedUuids.push_back(std::move(text));
  }
}

// Deletes the gathered objects whose switch the blob does not hold, and
// commits.  Returns the commit status.
uint32_t DeleteStaleAndCommit(StoreSession &session) {
  const int64_t start = NowMs();
  for (const std::optional<std::string> &uuid : session.storedUuids) {
    if (!uuid) {
      continue;  // without its id the object cannot be matched: leave it alone
    }
    if (ZELState_SwitchFind(uuid->c_str()) == nullptr) {
      cs::Delete(session.store, kSwitchSel1, kSwitchSel2, kSwitchSel3, uuid->c_str());
    }
  }
  const int status = cs::CommitTransaction(session.store);
  configStoreTimeMs += NowMs() - start;
  zel::host::SysLog(kLogDebug, "End ZELState_SaveBufToConfigStore_ByInstance, configStore time: %lldms",
                    static_cast<long long>(configStoreTimeMs));
  configStoreTimeMs = 0;
  return static_cast<uint32_t>(status);
}

uint32_t SaveBuf(const void *blob, uint32_t length, const char *switchId) {
  StateSession state;
  // An unreadable blob must never reach the store: it would delete every
  // stored switch object.
  const ReturnStatus loaded =
      blob != nullptr ? ZELState_ConfigDeserialize(blob, length) : STATUS_BAD_PARAM;
  if (loaded != STATUS_OK) {
    return loaded;
  }
  zel::host::SysLog(kLogDebug, "Start ZELState_SaveBufToConfigStore_ByInstance, swId:[%s]",
                    switchId != nullptr ? switchId : "");
  configStoreTimeMs = 0;
  const int64_t start = NowMs();

  StoreSession session;
  const int opened = cs::GetStore(0, &session.store);
  if (opened != cs::kOk || session.store == nullptr) {
    CS_ERROR("Get store failed");
    return kFailure;
  }
  if (int begun = cs::BeginTransaction(session.store); begun != cs::kOk) {
    return static_cast<uint32_t>(begun);
  }
  CS_TRACE("Ready to save zel list");
  GatherStoredSwitches(session, switchId);
  RecordStoredUuids(session);
  configStoreTimeMs += NowMs() - start;

  SaveContext ctx;
  ctx.session = &session;
  if (switchId != nullptr) {
    if (SwitchState *sw = ZELState_SwitchFind(switchId); sw != nullptr) {
      SaveSwitchToConfigStore(sw, &ctx);
    }
  } else {
    ZELState_SwitchForEach(SaveSwitchToConfigStore, &ctx);
  }

  uint32_t status = ctx.status;
  if (status != 0) {
    CS_ERROR("Failed to save zel to configstore");
  } else {
    status = DeleteStaleAndCommit(session);
    if (status == 0) {
      return 0;
    }
  }
  cs::CancelTransaction(session.store);
  zel::host::SysLog(kLogDebug,
                    "End ZELState_SaveBufToConfigStore_ByInstance with error, configStore time: %lldms",
                    static_cast<long long>(configStoreTimeMs));
  configStoreTimeMs = 0;
  return status;
}

}  // namespace

uint32_t SavePropToConfigStore(cs::Object *object, const char *name, const void *value,
                               uint32_t length, uint32_t tableIndex, uint32_t propType) {
  if ((propType & kPersistTypeBits) == 0) {
    return 0;  // not a persisted property
  }
  if (tableIndex >= kNumTables) {
    return kFailure;
  }
  const PropToConfigEntry *row = FindRow(tableIndex, name);
  if (row == nullptr) {
    CS_ERROR("Unknow prop: %s\n", name);
    CS_ERROR("Set prop: %s failed\n", name);
    return kFailure;
  }
  CS_TRACE("Compare %s : %s success\n", name, row->name);
  cs::Object *parent = object;
  if (row->depth > 1) {
    if (uint32_t status = ResolvePropPath(row->path, row->depth, object, &parent, true);
        status != 0) {
      CS_ERROR("Failed to get/create sub object for zel prop:%s stop and return\n", name);
      CS_ERROR("Set prop: %s failed\n", name);
      return status;
    }
  }
  const int64_t start = NowMs();
  uint32_t status = kFailure;
  if (const KindCase *kind = FindKind(row->kind); kind == nullptr) {
    CS_ERROR("Unknow prop type: %d\n", static_cast<int>(row->kind));
  } else {
    const SaveArgs args{object, parent, RowKey(*row), name, static_cast<const uint8_t *>(value),
                        value != nullptr ? length : 0, tableIndex, propType};
    try {
      status = kind->save(args);
    } catch (...) {
      status = kFailure;  // allocation failure inside the conversion
    }
  }
  configStoreTimeMs += NowMs() - start;
  if (status != 0) {
    CS_ERROR("Set prop: %s failed\n", name);
  }
  return status;
}

}  // namespace zel::persist

using namespace zel::persist;

ZEL_API uint32_t ZELState_SaveBufToConfigStore_ByInstance(const void *blob, uint32_t length,
                                                          const char *switchId) {
  try {
    return SaveBuf(blob, length, switchId);
  } catch (...) {
    return kFailure;
  }
}

ZEL_API uint32_t ZELState_SaveBufToConfigStore(const void *blob, uint32_t length) {
  return ZELState_SaveBufToConfigStore_ByInstance(blob, length, nullptr);
}
