// zelctl through the real program, on a fixture state with a property of each output form.
#include <nlohmann/json.hpp>

#include "hardening_support.h"
#include "kernel_fixture.h"

namespace {

namespace fs = std::filesystem;
using namespace zelkerneltest;
using Switch = SwitchView;

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes b;
  for (const Bytes &p : parts) b.insert(b.end(), p.begin(), p.end());
  return b;
}

// Teaming: policy 1 at byte 0, two active uplinks (count at 16, names at 24 and 105).
const Bytes kTeaming = Cat({U32(1), Bytes(12, 0), U32(2), Bytes(4, 0), Text("uplink1"),
                            Bytes(73, 0), Text("uplink2"), Bytes(2503, 0)});

std::vector<Switch> Fixture() {
  Switch blue{"sw-blue", 7, "vswitch", 4096};
  blue.global = {
      {"com.zorlan.common.alias", Text("blue-net")},
      {"com.zorlan.common.version", U32(7)},
      {"com.zorlan.common.respools.sched", {1}},
      {"com.zorlan.common.teamcheck.deploy", Cat({{1}, U32(30)})},
      {"com.zorlan.vswitch.teaming", kTeaming},
      {"com.zorlan.etherswitch.pvlanMap", {100, 0, 101, 0, 2, 0, 0, 0}},
      {"com.example.note", Text("kept as bytes")},
      {"com.example.blob", Bytes(40, 0xab), 24},
  };
  blue.host = {{"com.zorlan.common.host.portset", Text("ps-blue")}};
  blue.ports = {{"p1",
                 {{"com.zorlan.common.port.alias", Text("vm-a")},
                  {"com.zorlan.common.port.connectid", U32(0x1001)}}},
                {"p2", {{"com.zorlan.common.port.alias", Text("vm-b")}}}};
  Switch green{"sw-green", 6, "etherswitch", 4096};
  green.global = {{"com.zorlan.common.alias", Text("green-net")},
                  {"com.zorlan.common.version", U32(6)},
                  {"com.zorlan.common.respools.sched", {1}}};
  green.ports = {{"10", {{"com.zorlan.common.port.alias", Text("probe")}}}};
  return {blue, green};
}

void WriteFile(const std::string &path, const Bytes &b) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(b.data()), std::streamsize(b.size()));
}
std::string ReadText(const std::string &path) {
  const Bytes b = hardening::Slurp(path);
  return std::string(b.begin(), b.end());
}

struct Result {
  int rc;
  std::string out, err;
};

// Runs zelctl in a scratch directory of its own.
class ZelctlTest : public ::testing::Test {
 protected:
  std::string Path(const std::string &name) const { return dir_ + "/" + name; }

  Result Run(const std::string &args) {
    const int st = std::system(("cd '" + dir_ + "' && ZEL_CONFIGSTORE_PATH='" + Path("default.db") +
                                "' " + ZELCTL_PATH + " " + args + " </dev/null >out 2>err")
                                   .c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, ReadText(Path("out")), ReadText(Path("err"))};
  }

  // The fixture as a state file, named as a source.
  std::string StateFile(const std::string &name, const std::vector<Switch> &switches = Fixture()) {
    Bytes b = Blob(switches);
    b.resize((b.size() + 511) / 512 * 512, 0);  // whole 512-byte blocks
    WriteFile(Path(name), b);
    return "file:" + name;
  }

  hardening::TempDir tmp_;
  const std::string dir_ = tmp_.path();
};

// Compares with a golden file beside this source; ZELCTL_GOLDEN=update rewrites it. The JSON
// golden is kept one property per line and compared as a document, after checking that the
// program printed it in its two-space layout.
void ExpectGolden(const std::string &actual, const std::string &name) {
  const std::string path = std::string(ZELCTL_GOLDEN_DIR) + "/" + name;
  const bool json = name.ends_with(".json");
  std::string stored = actual;
  if (json) {
    const auto doc = nlohmann::ordered_json::parse(actual);
    EXPECT_EQ(actual, doc.dump(2) + "\n");
    stored = doc.dump() + "\n";
    for (const std::string row : {"{\"id\":", "{\"name\":"})
      for (size_t at = 1; (at = stored.find(row, at)) != std::string::npos; at += 2)
        stored.insert(at++, "\n");
  }
  const char *mode = std::getenv("ZELCTL_GOLDEN");
  if (mode != nullptr && std::string(mode) == "update") std::ofstream(path) << stored;
  if (json)
    EXPECT_EQ(nlohmann::ordered_json::parse(actual), nlohmann::ordered_json::parse(ReadText(path)))
        << "golden file " << path;
  else
    EXPECT_EQ(actual, ReadText(path)) << "golden file " << path;
}

