// Port mirroring sessions (kind 9): the DVMirrorSessionTable value of a
// switch or a port, converted to and from the list of session instances
// under the row's key ("vspans"), one per session, keyed by the session key.
//
// The table: a 20-byte header (magic, version, numSessions, numPortEntries,
// reserved), 232-byte sessions, then one shared array of port entries (36
// bytes on switches of version 99 and below, 52 above) that the sessions
// take in order: destinations, received sources, transmitted sources.
//
// Values are not trusted: a table shorter than its header, its sessions or
// the entries its per-session counts claim is refused with kFailure before
// anything is written; a session without a key cannot be addressed and is
// refused.  Texts without a NUL are cut to their slot less one (key 31,
// name 80, port key or uplink name 31 or 47 characters), as on load.  A
// session or encapsulation type without a name is written as its decimal
// text, which loads back as -1 (unknown).
//
// On load a missing "enabled", "strip_original_vlan" or
// "normal_traffic_allowed" counts as true and a missing "legacy_mode" as
// false, so no flag bit is set for them; a missing "session_type" or
// "encap_type" gives -1 without a message.  The entry width follows the
// version code the load dispatcher passes, which for a port row is that of
// the port's switch.
#include <cstdlib>
#include <cstring>
#include <string>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "configstore/policy/discovery_fields.h"
#include "configstore/policy/policy.h"

ZEL_EXTERN_C_BEGIN

const char *const SESSION_TYPE_LOCAL_ENUM_2_SCHEMA[6] = {
    "MIXED_DEST_MIRROR",  "DVPORT_MIRROR", "REMOTE_MIRROR_SOURCE",
    "REMOTE_MIRROR_DEST", "ENCAPSULATED_REMOTE_MIRROR_SOURCE", nullptr,
};
const uint32_t VSPAN_SESSION_TYPE_NUM = 6;
const char *const ENCAP_TYPE_LOCAL_ENUM_2SCHEMA[3] = {"GRE", "ERSPAN2", "ERSPAN3"};
const uint32_t VSPAN_ENCAP_TYPE_NUM = 3;

ZEL_EXTERN_C_END

