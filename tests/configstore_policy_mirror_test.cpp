// Port mirroring sessions (kind 9): golden tables saved, stored content compared, loaded back.
#include "configstore_policy_discovery_support.h"
#include "test_support.h"

using namespace policytest;
using namespace zeltest;

namespace {

constexpr const char *kEther = "com.zorlan.etherswitch.mirrorSessions";
constexpr const char *kVswitch = "com.zorlan.vswitch.mirrorSessions";
constexpr const char *kEtherPort = "com.zorlan.etherswitch.port.mirrorSessions";

struct Session {
  std::string key, name;
  uint32_t type = 1, length = 0xFFFFFFFF, flags = 0;
  uint16_t vlan = 0, recvWildcards = 0, transmitWildcards = 0;
  uint32_t samplingRate = 0, encap = 0;
  uint16_t erspanId = 0;
  uint8_t cos = 0, nanosec = 0;
  uint32_t destinations = 0, recvSources = 0, transmitSources = 0, firstEntry = 0;
};

// The 232-byte session record, its fields in order.
Bytes SessionBytes(const Session &s) {
  return Cat({Slot(s.key, 32), Slot(s.name, 84), U32(s.type), U32(s.length), U32(s.flags),
              U16(s.vlan), U16(s.recvWildcards), U16(s.transmitWildcards), Bytes(2, 0),
              U32(s.samplingRate), U32(s.encap), U16(s.erspanId), Bytes{s.cos, s.nanosec},
              Bytes(68, 0), U32(s.destinations), U32(s.recvSources), U32(s.transmitSources),
              U32(s.firstEntry)});
}

Bytes Entry(uint32_t type, const std::string &payload, size_t size = 36) {
  return Record(size).u32(0, type).text(4, payload).b;
}
Bytes VlanEntry(uint16_t vlan, size_t size = 36) { return Record(size).u16(4, vlan).b; }
Bytes AddressEntry(const Bytes &address, size_t size = 36) {
  return Record(size).u8(4, address.size() == 16 ? 1 : 0).raw(8, address).b;
}

// A table as the load builds it (magic, version and entry count set) or as a save may get it
// (header zero apart from the session count).
Bytes Table(const std::vector<Session> &sessions, const std::vector<Bytes> &entries,
            bool loaded = true) {
  Record header(20);
  header.u32(8, static_cast<uint32_t>(sessions.size()));
  if (loaded) header.u32(0, 0xFACEBEEF).u32(4, 1).u32(12, static_cast<uint32_t>(entries.size()));
  Bytes out = header.b;
  for (const Session &s : sessions) out = Cat({out, SessionBytes(s)});
  for (const Bytes &e : entries) out = Cat({out, e});
  return out;
}

const Bytes kV6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

class PolicyMirror : public PersistTest {
 protected:
  MemObject sw_;
  cs::Object *settings_ = sw_.Settings();

