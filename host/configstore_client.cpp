// Configuration-store client: the SQLite side (store handles, transactions,
// top-level objects in the current and desired layers), filters and instance
// ids.  The object trees and values are in configstore_object.cpp.
#include "host/configstore_client.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>

#include "host/configstore_internal.h"

namespace zel::cfgstore {

using testing::Op;

namespace {

constexpr int kSchemaVersion = 1;
constexpr const char *kCurrent = "current";
constexpr const char *kDesired = "desired";

constexpr const char *kSchema =
    "CREATE TABLE IF NOT EXISTS objects ("
    " layer TEXT NOT NULL,"
    " sel1 TEXT NOT NULL, sel2 TEXT NOT NULL, sel3 TEXT NOT NULL,"
    " instance TEXT NOT NULL,"
    " content TEXT NOT NULL,"
    " origin TEXT NOT NULL DEFAULT '',"
    " PRIMARY KEY (layer, sel1, sel2, sel3, instance));";

std::mutex g_pathMu;
bool g_pathOverridden = false;
std::string g_pathOverride;  // guarded by g_pathMu
std::atomic<int> g_busyTimeoutMs{kBusyTimeoutMs};
std::atomic<bool> g_readOnly{false};

std::string StorePath() {
  {
    std::lock_guard<std::mutex> lock(g_pathMu);
    if (g_pathOverridden) return g_pathOverride;
  }
  const char *env = getenv(kPathEnv);
  return env != nullptr && env[0] != '\0' ? env : kDefaultPath;
}

int FromSqlite(int rc) {
  switch (rc & 0xFF) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW: return kOk;
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return kBusy;
    case SQLITE_NOMEM: return kNoMemory;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB: return kCorrupt;
    default: return kStorage;
  }
}

bool Text(const char *s) { return s != nullptr && s[0] != '\0'; }

// A prepared statement, reset after every use.
class Stmt {
 public:
  Stmt() = default;
  Stmt(const Stmt &) = delete;
  Stmt &operator=(const Stmt &) = delete;
  ~Stmt() { sqlite3_finalize(stmt_); }

  int Prepare(sqlite3 *db, const char *sql) {
    return FromSqlite(sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr));
  }
  // Binds texts to the parameters from 1 on; they must outlive the step.
  template <typename... T>
  int Bind(const T &...texts) {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    int i = 0;
    for (std::string_view t : {std::string_view(texts)...}) {
      if (t.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return kOutOfRange;
      int rc = sqlite3_bind_text(stmt_, ++i, t.data(), static_cast<int>(t.size()), SQLITE_STATIC);
      if (rc != SQLITE_OK) return FromSqlite(rc);
    }
    return kOk;
  }
  int Step() { return sqlite3_step(stmt_); }
  void Reset() { sqlite3_reset(stmt_); }
  sqlite3_stmt *get() { return stmt_; }

 private:
  sqlite3_stmt *stmt_ = nullptr;
};

// Resets a statement on every way out of a scope.
struct ResetOnExit {
  Stmt &stmt;
  ~ResetOnExit() { stmt.Reset(); }
};

// A text column that must be text.
bool ColumnText(sqlite3_stmt *st, int col, std::string_view &out) {
  if (sqlite3_column_type(st, col) != SQLITE_TEXT) return false;
  const auto *p = reinterpret_cast<const char *>(sqlite3_column_text(st, col));
  if (p == nullptr) return false;
  out = std::string_view(p, static_cast<size_t>(sqlite3_column_bytes(st, col)));
  return true;
}

int Exec(sqlite3 *db, const char *sql) {
  return FromSqlite(sqlite3_exec(db, sql, nullptr, nullptr, nullptr));
}

// Creates the file (mode 0600) and, one level up, its directory (0700).
int CreateFile(const std::string &path) {
  size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return kStorage;
  }
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return kStorage;
  close(fd);
  return kOk;
}

// Runs step again while it reports busy, for up to the busy timeout.  Two
// processes opening a new store at once both read it and then ask to change
// it (journal mode, schema); the store refuses one of them at once instead of
// waiting, as waiting could deadlock, so the wait happens here.
template <class Step>
int RetryWhileBusy(Step step) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(g_busyTimeoutMs.load());
  for (;;) {
    const int s = step();
    if (s != kBusy || std::chrono::steady_clock::now() >= deadline) return s;
    usleep(1000);
  }
}

// The connection, closed after the statements of the Store built on it (a
// base outlives the members); a transaction still open is rolled back first.
struct Connection {
  sqlite3 *db = nullptr;
  Connection() = default;
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;
  ~Connection() {
    if (db != nullptr && sqlite3_get_autocommit(db) == 0) Exec(db, "ROLLBACK");
    sqlite3_close(db);
  }
};

}  // namespace