namespace zel::persist::policy {

namespace {

constexpr const char *kVswitchRow = "com.zorlan.vswitch.mirrorSessions";
constexpr const char *kVswitchPortRow = "com.zorlan.vswitch.port.mirrorSessions";
constexpr const char *kEtherRow = "com.zorlan.etherswitch.mirrorSessions";
constexpr const char *kEtherPortRow = "com.zorlan.etherswitch.port.mirrorSessions";

constexpr size_t kSessionNames = 5;

// Header.
constexpr uint32_t kMagic = 0xFACEBEEF;
constexpr uint32_t kTableVersion = 1;
constexpr size_t kHeaderSize = 20;
constexpr size_t kMagicAt = 0, kVersionAt = 4, kNumSessionsAt = 8, kNumEntriesAt = 12;

// DVMirrorSession.
constexpr size_t kSessionSize = 232;
constexpr size_t kKey = 0, kKeySlot = 32;
constexpr size_t kName = 32, kNameSlot = 81;
constexpr size_t kSessionType = 116, kPacketLength = 120, kFlags = 124, kEncapVlan = 128,
                 kRecvWildcard = 130, kTransmitWildcard = 132, kSamplingRate = 136,
                 kEncapType = 140, kErspanId = 144, kErspanCos = 146, kErspanGraNanosec = 147,
                 kNumDestinations = 216, kNumRecvSources = 220, kNumTransmitSources = 224,
                 kFirstEntry = 228;
constexpr uint32_t kLengthNotSet = 0xFFFFFFFF;

// Session flags.
constexpr uint32_t kNormalTrafficNotAllowed = 0x1;
constexpr uint32_t kNormalTrafficNotAllowedLoaded = 0x3;
constexpr uint32_t kVlanNotStripped = 0x4;
constexpr uint32_t kEncapVlanSet = 0x8;
constexpr uint32_t kLegacyMode = 0x10;
constexpr uint32_t kDisabled = 0x20;

// Session types.
constexpr uint32_t kMixedDestMirror = 0;
constexpr uint32_t kRemoteMirrorSource = 2;
constexpr uint32_t kRemoteMirrorDest = 3;
constexpr uint32_t kEncapsulatedRemoteMirrorSource = 4;

// DVMirrorPortEntry.
constexpr size_t kNarrowEntry = 36, kWideEntry = 52;
constexpr size_t kEntryType = 0, kPayload = 4, kAddress = 8;
constexpr uint32_t kEntryPortKey = 0, kEntryUplinkName = 1;

// Wildcard connectee bits.
constexpr uint16_t kVmVnic = 0x1, kPnic = 0x2, kAnyWildcard = 0x4, kHostVnic = 0x8;

constexpr const char *kDestination = "destination_port";
constexpr const char *kRecvSource = "source_recv_port";
constexpr const char *kTransmitSource = "source_transmit_port";
constexpr const char *kWildcards = "wildcard_port_connectee_types";
constexpr const char *kPortKeys = "port_keys";
constexpr const char *kUplinkNames = "uplink_port_names";


// --- save ---

uint32_t SaveWildcardConnecteeTypes(cs::Object *port, uint16_t bits) {
  if (int s = cs::SetValueEmptyList(port, kWildcards); s != cs::kOk) return Status(s);
  const std::pair<uint16_t, const char *> names[] = {
      {kVmVnic, "VM_VNIC"}, {kPnic, "PNIC"}, {kHostVnic, "HOST_PYX_VNIC"}};
  for (const auto &[bit, name] : names) {
    if ((bits & bit) == 0) continue;
    if (int s = cs::AppendValueString(port, kWildcards, name); s != cs::kOk) return Status(s);
  }
  return 0;
}

// Sets `key` to an empty list and appends the payload text of every entry
// that `take` accepts.
template <typename Take>
uint32_t SaveNames(cs::Object *port, const char *key, const uint8_t *first, uint32_t count,
                   size_t entrySize, Take take) {
  if (int s = cs::SetValueEmptyList(port, key); s != cs::kOk) return Status(s);
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t *e = first + size_t{i} * entrySize;
    if (!take(e)) continue;
    const std::string text = SlotText(e + kPayload, entrySize - kPayload);
    if (int s = cs::AppendValueString(port, key, text.c_str()); s != cs::kOk) return Status(s);
  }
  return 0;
}

uint32_t SaveMirrorPortList(uint32_t count, const uint8_t *first, cs::Object *port,
                            uint32_t sessionType, bool destination, size_t entrySize) {
  const auto any = [](const uint8_t *) { return true; };
  if (sessionType == kRemoteMirrorSource && destination) {
    return SaveNames(port, kUplinkNames, first, count, entrySize, any);
  }
  if (sessionType == kRemoteMirrorDest && !destination) {
    if (int s = cs::SetValueEmptyList(port, "vlans"); s != cs::kOk) return Status(s);
    for (uint32_t i = 0; i < count; ++i) {
      const uint16_t vlan = ReadU16At(first + size_t{i} * entrySize + kPayload);
      if (int s = cs::AppendValueInt(port, "vlans", vlan); s != cs::kOk) return Status(s);
    }
    return 0;
  }
  if (sessionType == kEncapsulatedRemoteMirrorSource && destination) {
    if (int s = cs::SetValueEmptyList(port, "addresses"); s != cs::kOk) return Status(s);
    for (uint32_t i = 0; i < count; ++i) {
      const uint8_t *e = first + size_t{i} * entrySize;
      char text[40] = {};
      FormatAddress(e + kAddress, e[kPayload] != 0, text, sizeof text);
      if (int s = cs::AppendValueString(port, "addresses", text); s != cs::kOk) return Status(s);
    }
    return 0;
  }
  if (sessionType == kMixedDestMirror && destination) {
    if (int s = cs::SetValueEmptyList(port, kUplinkNames); s != cs::kOk) return Status(s);
    if (int s = cs::SetValueEmptyList(port, kPortKeys); s != cs::kOk) return Status(s);
    for (uint32_t i = 0; i < count; ++i) {
      const uint8_t *e = first + size_t{i} * entrySize;
      const uint32_t type = ReadU32At(e + kEntryType);
      const char *key = type == kEntryUplinkName ? kUplinkNames
                        : type == kEntryPortKey  ? kPortKeys
                                                 : nullptr;
      if (key == nullptr) continue;
      const std::string text = SlotText(e + kPayload, entrySize - kPayload);
      if (int s = cs::AppendValueString(port, key, text.c_str()); s != cs::kOk) return Status(s);
    }
    return 0;
  }
  return SaveNames(port, kPortKeys, first, count, entrySize, any);
}

// The three port-list counts of a session.
struct Counts {
  uint32_t destinations, recvSources, transmitSources;
};
Counts SessionCounts(const uint8_t *session) {
  return {ReadU32At(session + kNumDestinations), ReadU32At(session + kNumRecvSources),
          ReadU32At(session + kNumTransmitSources)};
}

// Checks that the value holds its header, its sessions and every entry the
// sessions' counts claim.
bool TableFits(const SaveArgs &a, uint32_t sessions, size_t entrySize) {
  uint64_t needed = kHeaderSize + uint64_t{sessions} * kSessionSize;
  if (needed <= a.length) {
    for (uint32_t i = 0; i < sessions; ++i) {
      const Counts c = SessionCounts(a.value + kHeaderSize + size_t{i} * kSessionSize);
      needed += (uint64_t{c.destinations} + c.recvSources + c.transmitSources) * entrySize;
    }
  }
  if (needed <= a.length) return true;
  CS_ERROR("Prop: %s is %u bytes, its sessions need %llu\n", a.name, a.length,
           static_cast<unsigned long long>(needed));
  return false;
}

uint32_t SaveSession(const SaveArgs &a, const uint8_t *session, const uint8_t *entries,
                     size_t entrySize) {
  const std::string key = SlotText(session + kKey, kKeySlot);
  if (key.empty()) {
    CS_ERROR("Prop: %s: mirror session without a key\n", a.name);
    return kFailure;
  }
  cs::Object *obj = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, a.parent, a.key, key.c_str(), &obj); s != 0) return s;
  const std::string name = SlotText(session + kName, kNameSlot);
  if (int s = cs::SetValueStr(obj, "key", key.c_str()); s != cs::kOk) return Status(s);
  if (int s = cs::SetValueStr(obj, "name", name.c_str()); s != cs::kOk) return Status(s);
  if (const uint32_t length = ReadU32At(session + kPacketLength); length != kLengthNotSet) {
    if (int s = cs::SetValueUint32(obj, "mirrored_packet_length", length); s != cs::kOk) {
      return Status(s);
    }
  }
  const uint32_t type = ReadU32At(session + kSessionType);
  char spare[12];
  const char *typeName = NameOrNumber(SESSION_TYPE_LOCAL_ENUM_2_SCHEMA, kSessionNames, type, spare);
  if (int s = cs::SetValueStr(obj, "session_type", typeName); s != cs::kOk) return Status(s);

  const uint32_t flags = ReadU32At(session + kFlags);
  if (int s = cs::SetValueBool(obj, "enabled", (flags & kDisabled) == 0); s != cs::kOk) {
    return Status(s);
  }
  if (int s = cs::SetValueBool(obj, "strip_original_vlan", (flags & kVlanNotStripped) == 0);
      s != cs::kOk) {
    return Status(s);
  }
  // The results of these two are not checked.
  cs::SetValueBool(obj, "normal_traffic_allowed", (flags & kNormalTrafficNotAllowed) == 0);
  cs::SetValueBool(obj, "legacy_mode", (flags & kLegacyMode) != 0);
  if ((flags & kLegacyMode) != 0) {
    cs::Object *settings = nullptr;
    if (uint32_t s = GetOrCreateSubObject(true, a.object, "settings", "", &settings); s != 0) {
      return s;
    }
    if (int s = cs::SetValueStr(settings, "promiscuous_mode_vspan_session", key.c_str());
        s != cs::kOk) {
      return Status(s);
    }
  }

  cs::Object *transmit = nullptr, *recv = nullptr, *dest = nullptr;
  if (uint32_t s = GetOrCreateSubObject(true, obj, kTransmitSource, nullptr, &transmit); s != 0) {
    return s;
  }
  if (uint32_t s = GetOrCreateSubObject(true, obj, kRecvSource, nullptr, &recv); s != 0) return s;
  if (int s = cs::SetValueUint32(obj, "encapsulation_vlan_id", ReadU16At(session + kEncapVlan));
      s != cs::kOk) {
    return Status(s);
  }
  if (uint32_t s = SaveWildcardConnecteeTypes(recv, ReadU16At(session + kRecvWildcard)); s != 0) {
    return s;
  }
  if (uint32_t s = SaveWildcardConnecteeTypes(transmit, ReadU16At(session + kTransmitWildcard));
      s != 0) {
    return s;
  }
  cs::SetValueUint32(obj, "sampling_rate", ReadU32At(session + kSamplingRate));  // not checked
  const char *encap = NameOrNumber(ENCAP_TYPE_LOCAL_ENUM_2SCHEMA, VSPAN_ENCAP_TYPE_NUM,
                                   ReadU32At(session + kEncapType), spare);
  if (int s = cs::SetValueStr(obj, "encap_type", encap); s != cs::kOk) return Status(s);
  if (int s = cs::SetValueUint16(obj, "erspan_id", ReadU16At(session + kErspanId)); s != cs::kOk) {
    return Status(s);
  }
  if (int s = cs::SetValueUint16(obj, "erspan_COS", session[kErspanCos]); s != cs::kOk) {
    return Status(s);
  }
  if (int s = cs::SetValueBool(obj, "erspan_gra_nanosec", session[kErspanGraNanosec] != 0);
      s != cs::kOk) {
    return Status(s);
  }
  if (uint32_t s = GetOrCreateSubObject(true, obj, kDestination, nullptr, &dest); s != 0) return s;

  const Counts c = SessionCounts(session);
  const uint8_t *next = entries;
  if (uint32_t s = SaveMirrorPortList(c.destinations, next, dest, type, true, entrySize); s != 0) {
    return s;
  }
  next += size_t{c.destinations} * entrySize;
  if (uint32_t s = SaveMirrorPortList(c.recvSources, next, recv, type, false, entrySize); s != 0) {
    return s;
  }
  next += size_t{c.recvSources} * entrySize;
  return SaveMirrorPortList(c.transmitSources, next, transmit, type, false, entrySize);
}

