// The emulated kernel switch module driven through the library's kernel
// channel: switches, ports, properties, the state blob, its own commands,
// and the hooks tests use (fault injection, counters, a missing device).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kernel/channel.h"
#include "sim/emulated_kernel.h"
#include "test_support.h"
#include "zel/data.h"
#include "zel/kernel.h"

namespace {

using zel::sim::EmulatedKernel;
using zel::sim::List;
using Blob = std::vector<uint8_t>;

struct Entry {
  std::string name;
  Blob value;
  uint32_t type = 16;
};

Blob U32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
Blob Text(const std::string &s, size_t field = 0) {
  Blob b(s.begin(), s.end());
  b.resize(field != 0 ? field : s.size() + 1, 0);
  return b;
}

Blob Encode(const std::vector<Entry> &entries, uint32_t version = 7) {
  List list;
  EXPECT_EQ(zel::sim::NewList(&list), STATUS_OK);
  for (const Entry &e : entries) {
    EXPECT_EQ(ZELData_Append(list.get(), e.name.c_str(), e.value.data(),
                             static_cast<uint32_t>(e.value.size()), e.type),
              STATUS_OK);
  }
  Blob out;
  EXPECT_EQ(zel::sim::EncodeList(list.get(), version, &out), STATUS_OK);
  return out;
}

std::vector<Entry> Decode(const void *data, uint32_t length) {
  List list;
  EXPECT_EQ(zel::sim::DecodeList(data, length, &list), STATUS_OK);
  std::vector<Entry> out;
  if (!list) return out;
  PropertyEntry *e = nullptr;
  while (ZELData_Next(list.get(), e, &e) == STATUS_OK) {
    void *v = nullptr;
    const uint32_t n = ZELData_Data(e, &v);
    out.push_back({ZELData_Name(e), Blob(static_cast<uint8_t *>(v), static_cast<uint8_t *>(v) + n),
                   ZELData_PropType(e)});
  }
  return out;
}
std::vector<Entry> Decode(const Blob &b) { return Decode(b.data(), static_cast<uint32_t>(b.size())); }

std::vector<std::string> Names(const std::vector<Entry> &entries) {
  std::vector<std::string> names;
  for (const Entry &e : entries) names.push_back(e.name);
  return names;
}

// A plain request whose failure message is kept off the test output.
ReturnStatus Quiet(const std::function<ReturnStatus()> &fn) {
  ReturnStatus status = STATUS_OK;
  zeltest::CaptureStderr([&] { status = fn(); });
  return status;
}

// A reply request: its status and, on success, the reply bytes.
using GetFn = std::function<ReturnStatus(void **, uint32_t *)>;
std::pair<ReturnStatus, Blob> Fetch(const GetFn &fn) {
  void *buffer = nullptr;
  uint32_t length = 0;
  const ReturnStatus status = fn(&buffer, &length);
  Blob bytes;
  if (status == STATUS_OK) {
    bytes.assign(static_cast<uint8_t *>(buffer), static_cast<uint8_t *>(buffer) + length);
  } else {
    EXPECT_EQ(buffer, nullptr);
  }
  ZELPYX_DataFree(buffer);
  return {status, bytes};
}

Blob State() {
  auto [status, blob] = Fetch([](void **b, uint32_t *l) { return ZELPYX_StateGet(b, l); });
  EXPECT_EQ(status, STATUS_OK);
  return blob;
}

std::string Command(const char *sw, const char *cmd, const std::string &input = "",
                    ReturnStatus expect = STATUS_OK) {
  void *out = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(ZELPYX_CmdExec(sw, cmd, input.data(), static_cast<uint32_t>(input.size()), &out, &len),
            expect);
  std::string text = out != nullptr ? std::string(static_cast<char *>(out), len) : "";
  ZELPYX_DataFree(out);
  return text;
}

class SimKernelTest : public ::testing::Test {
 protected:
  EmulatedKernel kernel{4096};
  zel::kernel::ScopedTransport use{&kernel};
};

TEST_F(SimKernelTest, SwitchLifecycleAndLimits) {
  EXPECT_EQ(ZELPYX_SwitchAdd("sw1", "vswitch", 10, 7), STATUS_OK);
  EXPECT_EQ(ZELPYX_SwitchAdd("lim", "customswitch", 1000, 5), STATUS_OK);
  // An unlimited class takes the host limit; a limited class keeps its own.
  EXPECT_EQ(Command("sw1", "stats"),
            "switch sw1\nclass vswitch\nversion 7\nmaxPorts 4096\nports 0\nassociated 1\n");
  EXPECT_NE(Command("lim", "stats").find("maxPorts 1000\n"), std::string::npos);

  std::string err;
  ReturnStatus status = 0;
  err = zeltest::CaptureStderr([&] { status = ZELPYX_SwitchAdd("sw1", "other", 1, 7); });
  EXPECT_EQ(status, STATUS_EXISTS);
  EXPECT_EQ(err, std::string("ioctl failed: ") + std::strerror(EEXIST) + "\n");
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchAdd("v8", "vswitch", 1, 8); }), STATUS_NOT_SUPPORTED);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchAdd("", "vswitch", 1, 7); }), STATUS_BAD_PARAM);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchAdd("noclass", "", 1, 7); }), STATUS_BAD_PARAM);
  // 4096 host ports, none used: a limited switch may ask all of them, not more.
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchAdd("big", "customswitch", 4097, 7); }),
            STATUS_LIMIT_EXCEEDED);

  EXPECT_EQ(ZELPYX_SwitchSetVersion("lim", 107), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchSetVersion("lim", 101); }), STATUS_NOT_SUPPORTED);
  EXPECT_EQ(ZELPYX_SwitchSetMaxPorts("lim", 20), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchSetMaxPorts("lim", 4097); }), STATUS_LIMIT_EXCEEDED);
  EXPECT_EQ(ZELPYX_SwitchSetMaxPorts("sw1", 3), STATUS_OK);  // unlimited: stays at the host limit
  EXPECT_NE(Command("lim", "stats").find("version 107\nmaxPorts 20\n"), std::string::npos);
  EXPECT_NE(Command("sw1", "stats").find("maxPorts 4096\n"), std::string::npos);

  EXPECT_EQ(ZELPYX_SwitchRemove("lim"), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchRemove("lim"); }), STATUS_NOT_FOUND);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchSetVersion("lim", 7); }), STATUS_NOT_FOUND);

  for (int i = 1; i < 32; ++i) {
    ASSERT_EQ(ZELPYX_SwitchAdd(("s" + std::to_string(i)).c_str(), "etherswitch", 0, 6), STATUS_OK);
  }
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchAdd("s33", "etherswitch", 0, 6); }),
            STATUS_LIMIT_EXCEEDED);
  EXPECT_EQ(Command("", "stats"), "switches 32\nports 0\nhostPortLimit 4096\n");
}