TEST_F(ZelctlTest, ShowMatchesGoldenTextAndJson) {
  const std::string state = StateFile("state");
  for (const std::string form : {"txt", "json"}) {
    const Result res = Run((form == "json" ? "show --json " : "show ") + state);
    ASSERT_EQ(std::pair(res.rc, res.err), std::pair(0, std::string()));
    ExpectGolden(res.out, "show." + form);
  }
  const std::string port = Run("show " + state + " --switch sw-blue --port p2").out;
  EXPECT_EQ(port.find("global properties"), std::string::npos);
  EXPECT_NE(port.find("name = \"vm-b\""), std::string::npos);
  EXPECT_EQ(Run("show " + state + " --switch sw-none").rc, 1);
}

TEST_F(ZelctlTest, VerifyReportsEachDamageAtItsOffset) {
  const std::vector<Switch> fx = Fixture();
  StateFile("state", fx);
  const Bytes good = hardening::Slurp(Path("state"));
  const Bytes p2 = Encode(fx[0].ports[1].props, 5);  // nested verbatim
  const size_t at =
      size_t(std::search(good.begin(), good.end(), p2.begin(), p2.end()) - good.begin());
  ASSERT_LT(at, good.size());
  const uint32_t size = zelstatetest::Get32(good, 0);  // the header's length
  const struct {
    size_t flip, size;  // the byte flipped (0: none), the file's length
    std::string expected;
  } rows[] = {
      {0, good.size(), "ok"},
      {at + 153, good.size(),
       "at byte " + std::to_string(at + 4) + ": switch sw-blue, port p2: checksum"},
      {0, 512,
       "at byte 0: state: its header says " + std::to_string(size) + " bytes, only 512 are there"},
      {0, good.size() + 512,
       "at byte " + std::to_string(good.size()) + ": 512 bytes after the state's"},
      {0, 1000, "at byte 1000: length 1000 is not a multiple of 512"},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.expected);
    Bytes damaged = good;
    damaged[r.flip] ^= r.flip ? 0x40 : 0;
    damaged.resize(r.size, 0);
    WriteFile(Path("state"), damaged);
    const Result res = Run("verify state");
    EXPECT_EQ(res.rc, r.expected == "ok" ? 0 : 1);
    EXPECT_EQ(res.out.rfind("state: " + r.expected, 0), 0u) << res.out;
  }
  WriteFile(Path("blob"), Blob(fx));
  EXPECT_EQ(Run("verify --blob blob").out, "blob: ok\n");
}

TEST_F(ZelctlTest, DiffFindsEachChange) {
  const std::string a = StateFile("a");
  const struct {
    const char *what;
    std::function<void(std::vector<Switch> &)> change;
    std::vector<std::string> lines;
  } rows[] = {
      {"no change", [](auto &) {}, {"equal"}},
      {"port added", [](auto &s) { s[0].ports.push_back({"p3", {}}); },
       {"only in B: switch sw-blue port p3"}},
      {"switch removed", [](auto &s) { s.pop_back(); }, {"only in A: switch sw-green"}},
      {"one policy field changed",  // the 4th global property: the teaming check
       [](auto &s) { s[0].global[3].value = Cat({{1}, U32(45)}); },
       {"switch sw-blue global: com.zorlan.common.teamcheck.deploy differs",
        "  A: health_checks[\"TEAMING\"]/interval = 30",
        "  B: health_checks[\"TEAMING\"]/interval = 45"}},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.what);
    std::vector<Switch> fx = Fixture();
    r.change(fx);
    const Result res = Run("diff " + a + " " + StateFile("b", fx));
    EXPECT_EQ(res.rc, r.lines[0] == "equal" ? 0 : 1) << res.err;
    for (const std::string &line : r.lines)
      EXPECT_NE(res.out.find(line + "\n"), std::string::npos) << res.out;
    EXPECT_EQ(nlohmann::json::parse(Run("diff --json " + a + " file:b").out)["equal"],
              r.lines[0] == "equal");
  }
}