struct Store : Connection {
  Stmt get, upsert, remove, list;

  int Open(const std::string &path) {
    if (g_readOnly.load()) return OpenReadOnly(path);
    if (int s = CreateFile(path); s != kOk) return s;
    int rc =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) return FromSqlite(rc);
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, g_busyTimeoutMs.load());
    if (int s = RetryWhileBusy([&] { return Exec(db, "PRAGMA journal_mode=WAL"); }); s != kOk)
      return s;
    if (int s = Exec(db, "PRAGMA synchronous=FULL"); s != kOk) return s;
    if (int s = RetryWhileBusy([&] { return EnsureSchema(); }); s != kOk) return s;
    return PrepareStatements();
  }

  // A read-only connection prepares the writing statements too: they fail
  // when run, as the database refuses every write.
  int OpenReadOnly(const std::string &path) {
    if (access(path.c_str(), F_OK) != 0) return kNotFound;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) return FromSqlite(rc);
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, g_busyTimeoutMs.load());
    int version = 0;
    if (int s = UserVersion(version); s != kOk) return s;
    return version == kSchemaVersion ? PrepareStatements() : kCorrupt;
  }

  int PrepareStatements() {
    if (int s = get.Prepare(db,
                            "SELECT content FROM objects WHERE layer=?1 AND sel1=?2 AND sel2=?3"
                            " AND sel3=?4 AND instance=?5");
        s != kOk)
      return s;
    if (int s = upsert.Prepare(
            db,
            "INSERT INTO objects (layer, sel1, sel2, sel3, instance, content, origin)"
            " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7) ON CONFLICT (layer, sel1, sel2, sel3, instance)"
            " DO UPDATE SET content=excluded.content, origin=excluded.origin");
        s != kOk)
      return s;
    if (int s = remove.Prepare(db,
                               "DELETE FROM objects WHERE layer=?1 AND sel1=?2 AND sel2=?3"
                               " AND sel3=?4 AND instance=?5");
        s != kOk)
      return s;
    return list.Prepare(db,
                        "SELECT instance, content FROM objects WHERE layer=?1 AND sel1=?2"
                        " AND sel2=?3 AND sel3=?4 ORDER BY instance");
  }

  int UserVersion(int &version) {
    sqlite3_stmt *st = nullptr;
    int rc = sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &st, nullptr);
    if (rc == SQLITE_OK) {
      rc = sqlite3_step(st);
      if (rc == SQLITE_ROW) {
        version = sqlite3_column_int(st, 0);
        rc = SQLITE_OK;
      }
    }
    sqlite3_finalize(st);
    return FromSqlite(rc);
  }

  int EnsureSchema() {
    int version = 0;
    if (int s = UserVersion(version); s != kOk) return s;
    if (version == kSchemaVersion) return kOk;
    if (version != 0) return kCorrupt;  // written by an unknown later format
    if (int s = Exec(db, "BEGIN IMMEDIATE"); s != kOk) return s;
    int s = Exec(db, kSchema);
    if (s == kOk) s = Exec(db, "PRAGMA user_version=1");
    if (s == kOk) s = Exec(db, "COMMIT");
    if (s != kOk) Exec(db, "ROLLBACK");
    return s;
  }

  // Reads one object's row into a new root.
  int Load(const char *layer, const char *sel1, const char *sel2, const char *sel3, const char *id,
           RootPtr &out) {
    ResetOnExit guard{get};
    if (int s = get.Bind(layer, sel1, sel2, sel3, id); s != kOk) return s;
    int rc = get.Step();
    if (rc == SQLITE_DONE) return kNotFound;
    if (rc != SQLITE_ROW) return FromSqlite(rc);
    std::string_view content;
    if (!ColumnText(get.get(), 0, content)) return kCorrupt;
    auto root = NewRoot(sel1, sel2, sel3, id);
    if (int s = ParseContent(content, *root); s != kOk) return s;
    out = std::move(root);
    return kOk;
  }

  // Reads every object under three selectors, ordered by instance id.
  int LoadAll(const char *layer, const std::string &sel1, const std::string &sel2,
              const std::string &sel3, std::vector<RootPtr> &out) {
    ResetOnExit guard{list};
    if (int s = list.Bind(layer, sel1, sel2, sel3); s != kOk) return s;
    for (;;) {
      int rc = list.Step();
      if (rc == SQLITE_DONE) return kOk;
      if (rc != SQLITE_ROW) return FromSqlite(rc);
      std::string_view id, content;
      if (!ColumnText(list.get(), 0, id) || !ColumnText(list.get(), 1, content) || id.empty())
        return kCorrupt;
      auto root = NewRoot(sel1, sel2, sel3, std::string(id));
      if (int s = ParseContent(content, *root); s != kOk) return s;
      out.push_back(std::move(root));
    }
  }

  int Write(const char *layer, const Object &object, const char *origin) {
    const JsonText content = WriteContent(object);
    const TopLevel &t = *object.top;
    ResetOnExit guard{upsert};
    if (int s = upsert.Bind(layer, t.sel1, t.sel2, t.sel3, t.instanceId, content, origin); s != kOk)
      return s;
    int rc = upsert.Step();
    return rc == SQLITE_DONE ? kOk : FromSqlite(rc);
  }

  int Erase(const char *layer, const char *sel1, const char *sel2, const char *sel3,
            const char *id) {
    ResetOnExit guard{remove};
    if (int s = remove.Bind(layer, sel1, sel2, sel3, id); s != kOk) return s;
    int rc = remove.Step();
    if (rc != SQLITE_DONE) return FromSqlite(rc);
    return sqlite3_changes(db) > 0 ? kOk : kNotFound;
  }
};

