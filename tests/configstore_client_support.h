// Test helpers for the configuration-store client: a private database file, handle owners.
#pragma once

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/configstore_client.h"

namespace cfgtest {

namespace cs = zel::cfgstore;

// Points the client at a new database file in a new temporary directory; the destructor
// restores the environment's path, clears injected failures and removes the directory.
class TempStore {
 public:
  TempStore() {
    char tmpl[] = "/tmp/zel_cfgstore_XXXXXX";
    const char *dir = mkdtemp(tmpl);
    dir_ = dir != nullptr ? dir : "";
    path_ = dir_ + "/configstore.db";
    cs::testing::UsePath(path_.c_str());
    cs::testing::ClearFailures();
  }
  ~TempStore() {
    cs::testing::UsePath(nullptr);
    cs::testing::ClearFailures();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  TempStore(const TempStore &) = delete;
  TempStore &operator=(const TempStore &) = delete;

  const std::string &path() const { return path_; }

 private:
  std::string dir_, path_;
};

template <auto Destroy>
struct Closer {
  void operator()(auto *p) const { Destroy(p); }
};
using StorePtr = std::unique_ptr<cs::Store, Closer<cs::DestroyStore>>;
using ObjectPtr = std::unique_ptr<cs::Object, Closer<cs::DestroyConfigStoreObject>>;

inline StorePtr OpenStore() {
  cs::Store *s = nullptr;
  cs::GetStore(0, &s);
  return StorePtr(s);
}

inline ObjectPtr NewSwitch(const char *id) {
  cs::Object *o = nullptr;
  cs::CreateObject("switches", "network_zel", "orn", id, "{}", &o);
  return ObjectPtr(o);
}

// A switch object with its "uuid" and, when given, its "name".
inline ObjectPtr SwitchWith(const char *id, const char *name = nullptr) {
  ObjectPtr o = NewSwitch(id);
  cs::SetValueStr(o.get(), "uuid", id);
  if (name != nullptr) cs::SetValueStr(o.get(), "name", name);
  return o;
}

// An object's content as the store writes it ("" on failure).
inline std::string Json(cs::Object *o) {
  char *text = nullptr;
  cs::ExportObjectJson(o, &text);
  std::string out = text != nullptr ? text : "";
  free(text);
  return out;
}

// A string value, or "<none>" when it cannot be read.
inline std::string Str(cs::Object *o, const char *key) {
  char *v = nullptr;
  if (cs::GetValueStr(o, key, &v) != cs::kOk) return "<none>";
  std::string out = v;
  free(v);
  return out;
}

// The "uuid" of every current switch object (or of the one named `id`), in the order listed.
inline std::vector<std::string> SwitchUuids(cs::Store *store, int *status = nullptr,
                                            const char *id = "") {
  cs::Filter *f = nullptr;
  cs::CreateFilterSpecObject("switches", "network_zel", "orn", id, &f);
  cs::Object **objs = nullptr;
  int n = 0;
  int s = cs::GetInstances(store, f, &objs, &n);
  if (status != nullptr) *status = s;
  std::vector<std::string> out;
  for (int i = 0; i < n; ++i) {
    out.push_back(Str(objs[i], "uuid"));
    cs::DestroyConfigStoreObject(objs[i]);
  }
  free(objs);
  cs::DestroyFilterSpecObject(f);
  return out;
}

// The rows of one statement run on the store's file: columns joined by '|', each row ended
// by a newline ("" when the file cannot be opened).
inline std::string Query(const std::string &path, const std::string &sql) {
  sqlite3 *db = nullptr;
  sqlite3_stmt *st = nullptr;
  std::string out;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) == SQLITE_OK) {
    while (sqlite3_step(st) == SQLITE_ROW) {
      for (int c = 0; c < sqlite3_column_count(st); ++c) {
        const unsigned char *t = sqlite3_column_text(st, c);
        out += c > 0 ? "|" : "";
        out += t != nullptr ? reinterpret_cast<const char *>(t) : "";
      }
      out += '\n';
    }
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  return out;
}

// The stored switch object's content ("" when there is none).
inline std::string RawContent(const std::string &path, const char *layer, const char *id) {
  std::string row = Query(path, std::string("SELECT content FROM objects WHERE layer='") + layer +
                                    "' AND sel1='switches' AND sel2='network_zel' AND sel3='orn'"
                                    " AND instance='" + id + "'");
  return row.empty() ? row : row.substr(0, row.size() - 1);
}

}  // namespace cfgtest