TEST_F(SimKernelTest, SwitchPropertiesRoundTrip) {
  ASSERT_EQ(ZELPYX_SwitchAdd("sw", "vswitch", 0, 7), STATUS_OK);
  const std::string alias = "blue";
  ASSERT_EQ(ZELPYX_GlobalPropSet("sw", "com.zorlan.common.alias", alias.c_str(), 5, 16), STATUS_OK);
  ASSERT_EQ(ZELPYX_HostPropSet("sw", "com.zorlan.common.alias", "h", 2, 24), STATUS_OK);
  auto global = Fetch([](void **b, uint32_t *l) {
    return ZELPYX_GlobalPropGet("sw", "com.zorlan.common.alias", b, l);
  });
  EXPECT_EQ(global, std::make_pair(STATUS_OK, Text("blue")));
  auto host = Fetch([](void **b, uint32_t *l) {
    return ZELPYX_HostPropGet("sw", "com.zorlan.common.alias", b, l);
  });
  EXPECT_EQ(host, std::make_pair(STATUS_OK, Text("h")));

  // A value longer than the first reply buffer comes back through one retry.
  Blob big(40000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = uint8_t(i * 7);
  ASSERT_EQ(ZELPYX_GlobalPropSet("sw", "big", big.data(), 40000, 32), STATUS_OK);
  const uint64_t before = kernel.IoctlCount(ZELPYX_REQ_GLOBAL_PROP_GET);
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) { return ZELPYX_GlobalPropGet("sw", "big", b, l); }),
            std::make_pair(STATUS_OK, big));
  EXPECT_EQ(kernel.IoctlCount(ZELPYX_REQ_GLOBAL_PROP_GET) - before, 2u);

  // Types travel with the values into the state blob.
  auto sw = Decode(Decode(State())[0].value);
  auto globals = Decode(sw[3].value);
  ASSERT_EQ(Names(globals), (std::vector<std::string>{"com.zorlan.common.alias", "big"}));
  EXPECT_EQ(globals[0].type, 16u);
  EXPECT_EQ(globals[1].type, 32u);
  EXPECT_EQ(Decode(sw[4].value)[0].type, 24u);

  EXPECT_EQ(ZELPYX_GlobalPropClear("sw", "big"), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_GlobalPropClear("sw", "big"); }), STATUS_NOT_FOUND);
  EXPECT_EQ(ZELPYX_HostPropClear("sw", "com.zorlan.common.alias"), STATUS_OK);
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) {
              return ZELPYX_HostPropGet("sw", "com.zorlan.common.alias", b, l);
            }).first,
            STATUS_NOT_FOUND);
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) { return ZELPYX_GlobalPropGet("nosw", "x", b, l); }).first,
            STATUS_NOT_FOUND);
  EXPECT_EQ(Quiet([] { return ZELPYX_GlobalPropSet("sw", "empty", "", 0, 16); }), STATUS_BAD_PARAM);
  EXPECT_EQ(Quiet([] { return ZELPYX_GlobalPropSet("sw", "null", nullptr, 4, 16); }),
            STATUS_BAD_PARAM);
}