namespace {

int OpenStore(std::unique_ptr<Store> &out) {
  auto store = std::make_unique<Store>();
  if (int s = store->Open(StorePath()); s != kOk) return s;
  out = std::move(store);
  return kOk;
}

// Hands a set of roots to the caller as a malloc'd array.
int HandOut(std::vector<RootPtr> &roots, Object ***objects, int *count) {
  if (roots.empty()) return kOk;
  auto **arr = static_cast<Object **>(malloc(roots.size() * sizeof(Object *)));
  if (arr == nullptr) return kNoMemory;
  for (size_t i = 0; i < roots.size(); ++i) arr[i] = roots[i].release();
  *objects = arr;
  *count = static_cast<int>(roots.size());
  return kOk;
}

bool IsRoot(const Object *object) { return object != nullptr && object->top != nullptr; }

}  // namespace

int GetStore(int options, Store **store) {
  if (store == nullptr) return kBadArgument;
  *store = nullptr;
  return Run(Op::kGetStore, [&] {
    if (options != 0) return kBadArgument;
    std::unique_ptr<Store> s;
    if (int rc = OpenStore(s); rc != kOk) return rc;
    *store = s.release();
    return kOk;
  });
}

int DestroyStore(Store *store) {
  delete store;
  return kOk;
}

int BeginTransaction(Store *store) {
  return Run(Op::kBeginTransaction, [&] {
    if (store == nullptr) return kBadArgument;
    if (sqlite3_get_autocommit(store->db) == 0) return kTransaction;
    return Exec(store->db, "BEGIN IMMEDIATE");
  });
}

int CommitTransaction(Store *store) {
  return Run(Op::kCommitTransaction, [&] {
    if (store == nullptr) return kBadArgument;
    if (sqlite3_get_autocommit(store->db) != 0) return kTransaction;
    return Exec(store->db, "COMMIT");
  });
}

int CancelTransaction(Store *store) {
  return Run(Op::kCancelTransaction, [&] {
    if (store == nullptr) return kBadArgument;
    if (sqlite3_get_autocommit(store->db) != 0) return kTransaction;
    return Exec(store->db, "ROLLBACK");
  });
}

int Get(Store *store, const char *sel1, const char *sel2, const char *sel3, const char *instanceId,
        Object **object) {
  if (object == nullptr) return kBadArgument;
  *object = nullptr;
  return Run(Op::kGet, [&] {
    if (store == nullptr || !Text(sel1) || !Text(sel2) || !Text(sel3) || !Text(instanceId))
      return kBadArgument;
    RootPtr root;
    if (int s = store->Load(kCurrent, sel1, sel2, sel3, instanceId, root); s != kOk) return s;
    *object = root.release();
    return kOk;
  });
}

int CreateObject(const char *sel1, const char *sel2, const char *sel3, const char *instanceId,
                 const char *content, Object **object) {
  if (object == nullptr) return kBadArgument;
  *object = nullptr;
  return Run(Op::kCreateObject, [&] {
    if (!Text(sel1) || !Text(sel2) || !Text(sel3) || !Text(instanceId) || content == nullptr)
      return kBadArgument;
    auto root = NewRoot(sel1, sel2, sel3, instanceId);
    if (ParseContent(content, *root) != kOk) return kBadArgument;
    *object = root.release();
    return kOk;
  });
}

int Set(Store *store, Object *object, const char *origin) {
  return Run(Op::kSet, [&] {
    if (store == nullptr || !IsRoot(object) || origin == nullptr) return kBadArgument;
    return store->Write(kCurrent, *object, origin);
  });
}

int SetDesired(Store *store, Object *object) {
  return Run(Op::kSetDesired, [&] {
    if (store == nullptr || !IsRoot(object)) return kBadArgument;
    return store->Write(kDesired, *object, "");
  });
}

