// The configuration store on disk: objects, layers, transactions, untrusted content, ids, the
// command-line tool that reads and writes both layers, and several processes and threads at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "configstore_client_support.h"

namespace {

using namespace cfgtest;
using cs::Object;

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

  EXPECT_EQ(SwitchUuids(store.get(), &status, "c"), std::vector<std::string>{"c"});
  EXPECT_EQ(status, cs::kOk);
  EXPECT_EQ(SwitchUuids(store.get(), &status, "zz"), std::vector<std::string>{});
  EXPECT_EQ(status, cs::kNotFound);
  cs::Filter *f = nullptr;
  Object **objs = nullptr;
  int n = 0;
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
  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    char *id = nullptr;
    ASSERT_EQ(cs::GenerateInstanceId(&id), cs::kOk);
    EXPECT_TRUE(std::regex_match(id, uuid)) << id;
    seen.insert(id);
    free(id);
  }
  EXPECT_EQ(seen.size(), 200u);
}

int SetSwitch(cs::Store *store, const std::string &id) {
  return cs::Set(store, SwitchWith(id.c_str()).get(), "EXTERNAL");
}

// One transaction: adds one to "count" of the object "counter" and writes "<tag>-<i>".
int Increment(cs::Store *store, const std::string &tag, int i) {
  int s = cs::BeginTransaction(store);
  if (s != cs::kOk) return s;
  Object *o = nullptr;
  s = cs::Get(store, "switches", "network_zel", "orn", "counter", &o);
  if (s == cs::kNotFound)
    s = cs::CreateObject("switches", "network_zel", "orn", "counter", "{}", &o);
  ObjectPtr owner(o);
  int64_t count = 0;  // until the first round sets it
  if (s == cs::kOk) cs::GetValueLong(o, "count", &count);
  if (s == cs::kOk) s = cs::SetValueLong(o, "count", count + 1);
  if (s == cs::kOk) s = cs::Set(store, o, "EXTERNAL");
  if (s == cs::kOk) s = SetSwitch(store, tag + "-" + std::to_string(i));
  if (s == cs::kOk) return cs::CommitTransaction(store);
  cs::CancelTransaction(store);
  return s;
}

int64_t Count(cs::Store *store) {
  Object *o = nullptr;
  int64_t count = -1;
  if (cs::Get(store, "switches", "network_zel", "orn", "counter", &o) == cs::kOk)
    cs::GetValueLong(o, "count", &count);
  cs::DestroyConfigStoreObject(o);
  return count;
}

int Wait(pid_t pid) {
  int st = 0;
  waitpid(pid, &st, 0);
  return st;
}

// A writer killed before its commit leaves the store as it was.
TEST(ConfigStoreProcesses, KilledWriterLeavesStoreUnchanged) {
  TempStore tmp;
  StorePtr store = OpenStore();
  ASSERT_EQ(SetSwitch(store.get(), "before"), cs::kOk);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    cs::Store *s = nullptr;
    bool ok = cs::GetStore(0, &s) == cs::kOk && cs::BeginTransaction(s) == cs::kOk;
    for (int i = 0; ok && i < 5; ++i) ok = SetSwitch(s, "child-" + std::to_string(i)) == cs::kOk;
    ok = ok && cs::Delete(s, "switches", "network_zel", "orn", "before") == cs::kOk;
    char c = ok ? 'w' : 'f';
    if (write(ready[1], &c, 1) != 1) _exit(3);
    for (;;) pause();
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'w');
  EXPECT_EQ(SwitchUuids(store.get()), std::vector<std::string>{"before"});
  kill(pid, SIGKILL);
  EXPECT_TRUE(WIFSIGNALED(Wait(pid)));
  for (int fd : ready) close(fd);
  StorePtr fresh = OpenStore();
  EXPECT_EQ(SwitchUuids(fresh.get()), std::vector<std::string>{"before"});
  // The store is writable again at once: the dead writer's lock is gone.
  ASSERT_EQ(cs::BeginTransaction(fresh.get()), cs::kOk);
  EXPECT_EQ(cs::CommitTransaction(fresh.get()), cs::kOk);
}

// Two processes writing at once both succeed in turn and lose nothing.
TEST(ConfigStoreProcesses, TwoWritersTakeTurns) {
  TempStore tmp;
  constexpr int kRounds = 20;
  std::vector<pid_t> pids;
  for (const char *tag : {"x", "y"}) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      cs::Store *s = nullptr;
      bool ok = cs::GetStore(0, &s) == cs::kOk;
      for (int i = 0; ok && i < kRounds; ++i) ok = Increment(s, tag, i) == cs::kOk;
      cs::DestroyStore(s);
      _exit(ok ? 0 : 1);
    }
    pids.push_back(pid);
  }
  for (pid_t pid : pids) EXPECT_EQ(Wait(pid), 0);
  StorePtr store = OpenStore();
  EXPECT_EQ(Count(store.get()), 2 * kRounds);
  EXPECT_EQ(SwitchUuids(store.get()).size(), 2u * kRounds + 1);  // and the counter itself
}

TEST(ConfigStoreConcurrency, ThreadsWithOwnStoresTakeTurns) {
  TempStore tmp;
  constexpr int kRounds = 10;
  std::vector<std::thread> threads;
  std::vector<int> failures(3, 0);
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([t, &failures] {
      cs::Store *s = nullptr;
      cs::GetStore(0, &s);  // without a store every round fails
      for (int i = 0; i < kRounds; ++i)
        failures[t] += Increment(s, "t" + std::to_string(t), i) != cs::kOk;
      cs::DestroyStore(s);
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures, std::vector<int>(3, 0));
  StorePtr store = OpenStore();
  EXPECT_EQ(Count(store.get()), 3 * kRounds);
}

}  // namespace