TEST_F(SimKernelTest, PortsKindsAndData) {
  ASSERT_EQ(ZELPYX_SwitchAdd("v6", "customswitch", 3, 6), STATUS_OK);
  ASSERT_EQ(ZELPYX_SwitchAdd("v7", "vswitch", 0, 7), STATUS_OK);
  // Port ids: 15 characters up to version 6, 47 above.
  EXPECT_EQ(ZELPYX_PortAdd("v6", std::string(15, '1').c_str(), nullptr, 0), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_PortAdd("v6", std::string(16, '1').c_str(), nullptr, 0); }),
            STATUS_BAD_PARAM);
  EXPECT_EQ(ZELPYX_PortAdd("v7", std::string(47, 'p').c_str(), nullptr, 0), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchSetVersion("v7", 6); }), STATUS_BAD_PARAM);

  // A limited switch stops at its maxPorts.
  EXPECT_EQ(ZELPYX_PortAdd("v6", "a", nullptr, 0), STATUS_OK);
  EXPECT_EQ(ZELPYX_PortAdd("v6", "b", nullptr, 0), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_PortAdd("v6", "c", nullptr, 0); }), STATUS_LIMIT_EXCEEDED);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchSetMaxPorts("v6", 2); }), STATUS_BAD_PARAM);

  // Initial properties and kinds come with the port's serialized list.
  const Blob initial = Encode({{"com.zorlan.common.port.alias", Text("uplink"), 16}});
  ASSERT_EQ(ZELPYX_PortAdd("v7", "10", initial.data(), uint32_t(initial.size())), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_PortAdd("v7", "10", nullptr, 0); }), STATUS_EXISTS);
  const Blob shadow = Encode({{"com.zorlan.common.port.volatile.type", U32(2), 16}});
  const Blob zombie = Encode({{"com.zorlan.common.port.volatile.type", U32(3), 16}});
  const Blob badKind = Encode({{"com.zorlan.common.port.volatile.type", U32(9), 16}});
  EXPECT_EQ(ZELPYX_PortAdd("v7", "10", shadow.data(), uint32_t(shadow.size())), STATUS_OK);
  EXPECT_EQ(ZELPYX_PortAdd("v7", "10", zombie.data(), uint32_t(zombie.size())), STATUS_OK);
  EXPECT_EQ(ZELPYX_PortAdd("v7", "10", zombie.data(), uint32_t(zombie.size())), STATUS_OK);
  EXPECT_EQ(Quiet([&] { return ZELPYX_PortAdd("v7", "11", badKind.data(), uint32_t(badKind.size())); }),
            STATUS_BAD_PARAM);
  Blob corrupt = initial;
  corrupt[40] ^= 1;
  EXPECT_EQ(Quiet([&] { return ZELPYX_PortAdd("v7", "12", corrupt.data(), uint32_t(corrupt.size())); }),
            STATUS_BAD_CHECKSUM);
  EXPECT_EQ(Command("v7", "ports"), std::string(47, 'p') + " 1\n10 1\n10 2\n10 3\n10 3\n");

  // Port data: set, get, clear; the kind property is fixed.
  ASSERT_EQ(ZELPYX_PortDataSet("v7", "10", "com.zorlan.common.port.connectid", "\x07\0\0\0", 4, 16),
            STATUS_OK);
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) {
              return ZELPYX_PortDataGet("v7", "10", "com.zorlan.common.port.connectid", b, l);
            }),
            std::make_pair(STATUS_OK, U32(7)));
  EXPECT_EQ(Quiet([] {
              return ZELPYX_PortDataSet("v7", "10", "com.zorlan.common.port.volatile.type",
                                        "\x02\0\0\0", 4, 16);
            }),
            STATUS_BAD_PARAM);
  auto [status, data] =
      Fetch([](void **b, uint32_t *l) { return ZELPYX_PortStateGet("v7", "10", b, l); });
  ASSERT_EQ(status, STATUS_OK);
  EXPECT_EQ(data, Encode({{"com.zorlan.common.port.alias", Text("uplink"), 16},
                          {"com.zorlan.common.port.connectid", U32(7), 16}}));
  EXPECT_EQ(ZELPYX_PortDataClear("v7", "10", "com.zorlan.common.port.connectid"), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_PortDataClear("v7", "10", "com.zorlan.common.port.connectid"); }),
            STATUS_NOT_FOUND);

  EXPECT_EQ(ZELPYX_PortFind("v7", "10"), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_PortFind("v7", "99"); }), STATUS_NOT_FOUND);
  EXPECT_EQ(Quiet([] { return ZELPYX_PortFind("nosw", "10"); }), STATUS_NOT_FOUND);

  // Removal by id takes the normal port first; sanitising drops shadows and zombies.
  EXPECT_EQ(ZELPYX_PortRemove("v7", "10"), STATUS_OK);
  EXPECT_EQ(Command("v7", "ports"), std::string(47, 'p') + " 1\n10 2\n10 3\n10 3\n");
  EXPECT_EQ(ZELPYX_StateSanitize(), STATUS_OK);
  EXPECT_EQ(Command("v7", "ports"), std::string(47, 'p') + " 1\n");
  EXPECT_EQ(Quiet([] { return ZELPYX_PortRemove("v7", "10"); }), STATUS_NOT_FOUND);
}

