// zelctl diff: two states compared switch by switch, port by port and
// property by property, by decoded value as show prints it.  When one side
// is the configuration store, what the store cannot carry is left out: the
// type words (every loaded property gets 16) and properties whose type has
// neither persisted bit (never saved).
#include <algorithm>
#include <cstdio>
#include <map>

#include "tools/zelctl/zelctl.h"

namespace zelctl {

namespace {

constexpr uint32_t kPersistTypeBits = 0x18;

struct Difference {
  std::string switchId, port, list, name;  // list: "global", "host", "port" or ""
  Json a, b;                               // null: absent on that side
};

class Differ {
 public:
  explicit Differ(bool storeSide) : storeSide_(storeSide) {}
  std::vector<Difference> out;
  std::vector<std::string> leftOut;  // properties set aside, as "switch list name"

  void States(const State &a, const State &b) {
    Pair(
        a.switches, b.switches, [](const Switch &s) { return s.id; },
        [&](const Switch *x, const Switch *y) {
          if (x == nullptr || y == nullptr) {
            out.push_back(
                {(x ? x : y)->id, "", "", "", x ? Json(true) : Json(), y ? Json(true) : Json()});
          } else {
            Switches(*x, *y);
          }
        });
  }

 private:
  bool storeSide_;

  // Items matched by key, in order; items of the same key pair in order.
  template <class T, class Key, class Fn>
  void Pair(const std::vector<T> &a, const std::vector<T> &b, Key key, Fn fn) {
    std::map<std::string, std::vector<const T *>> right;
    for (const T &y : b) right[key(y)].push_back(&y);
    std::map<std::string, size_t> used, seen;
    for (const T &x : a) {
      const std::vector<const T *> &ys = right[key(x)];
      size_t &i = used[key(x)];
      fn(&x, i < ys.size() ? ys[i] : nullptr);
      ++i;
    }
    for (const T &y : b) {
      if (seen[key(y)]++ >= used[key(y)]) fn(nullptr, &y);
    }
  }

  void Field(const Switch &x, const char *name, const Json &a, const Json &b) {
    if (a != b) out.push_back({x.id, "", "", name, a, b});
  }

  void Switches(const Switch &x, const Switch &y) {
    Field(x, "class", x.className, y.className);
    Field(x, "version", x.version, y.version);
    Field(x, "maxPorts", x.maxPorts, y.maxPorts);
    Props(x.id, "", "global", x.global, y.global);
    Props(x.id, "", "host", x.host, y.host);
    Pair(
        x.ports, y.ports, [](const Port &p) { return p.id; },
        [&](const Port *p, const Port *q) {
          if (p == nullptr || q == nullptr) {
            out.push_back(
                {x.id, (p ? p : q)->id, "", "", p ? Json(true) : Json(), q ? Json(true) : Json()});
          } else {
            Props(x.id, p->id, "port", p->props, q->props);
          }
        });
  }

  // What is compared of a property.
  Json Compared(const Prop &p) const {
    Json j = PropJson(p);
    j.erase("length");  // a text's length depends on its padding
    if (storeSide_) j.erase("type");
    return j;
  }

  std::vector<Prop> Carried(const std::string &sw, const std::string &list,
                            const std::vector<Prop> &props) {
    std::vector<Prop> out;
    for (const Prop &p : props) {
      if (!storeSide_ || (p.type & kPersistTypeBits) != 0) {
        out.push_back(p);
      } else {
        leftOut.push_back(sw + " " + list + " " + p.name);
      }
    }
    return out;
  }

