// zel_configstore: reads and writes objects of the host configuration store,
// in either layer.  Its main use is writing the desired (user-configured)
// layer, which the library only reads.
//
//   zel_configstore [--db PATH] [--desired] put SEL1 SEL2 SEL3 ID [JSON]
//   zel_configstore [--db PATH] [--desired] get SEL1 SEL2 SEL3 ID
//   zel_configstore [--db PATH] [--desired] list SEL1 SEL2 SEL3
//   zel_configstore [--db PATH] [--desired] delete SEL1 SEL2 SEL3 ID
//
// JSON is the object's content in the stored form (standard input when it is
// omitted or "-"); "get" prints it, "list" prints one "ID<TAB>JSON" line per
// object.  --db overrides ZEL_CONFIGSTORE_PATH.  The exit status is 0 on
// success, otherwise the store's status (6: no such object).
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "host/configstore_client.h"

namespace cs = zel::cfgstore;

namespace {

struct Args {
  std::string db;
  bool desired = false;
  std::vector<std::string> sel;  // three selectors, then the instance id
  std::string json = "-";
};

int Fail(const char *what, int status) {
  fprintf(stderr, "zel_configstore: %s failed, status %d\n", what, status);
  return status;
}

std::string Owned(char *text) {
  std::string out = text != nullptr ? text : "";
  free(text);
  return out;
}

// The objects under the three selectors in the chosen layer.
int List(cs::Store *store, const Args &a, std::vector<cs::Object *> &out) {
  cs::Object **objs = nullptr;
  int n = 0;
  int s;
  if (a.desired) {
    s = cs::GetDesiredUserConfigInstances(a.sel[0].c_str(), a.sel[1].c_str(), a.sel[2].c_str(),
                                          &objs, &n);
  } else {
    cs::Filter *f = nullptr;
    s = cs::CreateFilterSpecObject(a.sel[0].c_str(), a.sel[1].c_str(), a.sel[2].c_str(), "", &f);
    if (s == cs::kOk) s = cs::GetInstances(store, f, &objs, &n);
    cs::DestroyFilterSpecObject(f);
  }
  out.assign(objs, objs + n);
  free(objs);
  return s;
}

int Put(cs::Store *store, const Args &a) {
  std::string content = a.json;
  if (content == "-")
    content.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  cs::Object *o = nullptr;
  int s = cs::CreateObject(a.sel[0].c_str(), a.sel[1].c_str(), a.sel[2].c_str(), a.sel[3].c_str(),
                           content.c_str(), &o);
  if (s != cs::kOk) return Fail("reading the JSON content", s);
  s = a.desired ? cs::SetDesired(store, o) : cs::Set(store, o, "EXTERNAL");
  cs::DestroyConfigStoreObject(o);
  return s == cs::kOk ? 0 : Fail("writing", s);
}

// Prints one object (get) or every object with its id (list).
int Show(cs::Store *store, const Args &a, bool one) {
  std::vector<cs::Object *> objs;
  int s = List(store, a, objs);
  bool found = false;
  for (cs::Object *o : objs) {
    char *raw = nullptr;
    cs::GetObjectInstanceId(o, &raw);
    std::string id = Owned(raw);
    cs::ExportObjectJson(o, &raw);
    std::string json = Owned(raw);
    if (!one) {
      printf("%s\t%s\n", id.c_str(), json.c_str());
    } else if (id == a.sel[3]) {
      printf("%s\n", json.c_str());
      found = true;
    }
    cs::DestroyConfigStoreObject(o);
  }
  if (s != cs::kOk) return Fail(one ? "get" : "list", s);
  if (one && !found) return Fail("get", cs::kNotFound);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"Reads and writes objects of the host configuration store."};
  Args a;
  app.add_option(
      "--db", a.db,
      "database file (default: $ZEL_CONFIGSTORE_PATH or " + std::string(cs::kDefaultPath) + ")");
  app.add_flag("--desired", a.desired, "use the desired (user-configured) layer");
  app.require_subcommand(1);
  std::string sel1, sel2, sel3, id;
  auto addSelectors = [&](CLI::App *cmd, bool withId) {
    cmd->add_option("sel1", sel1, "first selector")->required();
    cmd->add_option("sel2", sel2, "second selector")->required();
    cmd->add_option("sel3", sel3, "third selector")->required();
    if (withId) cmd->add_option("id", id, "instance id")->required();
  };
  auto *put = app.add_subcommand("put", "write an object from JSON content");
  addSelectors(put, true);
  put->add_option("json", a.json, "content, or - for standard input");
  auto *get = app.add_subcommand("get", "print an object's content");
  addSelectors(get, true);
  auto *list = app.add_subcommand("list", "print every object under three selectors");
  addSelectors(list, false);
  auto *del = app.add_subcommand("delete", "delete an object");
  addSelectors(del, true);
  CLI11_PARSE(app, argc, argv);
  a.sel = {sel1, sel2, sel3, id};

  if (!a.db.empty()) setenv(cs::kPathEnv, a.db.c_str(), 1);
  cs::Store *store = nullptr;
  int s = cs::GetStore(0, &store);
  if (s != cs::kOk) return Fail("opening the store", s);
  int rc = 0;
  if (*put) {
    rc = Put(store, a);
  } else if (*get) {
    rc = Show(store, a, true);
  } else if (*list) {
    rc = Show(store, a, false);
  } else {
    s = a.desired ? cs::DeleteDesired(store, a.sel[0].c_str(), a.sel[1].c_str(), a.sel[2].c_str(),
                                      a.sel[3].c_str())
                  : cs::Delete(store, a.sel[0].c_str(), a.sel[1].c_str(), a.sel[2].c_str(),
                               a.sel[3].c_str());
    rc = s == cs::kOk ? 0 : Fail("delete", s);
  }
  cs::DestroyStore(store);
  return rc;
}