TEST_F(SimKernelTest, UplinkValues) {
  ASSERT_EQ(ZELPYX_SwitchAdd("sw", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELPYX_PortAdd("sw", "p", nullptr, 0), STATUS_OK);
  ASSERT_EQ(ZELPYX_UplinkDataSet("sw", "p", 4294967295u, "minus", 6, 16), STATUS_OK);
  ASSERT_EQ(ZELPYX_UplinkDataSet("sw", "p", 3, "three", 6, 16), STATUS_OK);
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) { return ZELPYX_UplinkDataGet("sw", "p", -1, b, l); }),
            std::make_pair(STATUS_OK, Text("minus")));
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) { return ZELPYX_UplinkDataGet("sw", "p", 3, b, l); }),
            std::make_pair(STATUS_OK, Text("three")));
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) { return ZELPYX_UplinkDataGet("sw", "p", 4, b, l); }).first,
            STATUS_NOT_FOUND);
  EXPECT_EQ(Fetch([](void **b, uint32_t *l) { return ZELPYX_UplinkDataGet("sw", "q", 3, b, l); }).first,
            STATUS_NOT_FOUND);
  // Uplink values are not port properties.
  auto port = Fetch([](void **b, uint32_t *l) { return ZELPYX_PortStateGet("sw", "p", b, l); });
  EXPECT_EQ(port.second.size(), 16u);
  // The index must be decimal text.
  ZELPYXCommand cmd{};
  std::strcpy(cmd.switchName, "sw");
  std::strcpy(cmd.portId, "p");
  std::strcpy(cmd.name, "3x");
  cmd.data = reinterpret_cast<uintptr_t>("v");
  cmd.dataLen = 2;
  EXPECT_EQ(Quiet([&] { return ZELPYX_Ioctl(ZELPYX_REQ_UPLINK_DATA_SET, &cmd); }), STATUS_BAD_PARAM);
}

