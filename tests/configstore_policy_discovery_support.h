// Mirror-session and discovery conversion tests: cases run on an in-memory object.
#pragma once

#include <optional>
#include <string>

#include "configstore_persist_support.h"

namespace policytest {

using namespace persisttest;

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
  std::string Content() const { return cfgtest::Json(object_); }

 private:
  cs::Object *object_ = nullptr;
};

inline uint32_t SaveCase(uint32_t kind, cs::Object *object, cs::Object *parent, const char *key,
                         const char *name, const Bytes &value) {
  const zp::SaveArgs args{object, parent, key, name, value.empty() ? nullptr : value.data(),
                          static_cast<uint32_t>(value.size()), 0, ZELDATA_PROPTYPE_LIBRARY};
  return zp::FindKind(kind)->save(args);
}

struct LoadResult {
  uint32_t status = 0;
  Props props;
};

inline LoadResult LoadCase(uint32_t kind, cs::Object *object, cs::Object *parent, const char *key,
                           const char *name, uint32_t version = 7) {
  PropertyList *list = zelstatetest::MakeList({});
  const zp::LoadArgs args{object, parent, key, list, name, ZELDATA_PROPTYPE_LIBRARY, 0, version};
  LoadResult r{zp::FindKind(kind)->load(args), {}};
  r.props = zelstatetest::ListProps(list);
  ZELData_Free(list);
  return r;
}

// A load that ended with `status` and added nothing.
inline bool Nothing(const LoadResult &r, uint32_t status = 0) {
  return r.status == status && r.props.empty();
}

// The one value a load added under name, or nothing.
inline std::optional<Bytes> Only(const LoadResult &r, const std::string &name) {
  if (r.props.size() != 1 || r.props[0].first != name) return std::nullopt;
  return r.props[0].second;
}

inline std::optional<Bytes> Value(const Props &props, const std::string &name) {
  const Bytes *v = Find(props, name);
  return v != nullptr ? std::optional<Bytes>(*v) : std::nullopt;
}

// Little-endian record writer at fixed offsets.
struct Record {
  Bytes b;
  explicit Record(size_t size) : b(size, 0) {}
  Record &le(size_t at, uint32_t v, size_t n) {
    for (size_t i = 0; i < n; ++i) b.at(at + i) = static_cast<uint8_t>(v >> (8 * i));
    return *this;
  }
  Record &u8(size_t at, uint8_t v) { return le(at, v, 1); }
  Record &u16(size_t at, uint16_t v) { return le(at, v, 2); }
  Record &u32(size_t at, uint32_t v) { return le(at, v, 4); }
  Record &text(size_t at, const std::string &s) { return raw(at, Bytes(s.begin(), s.end())); }
  Record &raw(size_t at, const Bytes &bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) b.at(at + i) = bytes[i];
    return *this;
  }
};

inline Bytes U16(uint16_t v) { return Record(2).u16(0, v).b; }

// Holds the class and QOR flag the conversions read, restored afterwards.
class ScopedSwitch {
 public:
  ScopedSwitch(int32_t cls, bool qor) : cls_(zp::currentSwitchClass), qor_(zp::currentSwitchIsQor) {
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