TEST_F(ZelctlTest, MigrateBothWaysFailuresLeaveTargetsAndStoreCheck) {
  const std::string state = StateFile("state");
  ASSERT_EQ(Run("migrate " + state + " store:s.db").rc, 0);
  EXPECT_EQ(Run("diff " + state + " store:s.db").out, "equal\n");
  ASSERT_EQ(Run("migrate store:s.db file:back").rc, 0);
  EXPECT_EQ(Run("diff " + state + " file:back").out, "equal\n");

  // A value the store conversion refuses: the transaction is cancelled.
  std::vector<Switch> bad = Fixture();
  bad[0].ports[0].props.push_back({"com.zorlan.vswitch.port.teaming.policy", {1, 2, 3}});
  bad[1].id = "sw-new";
  const std::string before = Run("store --db s.db list switches network_zel orn").out;
  Result res = Run("migrate " + StateFile("bad", bad) + " store:s.db");
  EXPECT_EQ(res.rc, 2);
  EXPECT_NE(res.err.find("zelctl: store:s.db: not saved"), std::string::npos) << res.err;
  EXPECT_EQ(Run("store --db s.db list switches network_zel orn").out, before);

  // The file's writer cannot make its temporary file: the target stays.
  const std::string target = ReadText(Path("back"));
  fs::create_directory(Path("back.tmp"));
  res = Run("migrate " + state + " file:back");
  EXPECT_EQ(res.rc, 2);
  EXPECT_NE(res.err.find("zelctl: file:back: not written"), std::string::npos) << res.err;
  EXPECT_EQ(ReadText(Path("back")), target);

  // Objects a load fails on, each named with its problem.
  EXPECT_EQ(Run("store check --db s.db").out, "ok: 2 switch objects\n");
  const std::string put = "store --db s.db put switches network_zel orn ";
  auto noVersion =
      nlohmann::json::parse(Run("store --db s.db get switches network_zel orn sw-green").out);
  noVersion["product"].erase("version");
  ASSERT_EQ(Run(put + "sw-green '" + noVersion.dump() + "'").rc, 0);
  ASSERT_EQ(Run(put + R"(sw-gray '{"uuid":"sw-gray"}')").rc, 0);
  // Corrupt content can only come from outside the client: written by hand.
  const std::string sql = R"(UPDATE objects SET content='{\"uuid\":' WHERE instance='sw-blue')";
  ASSERT_EQ(std::system(("sqlite3 '" + Path("s.db") + "' \"" + sql + "\"").c_str()), 0);
  res = Run("store check --db s.db");
  EXPECT_EQ(res.rc, 1);
  for (const char *line : {"sw-blue: unparsable content", "sw-gray: product: no product",
                           "sw-green: product/version: no version"}) {
    EXPECT_NE(res.out.find(line), std::string::npos) << res.out;
  }
  EXPECT_EQ(Run("show store:s.db").rc, 2);
}

TEST_F(ZelctlTest, BadInputGivesExitTwoAndWritesNothing) {
  WriteFile(Path("short"), Bytes(1000, 0));
  fs::create_directory(Path("dir.db"));
  const struct {
    const char *args, *message;
  } rows[] = {
      {"show nosuch:x", "zelctl: nosuch:x: unknown source"},
      {"show file:missing", "zelctl: file:missing: No such file"},
      {"show file:short",
       "zelctl: file:short: not a state file: length 1000 is not a multiple of 512"},
      {"show blob:short", "zelctl: blob:short: not a state: at byte 0"},
      {"show store:missing.db", "zelctl: store:missing.db: No such file"},
      {"show store:dir.db", "zelctl: store:dir.db: "},
      {"diff store:missing.db file:short", "zelctl: store:missing.db"},
      {"store check --db missing.db", "zelctl: store:missing.db"},
      {"kernel stats", "zelctl: kernel: stats: "},
      {"show kernel", "zelctl: kernel: persistent state: "},
      {"show", "zelctl: usage: "},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.args);
    const Result res = Run(r.args);
    EXPECT_EQ(res.rc, 2);
    EXPECT_EQ(res.out, "");
    EXPECT_EQ(res.err.rfind(r.message, 0), 0u) << res.err;
  }
  EXPECT_FALSE(fs::exists(Path("missing.db")));
  EXPECT_FALSE(fs::exists(Path("default.db")));
}

}  // namespace