// Layout of the state blob: one entry per switch; in each switch blob the
// five switch fields in order, then one entry per port.
TEST_F(SimKernelTest, StateBlobLayout) {
  ASSERT_EQ(ZELPYX_SwitchAdd("a", "etherswitch", 0, 5), STATUS_OK);
  ASSERT_EQ(ZELPYX_SwitchAdd("b", "limited", 64, 100), STATUS_OK);
  ASSERT_EQ(ZELPYX_HostPropSet("b", "com.zorlan.common.host.portset", "ps", 3, 16), STATUS_OK);
  ASSERT_EQ(ZELPYX_PortAdd("b", "p1", nullptr, 0), STATUS_OK);
  ASSERT_EQ(ZELPYX_PortDataSet("b", "p1", "x", "1", 2, 32), STATUS_OK);
  ASSERT_EQ(ZELPYX_PortAdd("b", "p0", nullptr, 0), STATUS_OK);

  const Blob blob = State();
  const auto outer = Decode(blob);
  ASSERT_EQ(Names(outer), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(outer[0].type, 16u);
  const Blob empty = Encode({});
  EXPECT_EQ(outer[0].value, Encode({{"switchVersion", U32(5)},
                                    {"className", Text("etherswitch", 128)},
                                    {"maxPorts", U32(4096)},
                                    {"globalPropList", empty},
                                    {"hostPropList", empty}}));
  EXPECT_EQ(outer[1].value,
            Encode({{"switchVersion", U32(100)},
                    {"className", Text("limited", 128)},
                    {"maxPorts", U32(64)},
                    {"globalPropList", empty},
                    {"hostPropList", Encode({{"com.zorlan.common.host.portset", Text("ps")}})},
                    {"p1", Encode({{"x", Text("1"), 32}})},
                    {"p0", empty}}));
  EXPECT_EQ(blob, Encode({{"a", outer[0].value}, {"b", outer[1].value}}, 5));
}

TEST_F(SimKernelTest, StateInitReplacesTheWholeState) {
  ASSERT_EQ(ZELPYX_SwitchAdd("old", "vswitch", 0, 7), STATUS_OK);
  const Blob sw = Encode({{"switchVersion", U32(7)},
                          {"className", Text("qorvswitch")},
                          {"maxPorts", U32(8)},
                          {"globalPropList", Encode({{"g", Text("1")}})},
                          {"p", Encode({{"com.zorlan.common.port.volatile.type", U32(4)}})},
                          {"p", Encode({})}});
  const Blob blob = Encode({{"new", sw}}, 5);
  ASSERT_EQ(ZELPYX_StateInit(blob.data(), uint32_t(blob.size())), STATUS_OK);
  EXPECT_EQ(Command("", "stats"), "switches 1\nports 2\nhostPortLimit 4096\n");
  EXPECT_EQ(Command("new", "ports"), "p 4\np 1\n");
  EXPECT_EQ(Quiet([] { return ZELPYX_PortFind("old", "p"); }), STATUS_NOT_FOUND);

  // What the module hands out it takes back unchanged, byte for byte.
  const Blob first = State();
  EmulatedKernel other;
  {
    zel::kernel::ScopedTransport useOther(&other);
    ASSERT_EQ(ZELPYX_StateInit(first.data(), uint32_t(first.size())), STATUS_OK);
    EXPECT_EQ(State(), first);
  }
}

TEST_F(SimKernelTest, StateInitRefusesBadBlobsAndKeepsItsState) {
  ASSERT_EQ(ZELPYX_SwitchAdd("keep", "vswitch", 0, 7), STATUS_OK);
  const Blob before = State();
  auto swBlob = [](std::vector<Entry> fields) { return Encode({{"s", Encode(fields)}}, 5); };
  const std::vector<Entry> good = {{"switchVersion", U32(7)}, {"className", Text("c")},
                                   {"maxPorts", U32(1)}};
  Blob badChecksum = swBlob(good);
  badChecksum[100] ^= 0xFF;
  Blob truncated = swBlob(good);
  truncated.resize(truncated.size() - 8);
  const std::vector<std::tuple<const char *, Blob, ReturnStatus>> cases = {
      {"checksum", badChecksum, STATUS_BAD_CHECKSUM},
      {"truncated", truncated, STATUS_BAD_PARAM},
      {"not a list", Blob(15, 0), STATUS_BAD_PARAM},
      {"no className", swBlob({{"switchVersion", U32(7)}, {"maxPorts", U32(1)}}), STATUS_BAD_PARAM},
      {"no maxPorts", swBlob({{"className", Text("c")}}), STATUS_BAD_PARAM},
      {"short maxPorts", swBlob({{"className", Text("c")}, {"maxPorts", {1, 0}}}), STATUS_BAD_PARAM},
      {"className without NUL", swBlob({{"className", {'c'}}, {"maxPorts", U32(1)}}),
       STATUS_BAD_PARAM},
      {"unknown version", swBlob({{"switchVersion", U32(8)}, {"className", Text("c")}, {"maxPorts", U32(1)}}),
       STATUS_NOT_SUPPORTED},
      {"twice the same field",
       swBlob({{"className", Text("c")}, {"maxPorts", U32(1)}, {"maxPorts", U32(1)}}),
       STATUS_BAD_PARAM},
      {"port list corrupt", swBlob({{"className", Text("c")}, {"maxPorts", U32(1)}, {"p", {1, 2, 3}}}),
       STATUS_BAD_PARAM},
      {"more ports than maxPorts",
       swBlob({{"className", Text("c")}, {"maxPorts", U32(1)}, {"p", Encode({})}, {"q", Encode({})}}),
       STATUS_LIMIT_EXCEEDED},
      {"same switch twice", Encode({{"s", Encode(good)}, {"s", Encode(good)}}, 5), STATUS_EXISTS},
  };
  for (const auto &[label, blob, expect] : cases) {
    SCOPED_TRACE(label);
    EXPECT_EQ(Quiet([&] { return ZELPYX_StateInit(blob.data(), uint32_t(blob.size())); }), expect);
    EXPECT_EQ(State(), before);
  }
  EXPECT_EQ(Quiet([] { return ZELPYX_StateInit(nullptr, 0); }), STATUS_BAD_PARAM);
  // A blob without a version is accepted as version 0 (short port ids).
  const Blob noVersion = swBlob({{"className", Text("c")}, {"maxPorts", U32(1)}});
  EXPECT_EQ(ZELPYX_StateInit(noVersion.data(), uint32_t(noVersion.size())), STATUS_OK);
  EXPECT_NE(Command("s", "stats").find("version 0\n"), std::string::npos);
}

TEST_F(SimKernelTest, DissociatedSwitchesGoAtCleanup) {
  for (const char *name : {"s1", "s2", "s3"}) ASSERT_EQ(ZELPYX_SwitchAdd(name, "vswitch", 0, 7), STATUS_OK);
  EXPECT_EQ(ZELPYX_SwitchDissociate("s1"), STATUS_OK);
  EXPECT_EQ(ZELPYX_SwitchDissociate("s3"), STATUS_OK);
  EXPECT_EQ(ZELPYX_SwitchAssociate("s3"), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchAssociate("s9"); }), STATUS_NOT_FOUND);
  EXPECT_NE(Command("s1", "stats").find("associated 0\n"), std::string::npos);
  EXPECT_EQ(ZELPYX_StateCleanup(), STATUS_OK);
  EXPECT_EQ(Names(Decode(State())), (std::vector<std::string>{"s2", "s3"}));
}

