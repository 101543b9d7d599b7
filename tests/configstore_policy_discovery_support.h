// Helpers of the mirror-session and discovery/LACP/IPFIX conversion tests:
// one conversion case run on an in-memory object, its content as stored, and
// little-endian record builders.
#pragma once

#include <optional>
#include <string>

#include "configstore_persist_support.h"

namespace policytest {

using namespace persisttest;

// An in-memory switch object (never written to a store).
class MemObject {
 public:
  explicit MemObject(const char *content = "{}") {
    EXPECT_EQ(cs::CreateObject("switches", "network_zel", "orn", "sw-m", content, &object_), 0);
  }
  ~MemObject() { cs::DestroyConfigStoreObject(object_); }
  MemObject(const MemObject &) = delete;
  MemObject &operator=(const MemObject &) = delete;
  cs::Object *get() const { return object_; }

  // The singleton "settings", created when absent.
  cs::Object *Settings() const {
    cs::Object *s = nullptr;
    EXPECT_EQ(cs::CreateSubObject(object_, "settings", nullptr, &s), 0);
    return s;
  }
  std::string Content() const {
    char *json = nullptr;
    EXPECT_EQ(cs::ExportObjectJson(object_, &json), 0);
    std::string out = json != nullptr ? json : "";
    std::free(json);
    return out;
  }

 private:
  cs::Object *object_ = nullptr;
};

inline uint32_t SaveCase(uint32_t kind, cs::Object *object, cs::Object *parent, const char *key,
                         const char *name, const Bytes &value) {
  const zp::KindCase *c = zp::FindKind(kind);
  EXPECT_NE(c, nullptr);
  if (c == nullptr) return 0;
  const zp::SaveArgs args{object, parent, key, name, value.empty() ? nullptr : value.data(),
                          static_cast<uint32_t>(value.size()), 0, ZELDATA_PROPTYPE_LIBRARY};
  return c->save(args);
}

struct LoadResult {
  uint32_t status = 0;
  Props props;  // what the case added
};

inline LoadResult LoadCase(uint32_t kind, cs::Object *object, cs::Object *parent, const char *key,
                           const char *name, uint32_t version = 7) {
  LoadResult r;
  const zp::KindCase *c = zp::FindKind(kind);
  EXPECT_NE(c, nullptr);
  if (c == nullptr) return r;
  PropertyList *list = zelstatetest::MakeList({});
  const zp::LoadArgs args{object, parent, key, list, name, ZELDATA_PROPTYPE_LIBRARY, 0, version};
  r.status = c->load(args);
  r.props = zelstatetest::ListProps(list);
  ZELData_Free(list);
  return r;
}

// The one value a load added under name, or nothing.
inline std::optional<Bytes> Only(const LoadResult &r, const std::string &name) {
  if (r.props.size() != 1 || r.props[0].first != name) return std::nullopt;
  return r.props[0].second;
}

// The value of a property in a list, or nothing.
inline std::optional<Bytes> Value(const Props &props, const std::string &name) {
  for (const auto &[n, v] : props)
    if (n == name) return v;
  return std::nullopt;
}

// Little-endian record writer at fixed offsets.
struct Record {
  Bytes b;
  explicit Record(size_t size) : b(size, 0) {}
  Record &u8(size_t at, uint8_t v) {
    b.at(at) = v;
    return *this;
  }
  Record &u16(size_t at, uint16_t v) {
    for (size_t i = 0; i < 2; ++i) b.at(at + i) = static_cast<uint8_t>(v >> (8 * i));
    return *this;
  }
  Record &u32(size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) b.at(at + i) = static_cast<uint8_t>(v >> (8 * i));
    return *this;
  }
  Record &text(size_t at, const std::string &s) {
    for (size_t i = 0; i < s.size(); ++i) b.at(at + i) = static_cast<uint8_t>(s[i]);
    return *this;
  }
  Record &raw(size_t at, const Bytes &bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) b.at(at + i) = bytes[i];
    return *this;
  }
};

// Holds the class and QOR flag the conversions read, restored afterwards.
class ScopedSwitch {
 public:
  ScopedSwitch(int32_t cls, bool qor)
      : cls_(zp::currentSwitchClass), qor_(zp::currentSwitchIsQor) {
    zp::currentSwitchClass = cls;
    zp::currentSwitchIsQor = qor;
  }
  ~ScopedSwitch() {
    zp::currentSwitchClass = cls_;
    zp::currentSwitchIsQor = qor_;
  }

 private:
  int32_t cls_;
  bool qor_;
};

}  // namespace policytest