uint32_t SaveMirrorSessions(const SaveArgs &a) {
  if (a.value == nullptr || a.length < kHeaderSize) {
    CS_ERROR("Prop: %s is %u bytes, shorter than its header\n", a.name, a.length);
    return kFailure;
  }
  const uint32_t sessions = ReadU32At(a.value + kNumSessionsAt);
  if (sessions == 0) return 0;
  const size_t entrySize = currentSwitchIsQor ? kWideEntry : kNarrowEntry;
  if (!TableFits(a, sessions, entrySize)) return kFailure;
  const uint8_t *entries = a.value + kHeaderSize + size_t{sessions} * kSessionSize;
  for (uint32_t i = 0; i < sessions; ++i) {
    const uint8_t *session = a.value + kHeaderSize + size_t{i} * kSessionSize;
    if (uint32_t s = SaveSession(a, session, entries, entrySize); s != 0) return s;
    const Counts c = SessionCounts(session);
    entries += (size_t{c.destinations} + c.recvSources + c.transmitSources) * entrySize;
  }
  return 0;
}

// --- load ---

// The port sub-objects of one session; null when absent.
struct Ports {
  cs::Object *destination = nullptr, *recv = nullptr, *transmit = nullptr;
};

Ports SessionPorts(cs::Object *session) {
  Ports p;
  cs::GetSubObject(session, kDestination, nullptr, &p.destination);
  cs::GetSubObject(session, kRecvSource, nullptr, &p.recv);
  cs::GetSubObject(session, kTransmitSource, nullptr, &p.transmit);
  return p;
}

