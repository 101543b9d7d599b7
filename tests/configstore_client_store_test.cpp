// The configuration store on disk: objects, layers, transactions, untrusted content, ids, and
// the command-line tool that reads and writes both layers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "configstore_client_support.h"

namespace {

using namespace cfgtest;
using cs::Object;

ObjectPtr SwitchWith(const char *id, const char *name) {
  ObjectPtr o = NewSwitch(id);
  cs::SetValueStr(o.get(), "uuid", id);
  cs::SetValueStr(o.get(), "name", name);
  return o;
}

void Exec(const std::string &path, const char *sql) {
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

class ConfigStoreStore : public ::testing::Test {
 protected:
  TempStore tmp;
  StorePtr store = OpenStore();
};

TEST_F(ConfigStoreStore, FileCreatedPrivateAtConfiguredPath) {
  // With no override the environment names the file; its directory is created.
  cs::testing::UsePath(nullptr);
  std::string path = tmp.path().substr(0, tmp.path().rfind('/')) + "/sub/env.db";
  setenv(cs::kPathEnv, path.c_str(), 1);
  StorePtr envStore = OpenStore();
  unsetenv(cs::kPathEnv);
  ASSERT_NE(envStore, nullptr);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  cs::Store *s = reinterpret_cast<cs::Store *>(1);
  EXPECT_EQ(cs::GetStore(1, &s), cs::kBadArgument);
  EXPECT_EQ(s, nullptr);
}

TEST_F(ConfigStoreStore, SetGetDeleteAndStoredForm) {
  Object *got = reinterpret_cast<Object *>(1);
  EXPECT_EQ(cs::Get(store.get(), "switches", "network_zel", "orn", "sw1", &got), cs::kNotFound);
  EXPECT_EQ(got, nullptr);
  ObjectPtr sw = SwitchWith("sw1", "first");
  Object *port = nullptr;
  ASSERT_EQ(cs::CreateSubObject(sw.get(), "ports", "p1", &port), cs::kOk);
  ASSERT_EQ(cs::SetValueUint32(port, "connection_cookie", 77), cs::kOk);
  ASSERT_EQ(cs::Set(store.get(), sw.get(), "EXTERNAL"), cs::kOk);
  EXPECT_EQ(RawContent(tmp.path(), "current", "sw1"),
            R"({"name":"first","ports":[{"@types":{"connection_cookie":"uint32"},)"
            R"("connection_cookie":77,"key":"p1"}],"uuid":"sw1"})");
  ASSERT_EQ(cs::Get(store.get(), "switches", "network_zel", "orn", "sw1", &got), cs::kOk);
  ObjectPtr back(got);
  EXPECT_EQ(Json(got), Json(sw.get()));
  ASSERT_EQ(cs::RemoveValue(sw.get(), "ports"), cs::kOk);
  ASSERT_EQ(cs::Set(store.get(), sw.get(), "EXTERNAL"), cs::kOk);
  EXPECT_EQ(RawContent(tmp.path(), "current", "sw1"), R"({"name":"first","uuid":"sw1"})");

  EXPECT_EQ(cs::Set(store.get(), port, "EXTERNAL"), cs::kBadArgument);  // not top-level
  EXPECT_EQ(cs::Set(store.get(), sw.get(), nullptr), cs::kBadArgument);
  EXPECT_EQ(cs::Get(store.get(), "switches", "", "orn", "sw1", &got), cs::kBadArgument);
  ASSERT_EQ(cs::Delete(store.get(), "switches", "network_zel", "orn", "sw1"), cs::kOk);
  EXPECT_EQ(cs::Delete(store.get(), "switches", "network_zel", "orn", "sw1"), cs::kNotFound);
}

TEST_F(ConfigStoreStore, InstancesOrderedAndFiltered) {
  int status = -1;
  EXPECT_EQ(SwitchUuids(store.get(), &status), std::vector<std::string>{});
  EXPECT_EQ(status, cs::kOk);  // an empty store is not an error
  for (const char *id : {"b", "c", "a"})
    ASSERT_EQ(cs::Set(store.get(), SwitchWith(id, id).get(), "EXTERNAL"), cs::kOk);
  Object *other = nullptr;
  ASSERT_EQ(cs::CreateObject("switches", "network_zel", "other", "a", "{}", &other), cs::kOk);
  ObjectPtr owner(other);
  ASSERT_EQ(cs::Set(store.get(), other, "EXTERNAL"), cs::kOk);
  EXPECT_EQ(SwitchUuids(store.get()), (std::vector<std::string>{"a", "b", "c"}));

  cs::Filter *f = nullptr;
  Object **objs = nullptr;
  int n = 0;
  for (const auto &[id, expect] : {std::pair{"c", cs::kOk}, {"zz", cs::kNotFound}}) {
    ASSERT_EQ(cs::CreateFilterSpecObject("switches", "network_zel", "orn", id, &f), cs::kOk);
    ASSERT_EQ(cs::GetInstances(store.get(), f, &objs, &n), expect);
    EXPECT_EQ(n, expect == cs::kOk ? 1 : 0);
    if (n == 1) cs::DestroyConfigStoreObject(objs[0]);
    free(objs);
    cs::DestroyFilterSpecObject(f);
  }
  ASSERT_EQ(cs::CreateFilterSpecObject("ports", "", "", "", &f), cs::kOk);
  EXPECT_EQ(cs::GetInstances(store.get(), f, &objs, &n), cs::kBadArgument);
  cs::DestroyFilterSpecObject(f);
}

// Runs "zelctl store" on the test's database; returns its exit status and output.
int Tool(const TempStore &tmp, const std::string &args, std::string *out = nullptr) {
  const std::string cmd = ZELCTL_PATH " store --db '" + tmp.path() + "' " + args + " 2>/dev/null";
  FILE *p = popen(cmd.c_str(), "r");
  std::string text;
  for (char buf[256]; fgets(buf, sizeof buf, p) != nullptr;) text += buf;
  int st = pclose(p);
  if (out != nullptr) *out = text;
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// The desired layer is separate from the current one; the tool writes and reads both.
TEST_F(ConfigStoreStore, DesiredLayerIsSeparate) {
  ASSERT_EQ(cs::SetDesired(store.get(), SwitchWith("sw2", "wanted").get()), cs::kOk);
  const std::string sw1 = R"('{"uuid":"sw1","@types":{"max_ports":"int32"},"max_ports":64}')";
  ASSERT_EQ(Tool(tmp, "--desired put switches network_zel orn sw1 " + sw1), 0);
  ASSERT_EQ(Tool(tmp, R"(put switches network_zel orn sw1 '{"uuid":"sw1"}')"), 0);
  EXPECT_EQ(SwitchUuids(store.get()), std::vector<std::string>{"sw1"});

  Object **objs = nullptr;
  int n = 0;
  ASSERT_EQ(cs::GetDesiredUserConfigInstances("switches", "network_zel", "orn", &objs, &n),
            cs::kOk);
  ASSERT_EQ(n, 2);
  EXPECT_EQ(Json(objs[0]), R"({"@types":{"max_ports":"int32"},"max_ports":64,"uuid":"sw1"})");
  EXPECT_EQ(Json(objs[1]), R"({"name":"wanted","uuid":"sw2"})");
  for (int i = 0; i < n; ++i) cs::DestroyConfigStoreObject(objs[i]);
  free(objs);

  std::string out;
  EXPECT_EQ(Tool(tmp, "--desired get switches network_zel orn sw1", &out), 0);
  EXPECT_EQ(out, "{\"@types\":{\"max_ports\":\"int32\"},\"max_ports\":64,\"uuid\":\"sw1\"}\n");
  EXPECT_EQ(Tool(tmp, "--desired delete switches network_zel orn sw1"), 0);
  EXPECT_EQ(Tool(tmp, "--desired get switches network_zel orn sw1"), 1);
  ASSERT_EQ(cs::DeleteDesired(store.get(), "switches", "network_zel", "orn", "sw2"), cs::kOk);
  EXPECT_EQ(cs::DeleteDesired(store.get(), "switches", "network_zel", "orn", "sw2"), cs::kNotFound);
}

// Commit and cancel as seen by another process are covered with the processes; here the
// transaction's own rules.
TEST_F(ConfigStoreStore, TransactionRules) {
  cs::testing::UseBusyTimeout(50);
  StorePtr writer = OpenStore();
  StorePtr second = OpenStore();
  cs::testing::UseBusyTimeout(-1);
  ASSERT_EQ(cs::BeginTransaction(writer.get()), cs::kOk);
  EXPECT_EQ(cs::BeginTransaction(writer.get()), cs::kTransaction);
  // A second writer waits, then reports busy; reading is not blocked.
  EXPECT_EQ(cs::BeginTransaction(second.get()), cs::kBusy);
  EXPECT_EQ(cs::Set(second.get(), SwitchWith("x", "x").get(), "EXTERNAL"), cs::kBusy);
  ASSERT_EQ(cs::Set(writer.get(), SwitchWith("a", "new").get(), "EXTERNAL"), cs::kOk);
  EXPECT_EQ(SwitchUuids(writer.get()), std::vector<std::string>{"a"});
  EXPECT_EQ(SwitchUuids(second.get()), std::vector<std::string>{});
  ASSERT_EQ(cs::CommitTransaction(writer.get()), cs::kOk);
  EXPECT_EQ(cs::CommitTransaction(writer.get()), cs::kTransaction);
  EXPECT_EQ(cs::CancelTransaction(writer.get()), cs::kTransaction);

  ASSERT_EQ(cs::BeginTransaction(writer.get()), cs::kOk);
  ASSERT_EQ(cs::Delete(writer.get(), "switches", "network_zel", "orn", "a"), cs::kOk);
  ASSERT_EQ(cs::CancelTransaction(writer.get()), cs::kOk);
  EXPECT_EQ(SwitchUuids(writer.get()), std::vector<std::string>{"a"});
  // Closing a store discards its open transaction.
  ASSERT_EQ(cs::BeginTransaction(writer.get()), cs::kOk);
  ASSERT_EQ(cs::Set(writer.get(), SwitchWith("d", "gone").get(), "EXTERNAL"), cs::kOk);
  writer.reset();
  EXPECT_EQ(SwitchUuids(second.get()), std::vector<std::string>{"a"});
}

TEST_F(ConfigStoreStore, UntrustedStoredContent) {
  Exec(tmp.path(),
       "INSERT INTO objects VALUES ('current','switches','network_zel','orn','bad','{\"a\":','');"
       "INSERT INTO objects VALUES ('current','switches','network_zel','orn','blob',x'7b7d','');"
       "INSERT INTO objects VALUES ('current','switches','network_zel','orn','ok','{}','');");
  Object *o = nullptr;
  EXPECT_EQ(cs::Get(store.get(), "switches", "network_zel", "orn", "bad", &o), cs::kCorrupt);
  EXPECT_EQ(o, nullptr);
  EXPECT_EQ(cs::Get(store.get(), "switches", "network_zel", "orn", "blob", &o), cs::kCorrupt);
  int status = 0;
  EXPECT_EQ(SwitchUuids(store.get(), &status), std::vector<std::string>{});
  EXPECT_EQ(status, cs::kCorrupt);
  store.reset();

  // A file of a later format, or not a database at all, is refused.
  Exec(tmp.path(), "PRAGMA user_version=99");
  cs::Store *s = nullptr;
  EXPECT_EQ(cs::GetStore(0, &s), cs::kCorrupt);
  EXPECT_EQ(s, nullptr);
  TempStore other;
  FILE *f = fopen(other.path().c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs("this is not a database file, only some text that is long enough", f);
  fclose(f);
  EXPECT_EQ(cs::GetStore(0, &s), cs::kCorrupt);
}

TEST_F(ConfigStoreStore, GeneratedInstanceIdsAreRandomUuids) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    char *id = nullptr;
    ASSERT_EQ(cs::GenerateInstanceId(&id), cs::kOk);
    std::string s = id;
    free(id);
    ASSERT_EQ(s.size(), 36u);
    for (size_t k : {8u, 13u, 18u, 23u}) EXPECT_EQ(s[k], '-');
    EXPECT_EQ(s[14], '4');
    EXPECT_NE(std::string("89ab").find(s[19]), std::string::npos);
    EXPECT_EQ(s.find_first_not_of("0123456789abcdef-"), std::string::npos);
    seen.insert(s);
  }
  EXPECT_EQ(seen.size(), 200u);
}

}  // namespace