TEST_F(SimKernelTest, CommandExecution) {
  ASSERT_EQ(ZELPYX_SwitchAdd("sw", "vswitch", 0, 7), STATUS_OK);
  // Output beyond the first buffer comes back through one retry.
  std::string input(50000, '\0');
  for (size_t i = 0; i < input.size(); ++i) input[i] = char('a' + i % 26);
  EXPECT_EQ(Command("sw", "echo", input), input);
  EXPECT_EQ(kernel.IoctlCount(ZELPYX_REQ_CMD_EXEC), 2u);
  EXPECT_EQ(Command("", "echo"), "");
  Command("", "reboot", "", STATUS_NOT_SUPPORTED);
  Command("nosw", "stats", "", STATUS_NOT_FOUND);
  Command("", "ports", "", STATUS_BAD_PARAM);
  EXPECT_EQ(kernel.OpenDescriptors(), 1u);  // the plain exchange's; command exchanges close theirs
}

TEST_F(SimKernelTest, MalformedRecordsAndUnknownRequests) {
  for (int request : {23, 24, 25, 29, 1000}) {
    ZELPYXCommand cmd{};
    EXPECT_EQ(Quiet([&] { return ZELPYX_Ioctl(request, &cmd); }), STATUS_NOT_SUPPORTED) << request;
  }
  ZELPYXCommand cmd{};
  std::memset(cmd.switchName, 'a', sizeof cmd.switchName);  // no NUL
  EXPECT_EQ(Quiet([&] { return ZELPYX_Ioctl(ZELPYX_REQ_SWITCH_REMOVE, &cmd); }), STATUS_BAD_PARAM);
  const ZELPYXCommand seen = kernel.LastRecord();
  EXPECT_EQ(std::memcmp(seen.switchName, cmd.switchName, sizeof cmd.switchName), 0);
  EXPECT_EQ(seen.status, STATUS_FAILURE);  // as sent; the reply overwrote the caller's copy
  EXPECT_EQ(cmd.status, STATUS_BAD_PARAM);
}

