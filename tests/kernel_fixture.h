// An emulated kernel module installed as the device, and builders of
// switches, ports and properties inside it.
#pragma once

#include <functional>

#include "kernel/channel.h"
#include "sim/emulated_kernel.h"
#include "sim/state_view.h"
#include "state_fixture.h"

namespace zelkerneltest {

using zelstatetest::Bytes;
using zelstatetest::DatabaseEmpty;
using zelstatetest::Text;
using zelstatetest::U32;
using Prop = zel::sim::PropView;
using Props = zel::sim::PropsView;
using zel::sim::SwitchView;
using V = std::vector<std::string>;

inline Props Entries(PropertyList *list) { return zel::sim::ViewList(list); }

inline V Names(const Props &props) {
  V names;
  for (const Prop &p : props) names.push_back(p.name);
  return names;
}

template <typename T>
V Ids(const std::vector<T> &items) {
  V ids;
  for (const T &item : items) ids.push_back(item.id);
  return ids;
}

inline PropertyList *MakeList(const Props &props) {
  PropertyList *list = nullptr;
  EXPECT_EQ(ZELData_Alloc(&list, [](uint64_t n) { return std::malloc(n); }, std::free), STATUS_OK);
  for (const Prop &p : props) {
    const auto size = static_cast<uint32_t>(p.value.size());
    EXPECT_EQ(ZELData_Append(list, p.name.c_str(), p.value.data(), size, p.type), STATUS_OK);
  }
  return list;
}

inline Bytes Encode(const Props &props, uint32_t version = 7) {
  PropertyList *list = MakeList(props);
  const Bytes out = zelstatetest::Serialize(list, version);
  ZELData_Free(list);
  return out;
}

// A state blob as the library nests it (class name in its 128-byte field).
inline Bytes Blob(const std::vector<SwitchView> &switches) {
  Props outer;
  for (const SwitchView &sw : switches) {
    Bytes cls = Text(sw.className);
    cls.resize(128);
    Props fields = {{"switchVersion", U32(sw.version)}, {"className", cls},
                    {"maxPorts", U32(sw.maxPorts)},     {"globalPropList", Encode(sw.global, 5)},
                    {"hostPropList", Encode(sw.host, 5)}};
    for (const auto &p : sw.ports) fields.push_back({p.id, Encode(p.props, 5)});
    outer.push_back({sw.id, Encode(fields, 5)});
  }
  return Encode(outer, 5);
}

inline std::vector<SwitchView> View(const void *blob, uint32_t length) {
  std::vector<SwitchView> out;
  EXPECT_EQ(zel::sim::ViewState(blob, length, &out), STATUS_OK);
  return out;
}

// A host limit of 4096 ports on both sides.
class KernelTest : public ::testing::Test {
 protected:
  void SetUp() override { zel::state::testing::SetPortLimit(4096); }
  void TearDown() override {
    EXPECT_TRUE(DatabaseEmpty());
    zel::state::testing::SetPortLimit(0);
  }

  static void AddSwitch(const char *sw, const char *cls = "vswitch", uint32_t version = 7,
                        uint32_t maxPorts = 0) {
    ASSERT_EQ(ZELPYX_SwitchAdd(sw, cls, maxPorts, version), STATUS_OK);
  }
  using SetFn = ReturnStatus (*)(const char *, const char *, const void *, uint32_t, uint32_t);
  static void SetProps(SetFn set, const char *sw, const Props &props) {
    for (const Prop &p : props) {
      const auto size = static_cast<uint32_t>(p.value.size());
      ASSERT_EQ(set(sw, p.name.c_str(), p.value.data(), size, p.type), STATUS_OK) << p.name;
    }
  }
  static void SetGlobal(const char *sw, const Props &p) { SetProps(ZELPYX_GlobalPropSet, sw, p); }
  static void SetHost(const char *sw, const Props &p) { SetProps(ZELPYX_HostPropSet, sw, p); }
  // A normal port has no kind property.
  static void AddPort(const char *sw, const char *port, const Props &props = {},
                      uint32_t kind = PORT_KIND_NORMAL) {
    Props all = props;
    if (kind != PORT_KIND_NORMAL) all.insert(all.begin(), {ZEL_PROP_PORT_TYPE, U32(kind), 16});
    const Bytes data = all.empty() ? Bytes{} : Encode(all);
    const auto size = static_cast<uint32_t>(data.size());
    ASSERT_EQ(ZELPYX_PortAdd(sw, port, size ? data.data() : nullptr, size), STATUS_OK) << port;
  }

  zel::sim::EmulatedKernel kernel{4096};
  zel::kernel::ScopedTransport use{&kernel};
};

}  // namespace zelkerneltest