struct StringArray {
  char **items = nullptr;
  int count = 0;
  StringArray(cs::Object *obj, const char *key) {
    if (obj != nullptr && cs::GetValueStringArray(obj, key, &items, &count) != cs::kOk) {
      items = nullptr;
      count = 0;
    }
  }
  ~StringArray() { cs::DestroyStringArrayValue(&items, count); }
  StringArray(const StringArray &) = delete;
  StringArray &operator=(const StringArray &) = delete;
};

uint64_t EntriesOf(cs::Object *port, bool destination) {
  uint64_t n = static_cast<uint32_t>(StringArray(port, kPortKeys).count);
  if (destination) n += static_cast<uint32_t>(StringArray(port, kUplinkNames).count);
  return n;
}

uint16_t LoadWildcardConnecteeTypes(cs::Object *port) {
  StringArray names(port, kWildcards);
  uint16_t bits = 0;
  for (int i = 0; i < names.count; ++i) {
    const char *n = names.items[i] != nullptr ? names.items[i] : "";
    if (std::strcmp(n, "VM_VNIC") == 0) bits |= kVmVnic;
    if (std::strcmp(n, "PNIC") == 0) bits |= kPnic;
    if (std::strcmp(n, "HOST_PYX_VNIC") == 0) bits |= kHostVnic;
    bits |= kAnyWildcard;
  }
  return bits;
}