TEST_F(SimKernelTest, InjectedFaultsAndMissingDevice) {
  using Fault = EmulatedKernel::Fault;
  using Kind = EmulatedKernel::FaultKind;
  ASSERT_EQ(ZELPYX_SwitchAdd("sw", "vswitch", 0, 7), STATUS_OK);
  ASSERT_EQ(ZELPYX_PortAdd("sw", "p", nullptr, 0), STATUS_OK);

  kernel.InjectFault({Kind::kFailWithoutStatus, ZELPYX_REQ_PORT_FIND, 0, ENODEV});
  std::string err;
  ReturnStatus status = 0;
  err = zeltest::CaptureStderr([&] { status = ZELPYX_PortFind("sw", "p"); });
  EXPECT_EQ(status, STATUS_FAILURE);
  EXPECT_EQ(err, std::string("ioctl failed: ") + std::strerror(ENODEV) + "\n");
  EXPECT_EQ(ZELPYX_PortFind("sw", "p"), STATUS_OK);  // used once

  // A fault waits for the request it names.
  kernel.InjectFault(Fault{Kind::kFailWithStatus, ZELPYX_REQ_SWITCH_REMOVE, STATUS_NO_MEMORY, ENOMEM});
  EXPECT_EQ(ZELPYX_PortFind("sw", "p"), STATUS_OK);
  EXPECT_EQ(Quiet([] { return ZELPYX_SwitchRemove("sw"); }), STATUS_NO_MEMORY);

  kernel.InjectFault({Kind::kLimitWithoutLength, ZELPYX_REQ_STATE_GET, 0, ENOSPC});
  void *blob = &kernel;
  uint32_t len = 0;
  EXPECT_EQ(ZELPYX_StateGet(&blob, &len), STATUS_LIMIT_EXCEEDED);
  EXPECT_EQ(blob, nullptr);
  EXPECT_EQ(len, 32768u);

  kernel.SetDevicePresent(false);
  err = zeltest::CaptureStderr([&] { status = ZELPYX_StateGet(&blob, &len); });
  EXPECT_EQ(status, STATUS_FAILURE);
  EXPECT_EQ(err, "failed to open zeldev device /tarn/devices/char/pyxdriver/zeldev\n");
  kernel.SetDevicePresent(true);
  EXPECT_EQ(kernel.counters().failedOpens, 1u);
  EXPECT_EQ(kernel.OpenDescriptors(), 1u);  // only the plain exchange's, kept open
}

