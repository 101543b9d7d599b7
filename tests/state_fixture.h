// The state database tests' fixture and builders.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "state/state_testing.h"
#include "test_support.h"
#include "zel/data.h"
#include "zel/state.h"

namespace zelstatetest {

using Bytes = std::vector<uint8_t>;
using Props = std::vector<std::pair<std::string, Bytes>>;

inline Bytes AsBytes(const void *data, size_t length) {
  const auto *p = static_cast<const uint8_t *>(data);
  return Bytes(p, p + length);
}

// A string value with its NUL, as the library stores text.
inline Bytes Text(const std::string &s) { return AsBytes(s.c_str(), s.size() + 1); }
inline Bytes U32(uint32_t v) { return AsBytes(&v, 4); }
inline void Put32(Bytes &b, size_t at, uint32_t v) { std::memcpy(b.data() + at, &v, 4); }
inline uint32_t Get32(const Bytes &b, size_t at) {
  uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

// An independent encoder of serialized property data (the checksum sums the
// words from byte 32 on).
struct Entry {
  std::string name;
  Bytes value;
  uint32_t type = 16;
};
inline Bytes Encode(const std::vector<Entry> &entries) {
  Bytes b(12, 0);
  for (const Entry &e : entries) {
    const size_t at = b.size();
    const auto entryLength = (static_cast<uint32_t>(e.value.size()) + 146) & ~3u;
    b.resize(at + entryLength, 0);
    Put32(b, at, entryLength);
    std::memcpy(b.data() + at + 4, e.name.data(), e.name.size());
    Put32(b, at + 132, e.type);
    Put32(b, at + 136, static_cast<uint32_t>(e.value.size()));
    if (!e.value.empty()) std::memcpy(b.data() + at + 140, e.value.data(), e.value.size());
  }
  b.resize(b.size() + 4, 0);
  Put32(b, 0, static_cast<uint32_t>(b.size()));
  b[8] = 1;
  uint32_t sum = 0;
  for (size_t off = 32; off + 4 <= b.size(); off += 4) sum += Get32(b, off);
  Put32(b, 4, sum);
  return b;
}

inline void *Malloc(uint64_t n) { return std::malloc(n); }

// A malloc-backed list holding the properties in order (type 16).
inline PropertyList *MakeList(const Props &props, uint32_t propType = ZELDATA_PROPTYPE_LIBRARY) {
  PropertyList *list = nullptr;
  EXPECT_EQ(ZELData_Alloc(&list, Malloc, std::free), STATUS_OK);
  for (const auto &[name, value] : props) {
    EXPECT_EQ(ZELData_Append(list, name.c_str(), value.data(), static_cast<uint32_t>(value.size()),
                             propType),
              STATUS_OK);
  }
  return list;
}

inline Props ListProps(PropertyList *list) {
  Props props;
  PropertyEntry *entry = nullptr;
  while (ZELData_Next(list, entry, &entry) == STATUS_OK) {
    void *value = nullptr;
    const uint32_t length = ZELData_Data(entry, &value);
    props.emplace_back(ZELData_Name(entry), AsBytes(value, length));
  }
  return props;
}

inline Bytes Serialize(PropertyList *list, uint32_t version = 7) {
  void *buffer = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(ZELData_Serialize(list, &buffer, &length, version), STATUS_OK);
  Bytes out = AsBytes(buffer, length);
  ZELData_FreeAssocData(list, buffer);
  return out;
}

inline Bytes StateBlob() {
  void *buffer = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(ZELState_ConfigSerialize(&buffer, &length), STATUS_OK);
  Bytes out = AsBytes(buffer, length);
  std::free(buffer);
  return out;
}

inline ReturnStatus AddPort(const char *sw, const char *port, PortKind kind = PORT_KIND_NORMAL,
                            const Props &props = {}) {
  PropertyList *list = MakeList(props);
  ReturnStatus status = ZELStatePortAdd(sw, port, list, kind);
  if (status != STATUS_OK) ZELData_Free(list);
  return status;
}

// Switch ids of the table by slot ("" for an empty slot).
inline std::vector<std::string> Slots() {
  std::vector<std::string> ids;
  for (int i = 0; i < ZEL_MAX_SWITCHES; ++i) {
    SwitchState *sw = zel::state::testing::SwitchAtSlot(i);
    ids.push_back(sw != nullptr ? ZEL_SwitchId(sw) : "");
  }
  return ids;
}

inline uint32_t HostPorts() { return zel::state::testing::NumActivePortsSystemWide(); }

inline bool DatabaseEmpty() { return Slots() == std::vector<std::string>(ZEL_MAX_SWITCHES, ""); }

// A limit of 4096 ports; the table is emptied and the allocator restored after.
class StateTest : public ::testing::Test {
 protected:
  void SetUp() override { zel::state::testing::SetPortLimit(4096); }
  void TearDown() override {
    zeltest::failalloc::FailAt(0);
    zel::state::testing::SetPortLimit(0);  // empties the table before the allocator changes
    zel::state::testing::SetAllocator(nullptr, nullptr);
  }
  static std::string Output(int level, const std::function<void()> &fn) {
    zeltest::ScopedLevel scoped(zel_debug, level);
    return zeltest::CaptureStdout(fn);
  }
  // Expects fn to return `status` and print exactly `text` at debug level `level`.
  static void ExpectOutput(int level, ReturnStatus status, const std::string &text,
                           const std::function<ReturnStatus()> &fn) {
    ReturnStatus got = STATUS_OK;
    EXPECT_EQ(Output(level, [&] { got = fn(); }), text);
    EXPECT_EQ(got, status);
  }
};

}  // namespace zelstatetest