// Where port entries go: the table's entry array and how many it holds.
struct EntrySpace {
  uint8_t *entries;
  uint64_t capacity;
  size_t entrySize;
};

// Writes the port keys (and, for a destination list, then the uplink names)
// from entry `first` on, never past the table's entries; returns how many.
uint32_t LoadMirrorPortList(const EntrySpace &space, uint64_t first, cs::Object *port,
                            bool destination) {
  uint32_t written = 0;
  const auto put = [&](const StringArray &names, uint32_t type) {
    for (int i = 0; i < names.count && first + written < space.capacity; ++i) {
      uint8_t *e = space.entries + (first + written) * space.entrySize;
      WriteU32At(e + kEntryType, type);
      CopyToSlot(e + kPayload, space.entrySize - kPayload, names.items[i]);
      ++written;
    }
  };
  put(StringArray(port, kPortKeys), kEntryPortKey);
  if (destination) put(StringArray(port, kUplinkNames), kEntryUplinkName);
  return written;
}

// Reads a session bool; 6 (absent) keeps `absent`.  Other failures are
// returned.
uint32_t ReadFlag(cs::Object *obj, const char *key, bool absent, bool *value) {
  uint8_t v = 0;
  const int s = cs::GetValueBool(obj, key, &v);
  if (s == cs::kNotFound) {
    *value = absent;
    return 0;
  }
  if (s != cs::kOk) return Status(s);
  *value = v != 0;
  return 0;
}

// The position of a stored name in a table, or -1 (message when the name is
// there but unknown).
uint32_t NamedValue(cs::Object *obj, const char *key, const char *const *table, size_t count,
                    const char *unknownFormat) {
  char *text = nullptr;
  if (cs::GetValueStr(obj, key, &text) != cs::kOk) return UINT32_MAX;
  const int i = StringIndexInArray(text, table, count);
  if (i < 0) CS_ERROR(unknownFormat, text);
  std::free(text);
  return static_cast<uint32_t>(i);
}

uint32_t LoadSession(cs::Object *obj, uint8_t *session, const EntrySpace &space, uint64_t *next) {
  WriteU32At(session + kFirstEntry, static_cast<uint32_t>(*next));
  char *text = nullptr;
  if (cs::GetValueStr(obj, "key", &text) == cs::kOk) CopyToSlot(session + kKey, kKeySlot, text);
  std::free(text);
  text = nullptr;
  if (cs::GetValueStr(obj, "name", &text) == cs::kOk) CopyToSlot(session + kName, kNameSlot, text);
  std::free(text);

  uint32_t length = 0;
  if (cs::GetValueUint32(obj, "mirrored_packet_length", &length) != cs::kOk) {
    length = kLengthNotSet;
  }
  WriteU32At(session + kPacketLength, length);
  uint16_t vlan = 0;
  if (cs::GetValueUint16(obj, "encapsulation_vlan_id", &vlan) != cs::kOk) vlan = 0;
  WriteU16At(session + kEncapVlan, vlan);

  bool enabled = true, strip = true, normal = true, legacy = false;
  if (uint32_t s = ReadFlag(obj, "enabled", true, &enabled); s != 0) return s;
  if (uint32_t s = ReadFlag(obj, "strip_original_vlan", true, &strip); s != 0) return s;
  if (uint32_t s = ReadFlag(obj, "normal_traffic_allowed", true, &normal); s != 0) return s;
  if (uint32_t s = ReadFlag(obj, "legacy_mode", false, &legacy); s != 0) return s;
  uint32_t flags = 0;
  if (!enabled) flags |= kDisabled;
  if (!strip) flags |= kVlanNotStripped;
  if (!normal) flags |= kNormalTrafficNotAllowedLoaded;
  if (legacy) flags |= kLegacyMode;
  if (vlan != 0) flags |= kEncapVlanSet;
  WriteU32At(session + kFlags, flags);

  const Ports ports = SessionPorts(obj);
  WriteU16At(session + kRecvWildcard, LoadWildcardConnecteeTypes(ports.recv));
  WriteU16At(session + kTransmitWildcard, LoadWildcardConnecteeTypes(ports.transmit));
  WriteU32At(session + kSessionType,
             NamedValue(obj, "session_type", SESSION_TYPE_LOCAL_ENUM_2_SCHEMA, kSessionNames,
                        "Unknown vspan session type in schema: %s\n"));
  uint32_t sampling = 0;
  if (cs::GetValueUint32(obj, "sampling_rate", &sampling) != cs::kOk) sampling = 0;
  WriteU32At(session + kSamplingRate, sampling);
  WriteU32At(session + kEncapType,
             NamedValue(obj, "encap_type", ENCAP_TYPE_LOCAL_ENUM_2SCHEMA, VSPAN_ENCAP_TYPE_NUM,
                        "Unknown vspan encap type in schema: %s\n"));
  uint16_t id = 0, cos = 0;
  uint8_t nanosec = 0;
  if (cs::GetValueUint16(obj, "erspan_id", &id) != cs::kOk) id = 0;
  if (cs::GetValueUint16(obj, "erspan_COS", &cos) != cs::kOk) cos = 0;
  if (cs::GetValueBool(obj, "erspan_gra_nanosec", &nanosec) != cs::kOk) nanosec = 0;
  WriteU16At(session + kErspanId, id);
  session[kErspanCos] = static_cast<uint8_t>(cos & 0xFF);
  session[kErspanGraNanosec] = nanosec != 0 ? 1 : 0;

  const std::pair<cs::Object *, size_t> lists[] = {{ports.destination, kNumDestinations},
                                                   {ports.recv, kNumRecvSources},
                                                   {ports.transmit, kNumTransmitSources}};
  for (const auto &[port, countAt] : lists) {
    const uint32_t n = LoadMirrorPortList(space, *next, port, countAt == kNumDestinations);
    WriteU32At(session + countAt, n);
    *next += n;
  }
  return 0;
}

