// The plain conversion kinds: numbers, flags, short texts, an IPv4 address,
// the switch version and counted lists of uplink names, each stored as one
// typed value (or one list of strings) under its row's key.
//
// Values are not trusted: a number shorter than 4 bytes fails with kFailure,
// a text is read up to its first NUL or to the value's end, and a counted
// list is read only as far as whole slots lie within the value.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "configstore/kinds.h"
#include "configstore/persist.h"

namespace zel::persist {

namespace {

constexpr const char *kEtherMulticastFilter = "com.zorlan.etherswitch.multicastFilter";
constexpr const char *kVswitchMulticastFilter = "com.zorlan.vswitch.multicastFilter";
constexpr const char *kVswitchMtu = "com.zorlan.vswitch.mtu";
constexpr const char *kEtherMtu = "com.zorlan.etherswitch.mtu";
constexpr const char *kEtherTxUplink = "com.zorlan.etherswitch.port.txUplink";
constexpr const char *kVswitchTxUplink = "com.zorlan.vswitch.port.txUplink";

// Slot widths of the two counted name lists, NUL included.
constexpr uint32_t kPortIdSlot = 48;
constexpr uint32_t kPortNameSlot = 81;


// --- reading property values ---

bool ReadU32(const SaveArgs &a, uint32_t *out) {
  if (a.value == nullptr || a.length < sizeof(uint32_t)) {
    return false;
  }
  std::memcpy(out, a.value, sizeof *out);
  return true;
}

std::string ValueText(const SaveArgs &a) {
  if (a.value == nullptr) {
    return {};
  }
  const auto *text = reinterpret_cast<const char *>(a.value);
  return std::string(text, strnlen(text, a.length));
}

bool TextIs(const SaveArgs &a, const char *expected) { return ValueText(a) == expected; }

// --- adding loaded properties ---

uint32_t Add(const LoadArgs &a, const void *bytes, uint32_t length) {
  return ZELData_Update(a.list, a.name, bytes, length, a.propType);
}

uint32_t AddText(const LoadArgs &a, const char *text) {
  return Add(a, text, static_cast<uint32_t>(std::strlen(text) + 1));
}

// A store read: 6 means nothing is stored, which adds nothing.
bool Absent(int status) { return status == cs::kNotFound; }

struct StringArray {
  char **items = nullptr;
  int count = 0;
  ~StringArray() { cs::DestroyStringArrayValue(&items, count); }
};

// --- counted name lists ---

// Writes the names of a counted list value into a list of strings.
// `always` writes the (possibly empty) list even for a count of 0; otherwise
// a count of 0 writes nothing and the list's creation is not checked.
uint32_t SaveNameList(const SaveArgs &a, uint32_t slot, bool always) {
  uint32_t count = 0;
  if (!ReadU32(a, &count)) {
    return kFailure;
  }
  const uint32_t whole = (a.length - sizeof(uint32_t)) / slot;
  if (count > whole) {
    CS_ERROR("Prop: %s holds %u of its %u names\n", a.name, whole, count);
    count = whole;
  }
  if (count == 0 && !always) {
    return 0;
  }
  const int status = cs::SetValueEmptyList(a.parent, a.key);
  if (status != cs::kOk && always) {
    return Status(status);
  }
  for (uint32_t i = 0; i < count; ++i) {
    const auto *text = reinterpret_cast<const char *>(a.value + sizeof(uint32_t) + i * slot);
    const std::string name(text, strnlen(text, slot));
    if (int s = cs::AppendValueString(a.parent, a.key, name.c_str()); s != cs::kOk) {
      return Status(s);
    }
  }
  return 0;
}

// Builds a counted list value from the names (each cut to fit its slot with
// its NUL) and adds it.
uint32_t AddNameList(const LoadArgs &a, const StringArray &names, uint32_t slot,
                     const char *allocFailure) {
  const auto n = static_cast<uint32_t>(names.count);
  uint8_t *value = nullptr;
  if (n <= (UINT32_MAX - sizeof(uint32_t)) / slot) {
    value = static_cast<uint8_t *>(std::calloc(1, sizeof(uint32_t) + size_t{n} * slot));
  }
  if (value == nullptr) {
    CS_ERROR("%s", allocFailure);
    return kFailure;
  }
  std::memcpy(value, &n, sizeof n);
  for (uint32_t i = 0; i < n; ++i) {
    const char *name = names.items[i] != nullptr ? names.items[i] : "";
    std::memcpy(value + sizeof(uint32_t) + i * slot, name, strnlen(name, slot - 1));
  }
  const uint32_t status = Add(a, value, static_cast<uint32_t>(sizeof(uint32_t) + n * slot));
  std::free(value);
  return status;
}

// --- the cases ---

uint32_t SaveUint32(const SaveArgs &a) {
  uint32_t v = 0;
  return ReadU32(a, &v) ? Status(cs::SetValueUint32(a.parent, a.key, v)) : kFailure;
}

uint32_t SaveString(const SaveArgs &a) {
  return Status(cs::SetValueStr(a.parent, a.key, ValueText(a).c_str()));
}

uint32_t LoadString(const LoadArgs &a) {
  if (std::strcmp(a.name, kEtherMulticastFilter) == 0 && currentSwitchClass != kClassOther) {
    return 0;
  }
  if (std::strcmp(a.name, kVswitchMulticastFilter) == 0 && currentSwitchClass == kClassOther) {
    return 0;
  }
  char *text = nullptr;
  const int status = cs::GetValueStr(a.parent, a.key, &text);
  if (status != cs::kOk) {
    return Absent(status) ? 0 : Status(status);
  }
  const uint32_t result = AddText(a, text);
  std::free(text);
  return result;
}

uint32_t SaveInt32(const SaveArgs &a) {
  uint32_t v = 0;
  return ReadU32(a, &v) ? Status(cs::SetValueInt(a.parent, a.key, static_cast<int32_t>(v)))
                        : kFailure;
}

uint32_t LoadInt32(const LoadArgs &a) {
  int32_t v = 0;
  const int status = cs::GetValueInt(a.parent, a.key, &v);
  if (status != cs::kOk) {
    return Absent(status) ? 0 : Status(status);
  }
  return Add(a, &v, sizeof v);
}

uint32_t SaveFlagByte(const SaveArgs &a) {
  if (a.value == nullptr || a.length == 0) {
    return kFailure;
  }
  return Status(cs::SetValueBool(a.parent, a.key, a.value[0] != 0));
}

// Reads the bool under the key and hands it to `add`; nothing stored adds
// nothing.
template <typename AddFn>
uint32_t WithStoredBool(const LoadArgs &a, AddFn add) {
  uint8_t v = 0;
  const int status = cs::GetValueBool(a.parent, a.key, &v);
  if (status != cs::kOk) {
    return Absent(status) ? 0 : Status(status);
  }
  return add(v != 0);
}

uint32_t LoadFlagByte(const LoadArgs &a) {
  return WithStoredBool(a, [&a](bool value) {
    const uint8_t byte = value ? 1 : 0;
    return Add(a, &byte, sizeof byte);
  });
}

uint32_t SaveTrueText(const SaveArgs &a) {
  return Status(cs::SetValueBool(a.parent, a.key, TextIs(a, "true")));
}

uint32_t SaveIpv4(const SaveArgs &a) {
  uint32_t raw = 0;
  if (!ReadU32(a, &raw)) {
    return kFailure;
  }
  char text[INET_ADDRSTRLEN] = {};
  if (inet_ntop(AF_INET, a.value, text, sizeof text) == nullptr) {
    CS_ERROR("Failed to parse integer to Ipv4Address: %u\n", raw);
    return kFailure;
  }
  return Status(cs::SetValueStr(a.parent, a.key, text));
}

uint32_t LoadIpv4(const LoadArgs &a) {
  char *text = nullptr;
  const int status = cs::GetValueStr(a.parent, a.key, &text);
  if (status != cs::kOk) {
    return Absent(status) ? 0 : Status(status);
  }
  in_addr address{};
  const bool parsed = inet_pton(AF_INET, text, &address) == 1;
  std::free(text);
  return parsed ? Add(a, &address, sizeof address) : kFailure;
}

uint32_t SaveUplinkPortKeys(const SaveArgs &a) { return SaveNameList(a, kPortIdSlot, true); }

uint32_t LoadUplinkPortKeys(const LoadArgs &a) {
  StringArray names;
  const int status = cs::GetValueStringArray(a.parent, a.key, &names.items, &names.count);
  if (names.count < 1) {
    return 0;
  }
  if (status != cs::kOk && !Absent(status)) {
    return Status(status);
  }
  return AddNameList(a, names, kPortIdSlot, "Failed to alloc memory for ZELUplinkPortIds");
}

const char *VersionText(uint32_t code) {
  switch (code) {
    case 4: return "6.0.0";
    case 5: return "6.5.0";
    case 6: return "6.6.0";
    case 7: case 107: return "7.0.0";
    case 100: return "QOR 1.0";
    default: return nullptr;
  }
}

uint32_t SaveVersion(const SaveArgs &a) {
  uint32_t code = 0;
  if (!ReadU32(a, &code)) {
    return kFailure;
  }
  const char *text = VersionText(code);
  if (text == nullptr) {
    char shown[16];
    std::snprintf(shown, sizeof shown, "%u", code);
    CS_ERROR("Unknow version : %s\n", shown);
    return kFailure;
  }
  return Status(cs::SetValueStr(a.parent, a.key, text));
}

// The version comes from the switch object as a whole ("product"/"version"
// and "qor_enabled"), not from the row's key alone.
uint32_t LoadVersion(const LoadArgs &a) {
  uint32_t code = 0;
  if (uint32_t status = GetConfigSwitchVersion(a.object, &code); status != 0) {
    return status;
  }
  return Add(a, &code, sizeof code);
}

uint32_t SaveUplinkPortNames(const SaveArgs &a) { return SaveNameList(a, kPortNameSlot, false); }

uint32_t LoadUplinkPortNames(const LoadArgs &a) {
  StringArray names;
  const int status = cs::GetValueStringArray(a.parent, a.key, &names.items, &names.count);
  if (status != cs::kOk) {
    return Absent(status) ? 0 : Status(status);
  }
  if (names.count < 1) {
    return 0;
  }
  return AddNameList(a, names, kPortNameSlot, "Failed to alloc memory for ZELUplinkPorts");
}

uint32_t LoadMtu(const LoadArgs &a) {
  if (std::strcmp(a.name, kVswitchMtu) == 0 && currentSwitchClass != kClassVswitch) {
    return 0;
  }
  if (std::strcmp(a.name, kEtherMtu) == 0 && currentSwitchClass != kClassOther) {
    return 0;
  }
  return LoadUint32Prop(a);
}

uint32_t SaveTxUplink(const SaveArgs &a) {
  return Status(cs::SetValueBool(a.parent, "tx_uplink", TextIs(a, "always")));
}

uint32_t LoadTxUplink(const LoadArgs &a) {
  if (std::strcmp(a.name, kEtherTxUplink) == 0 && currentSwitchClass != kClassOther) {
    return 0;
  }
  if (std::strcmp(a.name, kVswitchTxUplink) == 0 && currentSwitchClass == kClassOther) {
    return 0;
  }
  return WithStoredBool(a, [&a](bool value) { return AddText(a, value ? "always" : "normal"); });
}

uint32_t SavePassthrough(const SaveArgs &a) {
  uint32_t v = 0;
  return ReadU32(a, &v) ? Status(cs::SetValueBool(a.parent, a.key, v == 2)) : kFailure;
}

uint32_t LoadPassthrough(const LoadArgs &a) {
  return WithStoredBool(a, [&a](bool value) {
    const uint32_t v = value ? 2 : 0;
    return Add(a, &v, sizeof v);
  });
}

uint32_t SaveIpfixEnabled(const SaveArgs &a) {
  return Status(cs::SetValueBool(a.parent, a.key, TextIs(a, "enabled")));
}

uint32_t LoadIpfixEnabled(const LoadArgs &a) {
  // A stored false gives no property.
  return WithStoredBool(a, [&a](bool value) { return value ? AddText(a, "enabled") : 0u; });
}

}  // namespace

uint32_t LoadUint32Prop(const LoadArgs &a) {
  uint32_t v = 0;
  const int status = cs::GetValueUint32(a.parent, a.key, &v);
  if (status != cs::kOk) {
    return Absent(status) ? 0 : Status(status);
  }
  return Add(a, &v, sizeof v);
}

uint32_t LoadBoolAsText(const LoadArgs &a) {
  return WithStoredBool(a, [&a](bool value) { return AddText(a, value ? "true" : "false"); });
}

void RegisterScalarKinds(KindTable &table) {
  table.Add(kKindUint32, SaveUint32, LoadUint32Prop);
  table.Add(kKindString, SaveString, LoadString);
  table.Add(kKindInt32, SaveInt32, LoadInt32);
  table.Add(kKindFlagByte, SaveFlagByte, LoadFlagByte);
  table.Add(kKindTextBool, SaveTrueText, LoadBoolAsText);
  table.Add(kKindIpv4, SaveIpv4, LoadIpv4);
  table.Add(kKindUplinkPortKeys, SaveUplinkPortKeys, LoadUplinkPortKeys);
  table.Add(kKindVersion, SaveVersion, LoadVersion);
  table.Add(kKindQorFlag, SaveTrueText, LoadBoolAsText);
  table.Add(kKindUplinkPortNames, SaveUplinkPortNames, LoadUplinkPortNames);
  table.Add(kKindMtu, SaveUint32, LoadMtu);
  table.Add(kKindTxUplink, SaveTxUplink, LoadTxUplink);
  table.Add(kKindPortBlocked, SaveTrueText, LoadBoolAsText);
  table.Add(kKindPassthrough, SavePassthrough, LoadPassthrough);
  table.Add(kKindIpfixEnabled, SaveIpfixEnabled, LoadIpfixEnabled);
}

}  // namespace zel::persist
