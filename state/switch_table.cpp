// The switch table: up to 32 switch records, the table lock, and the
// system-wide port limit read once from the host.
#include <cstdlib>
#include <cstring>

#include "host/host_limits.h"
#include "host/lock.h"
#include "host/status_text.h"
#include "state/state_db.h"
#include "state/state_testing.h"

int zel_debug = -1;
uint32_t uwMaxNumActivePortsSystemWide = 0;

namespace zel::state {

SwitchState *globalSwsArray[kNumSlots];
std::atomic<uint32_t> uwNumActivePortsSystemWide{0};

namespace {

constexpr const char *kTableLockName = "zelstate";
constexpr uint32_t kTableLockRank = 0xFEFFFFFF;

void *SystemAlloc(uint64_t bytes) { return std::malloc(bytes); }
void SystemFree(void *ptr) { std::free(ptr); }

std::atomic<ZELDataAllocFn> g_allocFn{SystemAlloc};
std::atomic<ZELDataFreeFn> g_freeFn{SystemFree};

host::RecLock *TableRecLock() {
  static host::RecLock *lock = host::CreateSingletonRecLock(kTableLockName, kTableLockRank);
  return lock;
}


// Fetches the system-wide limit when it is still unknown.
ReturnStatus FetchPortLimit(const char *id) {
  if (MaxPortsSystemWide() != 0) {
    return STATUS_OK;
  }
  ReturnStatus status = host::KernelInfoCheckSignature();
  if (status != STATUS_OK) {
    ZEL_LOG(0, "ZELState_SwitchAdd %s, QUB signature check failed. Error: %s\n", id,
            StatusText(status));
    return status;
  }
  uint32_t limit = 0;
  status = host::KernelInfoGetMaxPortsSystemWide(&limit);
  if (status != STATUS_OK) {
    ZEL_LOG(0, "ZELState_SwitchAdd %s, failed to get max ports systemwide. Error: %s\n", id,
            StatusText(status));
    return status;
  }
  __atomic_store_n(&uwMaxNumActivePortsSystemWide, limit, __ATOMIC_RELAXED);
  return STATUS_OK;
}

// Builds the record of a new switch in one allocation; null when it cannot
// be had.
SwitchState *NewRecord(const char *id, uint32_t maxPorts) {
  uint32_t numSlots = MaxPortsSystemWide();
  uint64_t buckets = PortIndex::BucketsFor(maxPorts);
  uint64_t slotsOffset = sizeof(SwitchState);
  uint64_t bitsOffset = slotsOffset + uint64_t{numSlots} * sizeof(PortState *);
  uint64_t indexOffset = bitsOffset + host::BitVector::AllocSize(numSlots);
  uint64_t total = indexOffset + PortIndex::AllocSize(buckets);
  ZELDataFreeFn freeFn = FreeFn();
  auto *base = static_cast<unsigned char *>(AllocFn()(total));
  if (base == nullptr) {
    return nullptr;
  }
  // Only the header is cleared: a port slot is read only while its bit in
  // `inUse` is set, and it is written before that.  The slots are sized by
  // the host's port limit, so clearing them cost more than the rest of
  // loading a small switch.
  std::memset(base, 0, slotsOffset);
  auto *sw = reinterpret_cast<SwitchState *>(base);
  std::snprintf(sw->id, sizeof sw->id, "%s", id);
  sw->numSlots = numSlots;
  sw->freeFn = freeFn;
  sw->ports = reinterpret_cast<PortState **>(base + slotsOffset);
  sw->inUse = host::BitVector::Init(base + bitsOffset, numSlots);
  sw->index = PortIndex::Init(base + indexOffset, buckets);
  return sw;
}

ReturnStatus AddLocked(const char *id, const char *className, uint32_t maxPorts,
                       uint32_t version, uint32_t classFlags) {
  int freeSlot = -1;
  for (int slot = 0; slot < kNumSlots; ++slot) {
    SwitchState *sw = globalSwsArray[slot];
    if (sw == nullptr) {
      if (freeSlot < 0) {
        freeSlot = slot;
      }
    } else if (std::strcmp(sw->id, id) == 0) {
      return STATUS_EXISTS;
    }
  }
  if (freeSlot < 0) {
    return STATUS_LIMIT_EXCEEDED;
  }
  SwitchState *sw = NewRecord(id, maxPorts);
  if (sw == nullptr) {
    return STATUS_NO_MEMORY;
  }
  globalSwsArray[freeSlot] = sw;
  ReturnStatus status = ZELData_Alloc(&sw->globalProps, AllocFn(), FreeFn());
  if (status == STATUS_OK) {
    status = ZELData_Alloc(&sw->hostProps, AllocFn(), FreeFn());
    if (status != STATUS_OK) {
      ZELData_Free(sw->globalProps);
    }
  }
  if (status != STATUS_OK) {
    globalSwsArray[freeSlot] = nullptr;
    sw->freeFn(sw);
    return status;
  }
  ZEL_SetClassName(sw, className);
  sw->classFlags = classFlags;
  sw->numPorts = 0;
  sw->newMaxPorts = maxPorts;
  sw->maxPorts = maxPorts;
  sw->version = version;
  return STATUS_OK;
}

int FindSlot(const char *id) {
  for (int slot = 0; slot < kNumSlots; ++slot) {
    if (globalSwsArray[slot] != nullptr && std::strcmp(globalSwsArray[slot]->id, id) == 0) {
      return slot;
    }
  }
  return -1;
}

}  // namespace

ZELDataAllocFn AllocFn() { return g_allocFn.load(std::memory_order_relaxed); }
ZELDataFreeFn FreeFn() { return g_freeFn.load(std::memory_order_relaxed); }
bool SystemAllocator() { return AllocFn() == SystemAlloc; }

uint32_t ClassFlags(const char *className) {
  if (std::strcmp(className, "qorvswitch") == 0) {
    return 3;
  }
  static const char *const kUnlimited[] = {"etherswitch", "stub-vswitch", "cswitch", "vswitch"};
  for (const char *name : kUnlimited) {
    if (std::strcmp(className, name) == 0) {
      return 1;
    }
  }
  return 0;
}

uint32_t MaxPortsSystemWide() {
  return __atomic_load_n(&uwMaxNumActivePortsSystemWide, __ATOMIC_RELAXED);
}

const char *StatusText(ReturnStatus status) { return host::PYX_ReturnStatusToString(status); }

void RemoveSwitchAt(int slot) {
  SwitchState *sw = globalSwsArray[slot];
  for (int64_t i = sw->inUse->NextBit(0, true); i != host::BitVector::kNone;
       i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    ZEL_LOG(1, "ZELState_PortRemove %s, %s\n", sw->id, sw->ports[i]->id);
    RemovePortAt(sw, static_cast<uint32_t>(i), true);
  }
  ZELData_Free(sw->globalProps);
  ZELData_Free(sw->hostProps);
  sw->freeFn(sw);
  globalSwsArray[slot] = nullptr;
}

ReturnStatus SwitchRemoveNoLock(const char *id) {
  ZEL_LOG(1, "ZELState_SwitchRemove %s\n", id);
  int slot = FindSlot(id);
  if (slot < 0) {
    ZEL_LOG(0, "ZELState_SwitchRemove ZELID %s, statue %s\n", id, StatusText(STATUS_NOT_FOUND));
    return STATUS_NOT_FOUND;
  }
  RemoveSwitchAt(slot);
  return STATUS_OK;
}

const char *EntryText(PropertyEntry *entry) {
  void *value = nullptr;
  uint32_t length = ZELData_Data(entry, &value);
  if (value == nullptr || std::memchr(value, '\0', length) == nullptr) {
    return nullptr;
  }
  return static_cast<const char *>(value);
}

ReturnStatus ReadValue(PropertyList *list, const char *name, void **value, uint32_t *length) {
  if (list == nullptr || name == nullptr || value == nullptr) {
    return STATUS_BAD_PARAM;
  }
  PropertyEntry *entry = nullptr;
  ReturnStatus status = ZELData_Lookup(list, name, &entry);
  if (status == STATUS_OK) {
    uint32_t dataLength = ZELData_Data(entry, value);
    if (length != nullptr) {
      *length = dataLength;
    }
  }
  return status;
}

ReturnStatus WalkEntries(PropertyList *list, ZELStatePropFn callback, void *context) {
  if (list == nullptr || callback == nullptr) {
    return STATUS_BAD_PARAM;
  }
  PropertyEntry *entry = nullptr;
  while (ZELData_Next(list, entry, &entry) == STATUS_OK) {
    uint32_t result = callback(entry, context);
    if ((result & 0xFF) != 0) {
      return result;
    }
  }
  return STATUS_NOT_FOUND;
}

namespace testing {

void ResetPortLimit() {
  ZELState_ConfigReset();
  __atomic_store_n(&uwMaxNumActivePortsSystemWide, 0u, __ATOMIC_RELAXED);
  uwNumActivePortsSystemWide = 0;
}

void SetPortLimit(uint32_t value) {
  host::testing::SetMaxPortsSystemWide(value);
  ResetPortLimit();
}

void FailPortLimit(ReturnStatus checkStatus, ReturnStatus getStatus) {
  host::testing::FailKernelInfo(checkStatus, getStatus);
  ResetPortLimit();
}

void SetAllocator(ZELDataAllocFn allocFn, ZELDataFreeFn freeFn) {
  g_allocFn = allocFn != nullptr ? allocFn : SystemAlloc;
  g_freeFn = freeFn != nullptr ? freeFn : SystemFree;
}

SwitchState *SwitchAtSlot(int slot) {
  TableLock lock;
  return slot >= 0 && slot < kNumSlots ? globalSwsArray[slot] : nullptr;
}

int PortSlot(PortState *port) {
  SwitchState *sw = port->sw;
  for (int64_t i = sw->inUse->NextBit(0, true); i != host::BitVector::kNone;
       i = sw->inUse->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    if (sw->ports[i] == port) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

uint32_t NumActivePortsSystemWide() { return uwNumActivePortsSystemWide; }

}  // namespace testing

}  // namespace zel::state

using namespace zel::state;

ZelRecLock *ZelSwitchHandleLock(void) {
  zel::host::RecLock *lock = TableRecLock();
  zel::host::Acquire(lock);
  return reinterpret_cast<ZelRecLock *>(lock);
}

void ZelSwitchHandleUnlock(ZelRecLock *lock) {
  if (lock != nullptr) {
    zel::host::Release(reinterpret_cast<zel::host::RecLock *>(lock));
  }
}

ReturnStatus ZELState_SwitchAdd(const char *id, const char *className, uint32_t maxPorts,
                                uint32_t version) {
  if (id == nullptr || className == nullptr) {
    return STATUS_BAD_PARAM;
  }
  ReturnStatus status = FetchPortLimit(id);
  if (status != STATUS_OK) {
    return status;
  }
  if (std::strlen(id) >= ZEL_SWITCH_ID_SIZE) {
    ZEL_LOG(0, "ZELState_SwitchAdd %s, id length too long\n", id);
    return STATUS_BAD_PARAM;
  }
  uint32_t limit = MaxPortsSystemWide();
  uint32_t classFlags = ClassFlags(className);
  if (classFlags != 0) {
    maxPorts = limit;
  } else if (limit - uwNumActivePortsSystemWide.load() < maxPorts) {
    ZEL_LOG(0, "ZELState_SwitchAdd %s, failed with maxPorts exceed %d.\n", id,
            static_cast<int>(maxPorts));
    return STATUS_LIMIT_EXCEEDED;
  }
  ZEL_LOG(1, "ZELState_SwitchAdd %s, %s, %d\n", id, className, static_cast<int>(maxPorts));
  {
    TableLock lock;
    status = AddLocked(id, className, maxPorts, version, classFlags);
  }
  if (status != STATUS_OK) {
    ZEL_LOG(0, "ZELState_SwitchAdd failed ZEL:%s Error: %s\n", id, StatusText(status));
  }
  return status;
}

SwitchState *ZELState_SwitchFind(const char *id) {
  if (id == nullptr) {
    return nullptr;
  }
  TableLock lock;
  int slot = FindSlot(id);
  return slot < 0 ? nullptr : globalSwsArray[slot];
}

SwitchState *ZELState_SwitchFindByUUID(const uint8_t uuid[16]) {
  if (uuid == nullptr) {
    return nullptr;
  }
  char id[ZEL_SWITCH_ID_SIZE];
  std::snprintf(id, sizeof id,
                "%02x %02x %02x %02x %02x %02x %02x %02x-%02x %02x %02x %02x %02x %02x %02x %02x",
                uuid[0], uuid[1], uuid[2], uuid[3], uuid[4], uuid[5], uuid[6], uuid[7], uuid[8],
                uuid[9], uuid[10], uuid[11], uuid[12], uuid[13], uuid[14], uuid[15]);
  return ZELState_SwitchFind(id);
}

SwitchState *ZELState_SwitchFindByAlias(const char *alias) {
  if (alias == nullptr) {
    return nullptr;
  }
  TableLock lock;
  for (SwitchState *sw : globalSwsArray) {
    PropertyEntry *entry = nullptr;
    if (sw != nullptr && ZELData_Lookup(sw->globalProps, ZEL_PROP_SWITCH_ALIAS, &entry) == STATUS_OK) {
      const char *text = EntryText(entry);
      if (text != nullptr && std::strcmp(text, alias) == 0) {
        return sw;
      }
    }
  }
  return nullptr;
}

void ZELState_SwitchForEach(ZELStateSwitchFn callback, void *context) {
  if (callback == nullptr) {
    return;
  }
  TableLock lock;
  for (int slot = 0; slot < kNumSlots; ++slot) {
    SwitchState *sw = globalSwsArray[slot];
    if (sw != nullptr && callback(sw, context)) {
      break;
    }
  }
}

ReturnStatus ZELState_SwitchRemove(const char *id) {
  if (id == nullptr) {
    return STATUS_BAD_PARAM;
  }
  TableLock lock;
  return SwitchRemoveNoLock(id);
}

ReturnStatus ZELState_SwitchSetVersion(const char *id, uint32_t version) {
  switch (version) {
    case 4: case 5: case 6: case 7: case 100: case 107:
      break;
    default:
      ZEL_LOG(0, "ZEL version not support %u\n", version);
      return STATUS_NOT_SUPPORTED;
  }
  if (id == nullptr) {
    return STATUS_BAD_PARAM;
  }
  SwitchState *sw = ZELState_SwitchFind(id);
  if (sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  ZEL_LOG(0, "Set ZEL %s version from %u to %u\n", sw->id, sw->version, version);
  sw->version = version;
  return STATUS_OK;
}

// The accessors answer a null switch with null or 0 and change nothing.
const char *ZEL_SwitchId(SwitchState *sw) { return sw != nullptr ? sw->id : nullptr; }

const char *ZEL_SwitchName(SwitchState *sw) {
  if (sw == nullptr) {
    return nullptr;
  }
  PropertyEntry *entry = nullptr;
  if (ZELState_GlobalPropLookup(sw->id, ZEL_PROP_SWITCH_ALIAS, &entry) == STATUS_OK) {
    if (const char *text = EntryText(entry)) {
      return text;
    }
  }
  return "unknown";
}

const char *ZEL_ClassName(SwitchState *sw) { return sw != nullptr ? sw->className : nullptr; }

// A null class name leaves the class as it is.
char *ZEL_SetClassName(SwitchState *sw, const char *className) {
  if (sw == nullptr || className == nullptr) {
    return sw != nullptr ? sw->className : nullptr;
  }
  std::strncpy(sw->className, className, sizeof sw->className - 1);
  sw->className[sizeof sw->className - 1] = '\0';
  return sw->className;
}

uint32_t ZEL_Version(SwitchState *sw) { return sw != nullptr ? sw->version : 0; }
uint32_t ZEL_GetMaxPorts(SwitchState *sw) { return sw != nullptr ? sw->maxPorts : 0; }
uint32_t ZEL_GetNewMaxPorts(SwitchState *sw) { return sw != nullptr ? sw->newMaxPorts : 0; }

uint32_t ZEL_UpdateMaxPorts(SwitchState *sw) {
  if (sw == nullptr) {
    return 0;
  }
  sw->maxPorts = sw->newMaxPorts;
  return sw->maxPorts;
}

uint32_t ZEL_NumPorts(SwitchState *sw) { return sw != nullptr ? sw->numPorts : 0; }
PropertyList *ZEL_GlobalPropList(SwitchState *sw) { return sw != nullptr ? sw->globalProps : nullptr; }
PropertyList *ZEL_HostPropList(SwitchState *sw) { return sw != nullptr ? sw->hostProps : nullptr; }