bool RowLoads(const char *name) {
  if (currentSwitchClass != kClassOther) {
    return std::strcmp(name, kVswitchRow) == 0 || std::strcmp(name, kVswitchPortRow) == 0;
  }
  return std::strcmp(name, kEtherRow) == 0 || std::strcmp(name, kEtherPortRow) == 0;
}

uint32_t LoadMirrorSessions(const LoadArgs &a) {
  if (!RowLoads(a.name)) return 0;
  Instances sessions;
  if (uint32_t s = ListInstances(a.parent, a.key, &sessions); s != 0) return s;
  const int count = sessions.count;
  if (count < 1) return 0;

  const size_t entrySize = a.version > 99 ? kWideEntry : kNarrowEntry;
  uint64_t entries = 0;
  for (int i = 0; i < count; ++i) {
    const Ports p = SessionPorts(sessions.items[i]);
    entries += EntriesOf(p.destination, true) + EntriesOf(p.recv, false) +
               EntriesOf(p.transmit, false);
  }
  const uint64_t length = kHeaderSize + uint64_t(count) * kSessionSize + entries * entrySize;
  auto *table = length <= UINT32_MAX ? static_cast<uint8_t *>(std::calloc(1, length)) : nullptr;
  if (table == nullptr) {
    CS_ERROR("Failed to alloc memory for DVMirrorSessionTable");
    return kFailure;
  }
  WriteU32At(table + kMagicAt, kMagic);
  WriteU32At(table + kVersionAt, kTableVersion);
  WriteU32At(table + kNumSessionsAt, static_cast<uint32_t>(count));
  WriteU32At(table + kNumEntriesAt, static_cast<uint32_t>(entries));
  const EntrySpace space{table + kHeaderSize + size_t(count) * kSessionSize, entries, entrySize};
  uint64_t next = 0;
  uint32_t status = 0;
  for (int i = 0; i < count && status == 0; ++i) {
    status = LoadSession(sessions.items[i], table + kHeaderSize + size_t(i) * kSessionSize, space, &next);
  }
  if (status == 0) {
    status = ZELData_Update(a.list, a.name, table, static_cast<uint32_t>(length), a.propType);
  }
  std::free(table);
  return status;
}

}  // namespace

void RegisterMirrorKinds(KindTable &table) {
  table.Add(kKindMirrorSessions, SaveMirrorSessions, LoadMirrorSessions);
}

}  // namespace zel::persist::policy