// The whole state beyond the first reply buffer: exactly two ioctl calls.
TEST_F(SimKernelTest, LargeStateTakesTwoCalls) {
  ASSERT_EQ(ZELPYX_SwitchAdd("sw", "vswitch", 0, 7), STATUS_OK);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(ZELPYX_PortAdd("sw", std::to_string(i).c_str(), nullptr, 0), STATUS_OK);
  }
  const uint64_t before = kernel.counters().ioctls;
  const Blob blob = State();
  EXPECT_GT(blob.size(), 32768u);
  EXPECT_EQ(kernel.counters().ioctls - before, 2u);
  EXPECT_EQ(Decode(Decode(blob)[0].value).size(), 305u);
}

// Many threads driving one emulated module through the library at once.
TEST(SimKernelConcurrency, ParallelClientsSeeAConsistentModule) {
  EmulatedKernel kernel;
  zel::kernel::ScopedTransport use(&kernel);
  constexpr int kThreads = 6, kPorts = 40;
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string sw = "sw" + std::to_string(t);
      start.arrive_and_wait();
      EXPECT_EQ(ZELPYX_SwitchAdd(sw.c_str(), "vswitch", 0, 7), STATUS_OK);
      for (int p = 0; p < kPorts; ++p) {
        const std::string port = std::to_string(p);
        EXPECT_EQ(ZELPYX_PortAdd(sw.c_str(), port.c_str(), nullptr, 0), STATUS_OK);
        EXPECT_EQ(ZELPYX_PortDataSet(sw.c_str(), port.c_str(), "n", &p, sizeof p, 16), STATUS_OK);
        void *state = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(ZELPYX_StateGet(&state, &len), STATUS_OK);
        ZELPYX_DataFree(state);
      }
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(Command("", "stats"), "switches 6\nports 240\nhostPortLimit 4096\n");
  EXPECT_EQ(kernel.counters().opens, kernel.counters().closes + 1);
}

}  // namespace
