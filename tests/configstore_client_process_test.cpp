// Several processes and threads on one configuration store.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "configstore_client_support.h"

namespace {

using namespace cfgtest;
using cs::Object;

int SetSwitch(cs::Store *store, const std::string &id) {
  ObjectPtr o = NewSwitch(id.c_str());
  cs::SetValueStr(o.get(), "uuid", id.c_str());
  return cs::Set(store, o.get(), "EXTERNAL");
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
  int64_t count = 0;
  if (s == cs::kOk && cs::GetValueLong(o, "count", &count) == cs::kNotFound) count = 0;
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

char ReadByte(int fd) {
  char c = 0;
  return read(fd, &c, 1) == 1 ? c : 0;
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
  ASSERT_EQ(ReadByte(ready[0]), 'w');
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
      if (cs::GetStore(0, &s) != cs::kOk) {
        failures[t] = -1;
        return;
      }
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