int Delete(Store *store, const char *sel1, const char *sel2, const char *sel3,
           const char *instanceId) {
  return Run(Op::kDelete, [&] {
    if (store == nullptr || !Text(sel1) || !Text(sel2) || !Text(sel3) || !Text(instanceId))
      return kBadArgument;
    return store->Erase(kCurrent, sel1, sel2, sel3, instanceId);
  });
}

int DeleteDesired(Store *store, const char *sel1, const char *sel2, const char *sel3,
                  const char *instanceId) {
  return Run(Op::kDeleteDesired, [&] {
    if (store == nullptr || !Text(sel1) || !Text(sel2) || !Text(sel3) || !Text(instanceId))
      return kBadArgument;
    return store->Erase(kDesired, sel1, sel2, sel3, instanceId);
  });
}

int DestroyConfigStoreObject(Object *object) {
  if (object == nullptr) return kOk;
  if (!IsRoot(object)) return kBadArgument;
  RootDelete{}(object);
  return kOk;
}

int GetInstances(Store *store, Filter *filter, Object ***objects, int *count) {
  if (objects == nullptr || count == nullptr) return kBadArgument;
  *objects = nullptr;
  *count = 0;
  return Run(Op::kGetInstances, [&] {
    if (store == nullptr || filter == nullptr || filter->sel1.empty() || filter->sel2.empty() ||
        filter->sel3.empty())
      return kBadArgument;
    std::vector<RootPtr> roots;
    if (filter->instanceId.empty()) {
      if (int s = store->LoadAll(kCurrent, filter->sel1, filter->sel2, filter->sel3, roots);
          s != kOk)
        return s;
    } else {
      RootPtr root;
      if (int s = store->Load(kCurrent, filter->sel1.c_str(), filter->sel2.c_str(),
                              filter->sel3.c_str(), filter->instanceId.c_str(), root);
          s != kOk)
        return s;
      roots.push_back(std::move(root));
    }
    return HandOut(roots, objects, count);
  });
}

int GetDesiredUserConfigInstances(const char *sel1, const char *sel2, const char *sel3,
                                  Object ***objects, int *count) {
  if (objects == nullptr || count == nullptr) return kBadArgument;
  *objects = nullptr;
  *count = 0;
  return Run(Op::kGetDesiredUserConfigInstances, [&] {
    if (!Text(sel1) || !Text(sel2) || !Text(sel3)) return kBadArgument;
    std::unique_ptr<Store> store;
    if (int s = OpenStore(store); s != kOk) return s;
    std::vector<RootPtr> roots;
    if (int s = store->LoadAll(kDesired, sel1, sel2, sel3, roots); s != kOk) return s;
    return HandOut(roots, objects, count);
  });
}

int GenerateInstanceId(char **instanceId) {
  if (instanceId == nullptr) return kBadArgument;
  *instanceId = nullptr;
  return Run(Op::kGenerateInstanceId, [&] {
    uint8_t b[16];
    size_t got = 0;
    while (got < sizeof b) {
      ssize_t n = getrandom(b + got, sizeof b - got, 0);
      if (n < 0) {
        if (errno == EINTR) continue;
        return kInternal;
      }
      got += static_cast<size_t>(n);
    }
    b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    char *text = static_cast<char *>(malloc(37));
    if (text == nullptr) return kNoMemory;
    snprintf(text, 37, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0],
             b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
             b[14], b[15]);
    *instanceId = text;
    return kOk;
  });
}

int CreateFilterSpecObject(const char *sel1, const char *sel2, const char *sel3,
                           const char *instanceId, Filter **filter) {
  if (filter == nullptr) return kBadArgument;
  *filter = nullptr;
  return Run(Op::kCreateFilterSpecObject, [&] {
    if (!Text(sel1) || sel2 == nullptr || sel3 == nullptr) return kBadArgument;
    // Either three selectors or a list name alone.
    if (Text(sel2) != Text(sel3)) return kBadArgument;
    *filter = new Filter{sel1, sel2, sel3, instanceId != nullptr ? instanceId : ""};
    return kOk;
  });
}

int DestroyFilterSpecObject(Filter *filter) {
  delete filter;
  return kOk;
}

void UseReadOnly(bool readOnly) { g_readOnly.store(readOnly); }

namespace testing {

void UsePath(const char *path) {
  std::lock_guard<std::mutex> lock(g_pathMu);
  g_pathOverridden = path != nullptr;
  g_pathOverride = path != nullptr ? path : "";
}

void UseBusyTimeout(int ms) { g_busyTimeoutMs.store(ms < 0 ? kBusyTimeoutMs : ms); }

}  // namespace testing
}  // namespace zel::cfgstore