  uint32_t Save(const Bytes &v, const char *name = kEther) {
    return SaveCase(9, sw_.get(), settings_, "vspans", name, v);
  }
  LoadResult Load(const char *name = kEther, uint32_t version = 7) {
    return LoadCase(9, sw_.get(), settings_, "vspans", name, version);
  }
};

TEST_F(PolicyMirror, SessionsSaveAndLoadBack) {
  Session a{"s-a", "mixed", 0, 0xFFFFFFFF, 0x21, 0, 0x9, 0x2, 10, 0, 0, 0, 0, 2, 1, 1, 0};
  Session b{"s-b", "erspan", 4, 128, 0x10, 5, 0, 0, 0, 2, 300, 5, 1, 2, 1, 0, 0};
  const Bytes saved = Table({a, b},
                            {Entry(0, "p1"), Entry(1, "u1"), Entry(0, "p2"), Entry(0, "p3"),
                             AddressEntry(kV6), AddressEntry({10, 1, 2, 3}), Entry(0, "p4")},
                            false);
  ScopedSwitch sw(zp::kClassOther, false);
  ASSERT_EQ(Save(saved), 0u);
  EXPECT_EQ(
      sw_.Content(),
      R"({"settings":{"promiscuous_mode_vspan_session":"s-b","vspans":[)"
      R"({"@types":{"encapsulation_vlan_id":"uint32","erspan_COS":"uint16","erspan_id":"uint16",)"
      R"("sampling_rate":"uint32"},"destination_port":{"port_keys":["p1"],)"
      R"("uplink_port_names":["u1"]},"enabled":false,"encap_type":"GRE",)"
      R"("encapsulation_vlan_id":0,"erspan_COS":0,"erspan_gra_nanosec":false,"erspan_id":0,)"
      R"("key":"s-a","legacy_mode":false,"name":"mixed","normal_traffic_allowed":false,)"
      R"("sampling_rate":10,"session_type":"MIXED_DEST_MIRROR","source_recv_port":{)"
      R"("port_keys":["p2"],"wildcard_port_connectee_types":["VM_VNIC","HOST_PYX_VNIC"]},)"
      R"("source_transmit_port":{"port_keys":["p3"],"wildcard_port_connectee_types":["PNIC"]},)"
      R"("strip_original_vlan":true},)"
      R"({"@types":{"encapsulation_vlan_id":"uint32","erspan_COS":"uint16","erspan_id":"uint16",)"
      R"("mirrored_packet_length":"uint32","sampling_rate":"uint32"},"destination_port":{)"
      R"("addresses":["2001:0db8:0000:0000:0000:0000:0000:0001","10.1.2.3"]},"enabled":true,)"
      R"("encap_type":"ERSPAN3","encapsulation_vlan_id":5,"erspan_COS":5,)"
      R"("erspan_gra_nanosec":true,"erspan_id":300,"key":"s-b","legacy_mode":true,)"
      R"("mirrored_packet_length":128,"name":"erspan","normal_traffic_allowed":true,)"
      R"("sampling_rate":0,"session_type":"ENCAPSULATED_REMOTE_MIRROR_SOURCE",)"
      R"("source_recv_port":{"port_keys":["p4"],"wildcard_port_connectee_types":[]},)"
      R"("source_transmit_port":{"port_keys":[],"wildcard_port_connectee_types":[]},)"
      R"("strip_original_vlan":true}]}})");

  // Loaded: flag bit 1 joins bit 0, bit 3 follows the VLAN, the wildcard bit 0x4 marks a non-empty
  // list, addresses are not read back.
  a.flags = 0x23;
  a.recvWildcards = 0xD;
  a.transmitWildcards = 0x6;
  b.flags = 0x18;
  b.destinations = 0;
  b.firstEntry = 4;
  const Bytes loaded =
      Table({a, b}, {Entry(0, "p1"), Entry(1, "u1"), Entry(0, "p2"), Entry(0, "p3"), Entry(0, "p4")});
  EXPECT_EQ(Only(Load(), kEther), loaded);
  // The load of its own output is a fixed point.
  MemObject again;
  ASSERT_EQ(SaveCase(9, again.get(), again.Settings(), "vspans", kEther, loaded), 0u);
  EXPECT_EQ(Only(LoadCase(9, again.get(), again.Settings(), "vspans", kEther), kEther), loaded);
}

TEST_F(PolicyMirror, RemoteSessionsAndEntryWidth) {
  const std::string uplink47(47, 'u');
  Session c{"s-c", "rspan-src", 2, 64, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0};
  Session d{"s-d", "rspan-dst", 3, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0, 0};
  const Bytes saved = Table({c, d},
                            {Entry(0, uplink47, 52), Entry(1, "u2", 52), Entry(0, "p9", 52),
                             VlanEntry(100, 52), VlanEntry(200, 52)});
  ScopedSwitch sw(zp::kClassOther, true);
  ASSERT_EQ(Save(saved), 0u);
  const std::string json = sw_.Content();
  EXPECT_NE(json.find(R"("destination_port":{"uplink_port_names":[")" + uplink47 + R"(","u2"]})"),
            std::string::npos);
  EXPECT_NE(json.find(R"("source_recv_port":{"vlans":[100,200],)"), std::string::npos);
  EXPECT_NE(json.find(R"("destination_port":{"port_keys":["p9"]})"), std::string::npos);

  // Remote-source destinations all load as uplink names; VLAN lists load empty.
  d.recvSources = 0;
  d.firstEntry = 2;
  const auto expect = [&](size_t width, const std::string &first) {
    return Table({c, d}, {Entry(1, first, width), Entry(1, "u2", width), Entry(0, "p9", width)});
  };
  EXPECT_EQ(Only(Load(kEther, 107), kEther), expect(52, uplink47));
  EXPECT_EQ(Only(Load(kEther, 100), kEther), expect(52, uplink47));
  // Below version 100 entries are 36 bytes and names are cut to 31 characters.
  EXPECT_EQ(Only(Load(kEther, 7), kEther), expect(36, uplink47.substr(0, 31)));
}

TEST_F(PolicyMirror, LoadPicksTheRowOfTheClassAndDefaultsMissingKeys) {
  MemObject o(R"({"settings":{"vspans":[{"key":"s1","session_type":"BOGUS","name":)"
              R"("0123456789012345678901234567890123456789012345678901234567890123456789)"
              R"(0123456789abc","encapsulation_vlan_id":7,"erspan_COS":513}]}})");
  cs::Object *settings = nullptr;
  ASSERT_EQ(cs::GetSubObject(o.get(), "settings", nullptr, &settings), 0);
  Session s{"s1", "0123456789012345678901234567890123456789012345678901234567890123456789"
                 "0123456789",
            0xFFFFFFFF, 0xFFFFFFFF, 0x8, 7, 0, 0, 0, 0xFFFFFFFF, 0, 1};
  {
    ScopedSwitch sw(zp::kClassVswitch, false);
    EXPECT_TRUE(LoadCase(9, o.get(), settings, "vspans", kEther).props.empty());
    ScopedLevel level(zelconfigstore_debug, 0);
    LoadResult r;
    EXPECT_EQ(CaptureStdout([&] { r = LoadCase(9, o.get(), settings, "vspans", kVswitch); }),
              "Unknown vspan session type in schema: BOGUS\n");
    EXPECT_EQ(Only(r, kVswitch), Table({s}, {}));
  }
  ScopedSwitch sw(zp::kClassOther, false);
  EXPECT_TRUE(LoadCase(9, o.get(), settings, "vspans", kVswitch).props.empty());
  EXPECT_TRUE(LoadCase(9, o.get(), settings, "vspans", "com.other.mirror").props.empty());

  // A session bool of the wrong type fails the load; no sessions add nothing.
  cs::Object *s1 = nullptr;
  ASSERT_EQ(cs::GetSubObject(settings, "vspans", "s1", &s1), 0);
  ASSERT_EQ(cs::SetValueStr(s1, "legacy_mode", "yes"), 0);
  EXPECT_TRUE(Nothing(LoadCase(9, o.get(), settings, "vspans", kEther), cs::kTypeMismatch));
  ASSERT_EQ(cs::RemoveValue(settings, "vspans"), 0);
  EXPECT_TRUE(Nothing(LoadCase(9, o.get(), settings, "vspans", kEther)));
}

