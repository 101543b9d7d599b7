// Opaque, vendor-specific and extra-config data (kinds 22 and 33): the
// catch-all rows of the mapping tables.  Saving turns one property that no
// other row took into one instance of a list under the owner's singleton
// "data" sub-object; loading turns every instance of those lists back into a
// property named by the instance's "key" (the store presents an instance id
// as its "key").
//
// Text fields hold a value up to its first NUL (never past its length) and
// load back with their NUL; byte fields hold the whole value.
//
// Decisions of our own:
//  - On loading a switch or host, an absent list (status 6) counts as an
//    empty one also when it is the last list: a "data" object that holds only
//    some of the lists loads without failing.
//  - Port properties kept under "other_data" come back on loading with the
//    type saved beside them in "prop_type".  An instance without a readable
//    type, or with a type that has neither persisted bit (such a property is
//    never saved), is passed over.
//  - A value longer than the store's int length is refused.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "configstore/kinds.h"
#include "configstore/persist.h"
#include "configstore/policy/opaque_instances.h"
#include "configstore/policy/policy.h"

namespace zel::persist::policy {

namespace {

constexpr uint32_t kOpaqueBit = 0x08;
constexpr uint32_t kVendorBit = 0x10;
constexpr uint32_t kOpaqueType = kOpaqueBit | kVendorBit;  // type of loaded opaque data

constexpr const char *kSwitchExtraConfigMark = "com.zorlan.extraconfig";
constexpr const char *kPortExtraConfigPrefix = "com.zorlan.port.extraConfig";
constexpr const char *kRulesetSuffix = ".ruleset";


struct FreeDeleter {
  void operator()(void *p) const { std::free(p); }
};
using CText = std::unique_ptr<char, FreeDeleter>;
using CBytes = std::unique_ptr<uint8_t, FreeDeleter>;

// --- saving ---

std::string ValueText(const SaveArgs &a) {
  if (a.value == nullptr) {
    return {};
  }
  const auto *text = reinterpret_cast<const char *>(a.value);
  return std::string(text, strnlen(text, a.length));
}

uint32_t SetText(cs::Object *instance, const SaveArgs &a) {
  return Status(cs::SetValueStr(instance, "value", ValueText(a).c_str()));
}

uint32_t SetBytes(cs::Object *instance, const SaveArgs &a) {
  if (a.length > static_cast<uint32_t>(INT_MAX)) {
    return kFailure;
  }
  static const uint8_t kNothing = 0;  // an empty value still needs bytes to point at
  const uint8_t *bytes = a.value != nullptr ? a.value : &kNothing;
  return Status(cs::SetValueBinary(instance, "opaque_data", bytes, static_cast<int>(a.length)));
}

// The owner's "data" singleton, created when absent.  *data stays null (and
// 0 is returned) when the store hands back no object.
uint32_t DataObject(const SaveArgs &a, cs::Object **data) {
  return GetOrCreateSubObject(true, a.parent, a.key, "", data);
}

// An instance named by the property with the value as text in "value".
uint32_t SaveText(cs::Object *data, const char *list, const SaveArgs &a) {
  cs::Object *instance = nullptr;
  if (int s = cs::CreateSubObject(data, list, a.name, &instance); s != cs::kOk) {
    return Status(s);
  }
  return SetText(instance, a);
}

// An instance with the property name in "key" and the bytes in
// "opaque_data".
uint32_t SaveKeyedBytes(cs::Object *data, const char *list, const char *instanceId,
                        const SaveArgs &a) {
  cs::Object *instance = nullptr;
  if (int s = cs::CreateSubObject(data, list, instanceId, &instance); s != cs::kOk) {
    return Status(s);
  }
  if (int s = cs::SetValueStr(instance, "key", a.name); s != cs::kOk) {
    return Status(s);
  }
  return SetBytes(instance, a);
}

// Kind 22: a switch (table 0) or host (table 1) property.
uint32_t SaveOwnerData(const SaveArgs &a) {
  if (a.tableIndex != kTableGlobal && a.tableIndex != kTableHost) {
    return kFailure;
  }
  cs::Object *data = nullptr;
  if (uint32_t s = DataObject(a, &data); s != 0 || data == nullptr) {
    return s;
  }
  const bool opaque = (a.propType & kOpaqueBit) != 0;
  if (a.tableIndex == kTableHost) {
    return opaque ? SaveKeyedBytes(data, "host_opaque_data", a.name, a)
                  : SaveText(data, "vendor_specific_host_member_config", a);
  }
  if (opaque) {
    char *raw = nullptr;
    const int s = cs::GenerateInstanceId(&raw);
    CText id(raw);
    if (s != cs::kOk) {
      return Status(s);
    }
    return SaveKeyedBytes(data, "zel_opaque_data", id.get(), a);
  }
  const bool extra = std::strstr(a.name, kSwitchExtraConfigMark) != nullptr;
  return SaveText(data, extra ? "extra_config" : "vendor_specific_config", a);
}

bool EndsWith(const char *text, const char *suffix) {
  const size_t n = std::strlen(text);
  const size_t m = std::strlen(suffix);
  return n >= m && std::strcmp(text + n - m, suffix) == 0;
}

// Kind 33: a port property.
uint32_t SavePortData(const SaveArgs &a) {
  cs::Object *data = nullptr;
  if (uint32_t s = DataObject(a, &data); s != 0 || data == nullptr) {
    return s;
  }
  const char *list = nullptr;
  bool bytes = true;
  if (EndsWith(a.name, kRulesetSuffix)) {
    list = "ruleset_data";
  } else if ((a.propType & kOpaqueType) == kOpaqueType) {
    list = "opaque_data";
  } else if ((a.propType & kVendorBit) != 0) {
    list = "vendor_specific_data";
    bytes = false;
  } else if (std::strncmp(a.name, kPortExtraConfigPrefix, std::strlen(kPortExtraConfigPrefix)) ==
             0) {
    list = "extra_config";
    bytes = false;
  } else {
    list = "other_data";
  }
  if (!bytes) {
    return SaveText(data, list, a);
  }
  cs::Object *instance = nullptr;
  if (int s = cs::CreateSubObject(data, list, a.name, &instance); s != cs::kOk) {
    return Status(s);
  }
  if (uint32_t s = SetBytes(instance, a); s != 0) {
    return s;
  }
  if (std::strcmp(list, "other_data") == 0) {
    return Status(cs::SetValueUint32(instance, "prop_type", a.propType));
  }
  return 0;
}

// --- loading ---

// One list of the "data" object: its name, how its value is stored and the
// type its properties load with.
struct ListSpec {
  const char *list;
  bool bytes;  // "opaque_data" as bytes, else "value" as text
  uint32_t type;
};
// The type saved beside the value in "prop_type".
constexpr uint32_t kSavedType = 0;

constexpr ListSpec kSwitchLists[] = {
    {"vendor_specific_config", false, kLibraryType},
    {"zel_opaque_data", true, kOpaqueType},
    {"extra_config", false, kLibraryType},
};
constexpr ListSpec kHostLists[] = {
    {"vendor_specific_host_member_config", false, kLibraryType},
    {"host_opaque_data", true, kOpaqueType},
};
constexpr ListSpec kPortLists[] = {
    {"ruleset_data", true, kLibraryType},
    {"opaque_data", true, kOpaqueType},
    {"extra_config", false, kLibraryType},
    {"vendor_specific_data", false, kLibraryType},
    {"other_data", true, kSavedType},
};

// What one instance holds: the property name and value.
struct Stored {
  CText name;
  CText text;
  CBytes bytes;
  uint32_t length = 0;
  const void *Value() const {
    return text != nullptr ? static_cast<const void *>(text.get()) : bytes.get();
  }
};

// Reads the name ("key") and the value of an instance; the store's status.
int ReadInstance(cs::Object *instance, bool bytes, Stored &out) {
  char *name = nullptr;
  int status = cs::GetValueStr(instance, "key", &name);
  out.name.reset(name);
  if (status != cs::kOk) {
    return status;
  }
  if (bytes) {
    uint8_t *data = nullptr;
    int length = 0;
    status = cs::GetValueBinary(instance, "opaque_data", &data, &length);
    out.bytes.reset(data);
    out.length = length > 0 ? static_cast<uint32_t>(length) : 0;
    return status;
  }
  char *text = nullptr;
  status = cs::GetValueStr(instance, "value", &text);
  out.text.reset(text);
  if (status == cs::kOk) {
    out.length = static_cast<uint32_t>(std::strlen(text) + 1);
  }
  return status;
}

// Kind 22: the lists of a switch or host.  A failing read ends the load; a
// failing update is passed over; the status is that of the last listing.
uint32_t LoadOwnerData(const LoadArgs &a) {
  const ListSpec *begin = nullptr;
  const ListSpec *end = nullptr;
  if (a.tableIndex == kTableGlobal) {
    begin = std::begin(kSwitchLists);
    end = std::end(kSwitchLists);
  } else if (a.tableIndex == kTableHost) {
    begin = std::begin(kHostLists);
    end = std::end(kHostLists);
  } else {
    return kFailure;
  }
  cs::Object *data = nullptr;
  if (int s = cs::GetSubObject(a.parent, a.key, "", &data); s != cs::kOk) {
    return s == cs::kNotFound ? 0 : Status(s);
  }
  uint32_t listing = 0;
  for (const ListSpec *spec = begin; spec != end; ++spec) {
    Instances instances;
    const int s = ListInstances(data, spec->list, instances);
    listing = s == cs::kNotFound ? 0 : Status(s);
    if (s != cs::kOk) {
      continue;
    }
    for (int i = 0; i < instances.count; ++i) {
      Stored stored;
      if (int r = ReadInstance(instances.items[i], spec->bytes, stored); r != cs::kOk) {
        return Status(r);
      }
      ZELData_Update(a.list, stored.name.get(), stored.Value(), stored.length, spec->type);
    }
  }
  return listing;
}

// Kind 33: the lists of a port.  The first failing listing, read or update
// ends the load.
uint32_t LoadPortData(const LoadArgs &a) {
  cs::Object *data = nullptr;
  if (int s = cs::GetSubObject(a.parent, a.key, "", &data); s != cs::kOk) {
    return s == cs::kNotFound ? 0 : Status(s);
  }
  for (const ListSpec &spec : kPortLists) {
    Instances instances;
    if (int s = ListInstances(data, spec.list, instances); s != cs::kOk) {
      if (s == cs::kNotFound) {
        continue;
      }
      return Status(s);
    }
    for (int i = 0; i < instances.count; ++i) {
      Stored stored;
      if (int r = ReadInstance(instances.items[i], spec.bytes, stored); r != cs::kOk) {
        return Status(r);
      }
      uint32_t type = spec.type;
      if (type == kSavedType &&
          (cs::GetValueUint32(instances.items[i], "prop_type", &type) != cs::kOk ||
           (type & kPersistTypeBits) == 0)) {
        continue;
      }
      if (ReturnStatus u =
              ZELData_Update(a.list, stored.name.get(), stored.Value(), stored.length, type);
          u != STATUS_OK) {
        return u;
      }
    }
  }
  return 0;
}

}  // namespace

void RegisterOpaqueKinds(KindTable &table) {
  table.Add(kKindSwitchData, SaveOwnerData, LoadOwnerData);
  table.Add(kKindPortData, SavePortData, LoadPortData);
}

}  // namespace zel::persist::policy