  void Props(const std::string &sw, const std::string &port, const std::string &list,
             const std::vector<Prop> &a, const std::vector<Prop> &b) {
    const std::string where = port.empty() ? list : "port " + port;
    Pair(
        Carried(sw, where, a), Carried(sw, where, b), [](const Prop &p) { return p.name; },
        [&](const Prop *p, const Prop *q) {
          if (p == nullptr || q == nullptr || Compared(*p) != Compared(*q)) {
            out.push_back({sw, port, list, (p ? p : q)->name, p ? PropJson(*p) : Json(),
                           q ? PropJson(*q) : Json()});
          }
        });
  }
};

std::string Where(const Difference &d) {
  std::string w = "switch " + d.switchId;
  if (!d.port.empty()) w += " port " + d.port;
  if (d.list == "global" || d.list == "host") w += " " + d.list;
  return w;
}

// The lines of a value one side has and the other has not.
std::vector<std::string> Only(const Json &mine, const Json &theirs) {
  auto lines = [](const Json &j) {
    Prop p;
    p.value = j["value"];
    p.hex = j["hex"].is_string() ? j["hex"].get<std::string>() : "";
    p.length = j["length"];
    std::vector<std::string> v = ValueLines(p, false);
    v.push_back("type " + j["type"].dump());
    return v;
  };
  std::vector<std::string> a = lines(mine), b = lines(theirs), out;
  for (const std::string &l : a) {
    if (std::find(b.begin(), b.end(), l) == b.end()) out.push_back(l);
  }
  return out;
}

void PrintText(const std::vector<Difference> &diffs) {
  for (const Difference &d : diffs) {
    const char *side = d.a.is_null() ? "B" : "A";
    if (d.list.empty() && d.name.empty()) {
      std::printf("only in %s: switch %s%s\n", side, d.switchId.c_str(),
                  d.port.empty() ? "" : (" port " + d.port).c_str());
    } else if (d.list.empty()) {
      std::printf("%s: %s %s in A, %s in B\n", Where(d).c_str(), d.name.c_str(), d.a.dump().c_str(),
                  d.b.dump().c_str());
    } else if (d.a.is_null() || d.b.is_null()) {
      std::printf("%s: only in %s: %s\n", Where(d).c_str(), side, d.name.c_str());
    } else {
      std::printf("%s: %s differs\n", Where(d).c_str(), d.name.c_str());
      for (const std::string &l : Only(d.a, d.b)) std::printf("  A: %s\n", l.c_str());
      for (const std::string &l : Only(d.b, d.a)) std::printf("  B: %s\n", l.c_str());
    }
  }
}

Json DiffJson(const State &a, const State &b, const Differ &d) {
  Json list = Json::array();
  for (const Difference &x : d.out) {
    auto orNull = [](const std::string &s) { return s.empty() ? Json() : Json(s); };
    list.push_back(Json{{"switch", x.switchId},
                        {"port", orNull(x.port)},
                        {"list", orNull(x.list)},
                        {"name", orNull(x.name)},
                        {"a", x.a},
                        {"b", x.b}});
  }
  return Json{{"a", a.source.name},
              {"b", b.source.name},
              {"equal", d.out.empty()},
              {"leftOut", d.leftOut},
              {"differences", list}};
}

int Diff(const std::string &nameA, const std::string &nameB, bool json) {
  const State a = LoadState(nameA), b = LoadState(nameB);
  auto isStore = [](const State &s) {
    return s.source.kind == Source::kStore || s.source.kind == Source::kDesired;
  };
  Differ d(isStore(a) || isStore(b));
  d.States(a, b);
  if (json) {
    PrintJson(DiffJson(a, b, d));
  } else if (d.out.empty()) {
    std::printf("equal\n");
  } else {
    std::printf("A = %s\nB = %s\n", nameA.c_str(), nameB.c_str());
    PrintText(d.out);
    std::printf("%zu difference%s\n", d.out.size(), d.out.size() == 1 ? "" : "s");
  }
  if (!json && !d.leftOut.empty()) {
    std::printf("left out (the store keeps no property of this type): %zu\n", d.leftOut.size());
    for (const std::string &p : d.leftOut) std::printf("  %s\n", p.c_str());
  }
  return d.out.empty() ? kExitOk : kExitNo;
}

}  // namespace

void AddDiff(CLI::App &app) {
  auto names = std::make_shared<std::vector<std::string>>();
  auto json = std::make_shared<bool>(false);
  auto *cmd = app.add_subcommand(
      "diff",
      "compare two sources switch by switch, port by port and property by property, by "
      "decoded value; exit 0 when equal, 1 when not");
  cmd->add_option("A B", *names, "the two sources (file:, blob:, store[:], desired[:], kernel)")
      ->required()
      ->expected(2);
  cmd->add_flag("--json", *json, "one JSON document (schema in the README)");
  cmd->callback([=] { g_exit = Diff((*names)[0], (*names)[1], *json); });
}

}  // namespace zelctl