TEST_F(PolicyMirror, UnnamedTypesAreWrittenAsNumbers) {
  Session s{"s-x", "x", 9, 0xFFFFFFFF, 0, 0, 0, 0, 0, 5, 0, 0, 0, 1, 0, 0, 0};
  ScopedSwitch sw(zp::kClassOther, false);
  ASSERT_EQ(Save(Table({s}, {Entry(3, "odd")}, false)), 0u);
  const std::string json = sw_.Content();
  EXPECT_NE(json.find(R"("encap_type":"5")"), std::string::npos);
  EXPECT_NE(json.find(R"("session_type":"9")"), std::string::npos);
  // Any other combination keeps every entry as a port key.
  EXPECT_NE(json.find(R"("destination_port":{"port_keys":["odd"]})"), std::string::npos);
  s.type = 0xFFFFFFFF;
  s.encap = 0xFFFFFFFF;
  EXPECT_EQ(Only(Load(), kEther), Table({s}, {Entry(0, "odd")}));
}

TEST_F(PolicyMirror, MalformedTablesAreRefusedUntouched) {
  ScopedSwitch sw(zp::kClassOther, false);
  Session one{"s1", "n"};
  one.destinations = 1;
  Session keyless{"", "n"};
  const Bytes cases[] = {
      Bytes(19, 0),                                    // no whole header
      Record(20).u32(8, 1).b,                          // a session beyond the value
      Table({one}, {}, false),                         // an entry beyond the value
      Table({one}, {Bytes(35, 0)}, false),             // a short entry
      Table({keyless}, {}, false),                     // a session without a key
  };
  for (const Bytes &v : cases) {
    MemObject o;
    EXPECT_EQ(SaveCase(9, o.get(), o.Settings(), "vspans", kEther, v), kFail) << v.size();
    EXPECT_EQ(o.Content(), R"({"settings":{}})") << v.size();
  }
  // A wide switch needs 52 bytes per entry.
  ScopedSwitch qor(zp::kClassOther, true);
  EXPECT_EQ(Save(Table({one}, {Entry(0, "p1")}, false)), kFail);
  // No sessions: nothing written.
  EXPECT_EQ(Save(Record(20).b), 0u);
  EXPECT_EQ(sw_.Content(), R"({"settings":{}})");
}

TEST_F(PolicyMirror, SwitchAndPortThroughTheStore) {
  Session g{"sw-span", "global", 1, 256, 0x4, 0, 0x1, 0, 1, 1, 0, 0, 0, 1, 1, 0, 0};
  Session p{"port-span", "port", 0, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0};
  const Bytes global = Table({g}, {Entry(0, "p1"), Entry(0, "p2")});
  const Bytes port = Table({p}, {Entry(1, "uplink1")});
  SwitchDef s;
  s.id = "sw-m";
  s.global = {{"com.zorlan.common.version", U32(7)},
              {"com.zorlan.common.respools.sched", Bytes{0}},
              {kEther, global}};
  s.ports = {{"p1", {{kEtherPort, port}}}};
  ScopedKinds pools({36}, zp::KindCase{NoSave, NoLoad});
  ASSERT_EQ(PersistTest::Save({s}), 0u);
  Loaded sw = LoadOne();
  g.recvWildcards = 0x5;
  EXPECT_EQ(Value(sw.global, kEther), Table({g}, {Entry(0, "p1"), Entry(0, "p2")}));
  EXPECT_EQ(Value(sw.global, kVswitch), std::nullopt);
  ASSERT_EQ(sw.ports.size(), 1u);
  EXPECT_EQ(Value(sw.ports[0].second, kEtherPort), port);
}

}  // namespace
