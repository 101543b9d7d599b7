// zelctl store: the configuration store's objects, in either layer (get,
// put, list, delete; put writes the desired layer that the library only
// reads), and check, which names every stored switch object a load would
// fail on.
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>

#include "configstore/inspect.h"
#include "host/configstore_client.h"
#include "tools/zelctl/zelctl.h"

namespace zelctl {

namespace {

namespace cs = zel::cfgstore;

struct StoreOptions {
  std::string db;
  bool desired = false;
  std::vector<std::string> sel;  // three selectors, then the instance id
  std::string json = "-";
};

std::string Owned(char *text) {
  std::string out = text != nullptr ? text : "";
  std::free(text);
  return out;
}

struct StoreHandle {
  cs::Store *store = nullptr;
  ~StoreHandle() { cs::DestroyStore(store); }
};

// Opens the store for a subcommand; read-only unless it writes.
void Open(const StoreOptions &o, bool writes, StoreHandle *h) {
  const Source s = ParseSource(o.db.empty() ? "store" : "store:" + o.db);
  UseStore(s, !writes);
  cs::UseReadOnly(!writes);
  if (int st = cs::GetStore(0, &h->store); st != cs::kOk) {
    Fail(StorePath(s), "cannot be opened: " + StoreStatusText(static_cast<uint32_t>(st)));
  }
}

std::string Name(const StoreOptions &o, bool withId) {
  std::string n = o.sel[0] + "/" + o.sel[1] + "/" + o.sel[2];
  return withId ? n + "/" + o.sel[3] : n;
}

// The objects under the three selectors in the chosen layer.
std::vector<cs::Object *> List(cs::Store *store, const StoreOptions &o) {
  cs::Object **objs = nullptr;
  int n = 0;
  int s;
  if (o.desired) {
    s = cs::GetDesiredUserConfigInstances(o.sel[0].c_str(), o.sel[1].c_str(), o.sel[2].c_str(),
                                          &objs, &n);
  } else {
    cs::Filter *f = nullptr;
    s = cs::CreateFilterSpecObject(o.sel[0].c_str(), o.sel[1].c_str(), o.sel[2].c_str(), "", &f);
    if (s == cs::kOk) s = cs::GetInstances(store, f, &objs, &n);
    cs::DestroyFilterSpecObject(f);
  }
  std::vector<cs::Object *> out(objs, objs + n);
  std::free(objs);
  if (s != cs::kOk) Fail("store " + Name(o, false), StoreStatusText(static_cast<uint32_t>(s)));
  return out;
}

// get (one object's content) or list (every object with its id).
int Print(const StoreOptions &o, bool one) {
  StoreHandle h;
  Open(o, false, &h);
  bool found = false;
  for (cs::Object *obj : List(h.store, o)) {
    char *raw = nullptr;
    cs::GetObjectInstanceId(obj, &raw);
    const std::string id = Owned(raw);
    cs::ExportObjectJson(obj, &raw);
    const std::string json = Owned(raw);
    if (!one) {
      std::printf("%s\t%s\n", id.c_str(), json.c_str());
    } else if (id == o.sel[3]) {
      std::printf("%s\n", json.c_str());
      found = true;
    }
    cs::DestroyConfigStoreObject(obj);
  }
  if (one && !found) {
    std::fprintf(stderr, "zelctl: store get: %s: no such object\n", Name(o, true).c_str());
    return kExitNo;
  }
  return kExitOk;
}

int Put(const StoreOptions &o) {
  std::string content = o.json;
  if (content == "-") {
    content.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  cs::Object *obj = nullptr;
  if (cs::CreateObject(o.sel[0].c_str(), o.sel[1].c_str(), o.sel[2].c_str(), o.sel[3].c_str(),
                       content.c_str(), &obj) != cs::kOk) {
    Fail("store put: " + Name(o, true), "not an object in the stored JSON form");
  }
  StoreHandle h;
  Open(o, true, &h);
  const int s = o.desired ? cs::SetDesired(h.store, obj) : cs::Set(h.store, obj, "EXTERNAL");
  cs::DestroyConfigStoreObject(obj);
  if (s != cs::kOk) Fail("store put: " + Name(o, true), StoreStatusText(static_cast<uint32_t>(s)));
  return kExitOk;
}

int Delete(const StoreOptions &o) {
  StoreHandle h;
  Open(o, true, &h);
  const char *s1 = o.sel[0].c_str(), *s2 = o.sel[1].c_str(), *s3 = o.sel[2].c_str(),
             *id = o.sel[3].c_str();
  const int s =
      o.desired ? cs::DeleteDesired(h.store, s1, s2, s3, id) : cs::Delete(h.store, s1, s2, s3, id);
  if (s == cs::kNotFound) {
    std::fprintf(stderr, "zelctl: store delete: %s: no such object\n", Name(o, true).c_str());
    return kExitNo;
  }
  if (s != cs::kOk)
    Fail("store delete: " + Name(o, true), StoreStatusText(static_cast<uint32_t>(s)));
  return kExitOk;
}

// --- check ---

struct Row {
  std::string instance, content;
};

// The stored switch rows, read one by one from the database (read-only), so
// that one unreadable object does not hide the others.
std::vector<Row> SwitchRows(const std::string &path, bool desired) {
  sqlite3 *db = nullptr;
  std::vector<Row> rows;
  int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_stmt *st = nullptr;
  if (rc == SQLITE_OK) {
    rc = sqlite3_prepare_v2(
        db,
        "SELECT instance, content FROM objects WHERE layer=?1 AND "
        "sel1='switches' AND sel2='network_zel' AND sel3='orn' ORDER BY instance",
        -1, &st, nullptr);
  }
  if (rc == SQLITE_OK) {
    sqlite3_bind_text(st, 1, desired ? "desired" : "current", -1, SQLITE_STATIC);
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
      auto text = [&](int col) {
        const auto *p = reinterpret_cast<const char *>(sqlite3_column_text(st, col));
        return std::string(p != nullptr ? p : "");
      };
      rows.push_back({text(0), text(1)});
    }
  }
  const std::string error = sqlite3_errmsg(db);
  sqlite3_finalize(st);
  sqlite3_close(db);
  if (rc != SQLITE_DONE) Fail(path, "not a configuration store: " + error);
  return rows;
}

int Check(const StoreOptions &o) {
  const Source s = ParseSource(o.db.empty() ? "store" : "store:" + o.db);
  UseStore(s, true);
  const std::vector<Row> rows = SwitchRows(StorePath(s), o.desired);
  std::map<std::string, std::string> uuids;  // uuid -> instance that has it
  size_t problems = 0;
  auto report = [&](const std::string &instance, const std::string &key, const std::string &why) {
    std::printf("%s: %s%s\n", instance.c_str(), key.empty() ? "" : (key + ": ").c_str(),
                why.c_str());
    ++problems;
  };
  for (const Row &row : rows) {
    cs::Object *obj = nullptr;
    if (cs::CreateObject("switches", "network_zel", "orn", row.instance.c_str(),
                         row.content.c_str(), &obj) != cs::kOk) {
      report(row.instance, "", "unparsable content: no load gets past it");
      continue;
    }
    for (const auto &p : zel::persist::CheckSwitchObject(obj)) {
      report(row.instance, p.key, p.reason + ": " + StoreStatusText(p.status));
    }
    char *raw = nullptr;
    if (cs::GetValueStr(obj, "uuid", &raw) == cs::kOk) {
      const std::string uuid = Owned(raw);
      auto [it, fresh] = uuids.emplace(uuid, row.instance);
      if (!fresh)
        report(row.instance, "uuid", "\"" + uuid + "\" is also the uuid of " + it->second);
    }
    cs::DestroyConfigStoreObject(obj);
  }
  if (problems == 0) {
    std::printf("ok: %zu switch object%s\n", rows.size(), rows.size() == 1 ? "" : "s");
    return kExitOk;
  }
  std::printf("%zu problem%s in %zu switch objects; the load of the whole store fails\n", problems,
              problems == 1 ? "" : "s", rows.size());
  return kExitNo;
}

}  // namespace

void AddStore(CLI::App &app) {
  auto o = std::make_shared<StoreOptions>();
  auto *store = app.add_subcommand("store", "the configuration store's objects");
  store->add_option(
      "--db", o->db,
      "database file (default: $ZEL_CONFIGSTORE_PATH or " + std::string(cs::kDefaultPath) + ")");
  store->add_flag("--desired", o->desired, "use the desired (user-configured) layer");
  store->require_subcommand(1);
  auto sel = std::make_shared<std::vector<std::string>>(4);
  auto selectors = [&, sel](CLI::App *cmd, bool withId) {
    cmd->add_option("SEL1", (*sel)[0], "first selector")->required();
    cmd->add_option("SEL2", (*sel)[1], "second selector")->required();
    cmd->add_option("SEL3", (*sel)[2], "third selector")->required();
    if (withId) cmd->add_option("ID", (*sel)[3], "instance id")->required();
    cmd->fallthrough();
  };
  auto run = [o, sel](int (*fn)(const StoreOptions &)) {
    return [o, sel, fn] {
      o->sel = *sel;
      g_exit = fn(*o);
    };
  };
  auto *get = store->add_subcommand("get", "print an object's content");
  selectors(get, true);
  get->callback(run([](const StoreOptions &x) { return Print(x, true); }));
  auto *list = store->add_subcommand(
      "list", "print every object under three selectors, one \"ID<TAB>JSON\" line each");
  selectors(list, false);
  list->callback(run([](const StoreOptions &x) { return Print(x, false); }));
  auto *put = store->add_subcommand("put", "write an object from JSON content in the stored form");
  selectors(put, true);
  put->add_option("JSON", o->json, "the content, or - for standard input (the default)");
  put->callback(run(Put));
  auto *del = store->add_subcommand("delete", "delete an object");
  selectors(del, true);
  del->callback(run(Delete));
  auto *check = store->add_subcommand(
      "check",
      "list every stored switch object a load would fail on, with the key and the "
      "reason; exit 1 when any");
  check->fallthrough();
  check->callback(run(Check));
}

}  // namespace zelctl
