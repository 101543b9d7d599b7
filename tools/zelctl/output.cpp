// How zelctl prints states: text for people, one JSON document (schema in
// the README) for scripts.  Both come from the same decoded model.
#include <cstdio>

#include "host/status_text.h"
#include "tools/zelctl/zelctl.h"

namespace zelctl {

namespace {

constexpr size_t kHexShown = 32;  // bytes of a long value shown in text

// A decoded object as "path = value" lines: sub-objects extend the path,
// instances of a list are named by their key.
void Flatten(const Json &v, const std::string &path, std::vector<std::string> *out) {
  auto join = [&](const std::string &k) { return path.empty() ? k : path + "/" + k; };
  if (v.is_object() && !v.empty()) {
    for (const auto &[k, x] : v.items()) Flatten(x, join(k), out);
    return;
  }
  const bool instances = v.is_array() && !v.empty() && v[0].is_object();
  if (!instances) {
    out->push_back(path + " = " + v.dump());
    return;
  }
  for (size_t i = 0; i < v.size(); ++i) {
    Json item = v[i];
    const std::string key = item.contains("key") ? item["key"].dump() : std::to_string(i);
    item.erase("key");
    Flatten(item, path + "[" + key + "]", out);
  }
}

std::string CutHex(const std::string &hex, uint32_t length) {
  if (hex.size() <= 2 * kHexShown) return hex;
  return hex.substr(0, 2 * kHexShown) + "... (" + std::to_string(length) + " bytes)";
}

Json PropsJson(const std::vector<Prop> &props) {
  Json out = Json::array();
  for (const Prop &p : props) out.push_back(PropJson(p));
  return out;
}

void PrintProps(const char *title, const std::vector<Prop> &props) {
  std::printf("  %s (%zu)\n", title, props.size());
  for (const Prop &p : props) {
    std::printf("    %s: type %u, %u byte%s%s\n", p.name.c_str(), p.type, p.length,
                p.length == 1 ? "" : "s", p.kind < 0 ? ", no row of its own" : "");
    if (!p.error.empty()) std::printf("      %s\n", p.error.c_str());
    for (const std::string &line : ValueLines(p, true)) std::printf("      %s\n", line.c_str());
  }
}

}  // namespace

std::vector<std::string> ValueLines(const Prop &p, bool cutHex) {
  if (p.value.is_null()) return {"hex " + (cutHex ? CutHex(p.hex, p.length) : p.hex)};
  std::vector<std::string> out;
  Flatten(p.value, "", &out);
  return out;
}

Json PropJson(const Prop &p) {
  auto orNull = [](const std::string &s) { return s.empty() ? Json() : Json(s); };
  return Json{{"name", p.name},
              {"type", p.type},
              {"length", p.length},
              {"kind", p.kind < 0 ? Json() : Json(p.kind)},
              {"path", orNull(p.path)},
              {"value", p.value},
              {"hex", p.value.is_null() ? Json(p.hex) : Json()},
              {"error", orNull(p.error)}};
}

static Json SwitchJson(const Switch &sw, const std::string &portFilter) {
  Json ports = Json::array();
  for (const Port &port : sw.ports) {
    if (portFilter.empty() || port.id == portFilter) {
      ports.push_back(Json{{"id", port.id}, {"properties", PropsJson(port.props)}});
    }
  }
  return Json{{"id", sw.id},
              {"class", sw.className},
              {"version", sw.version},
              {"release", sw.release},
              {"maxPorts", sw.maxPorts},
              {"alias", sw.alias.empty() ? Json() : Json(sw.alias)},
              {"global", PropsJson(sw.global)},
              {"host", PropsJson(sw.host)},
              {"ports", ports}};
}

static void PrintSwitch(const Switch &sw, const std::string &portFilter) {
  std::printf("switch %s\n", sw.id.c_str());
  std::printf("  class %s, version %u (%s), maxPorts %u, alias %s\n", sw.className.c_str(),
              sw.version, sw.release.c_str(), sw.maxPorts,
              sw.alias.empty() ? "none" : Json(sw.alias).dump().c_str());
  if (portFilter.empty()) {
    PrintProps("global properties", sw.global);
    PrintProps("host properties", sw.host);
  }
  for (const Port &port : sw.ports) {
    if (!portFilter.empty() && port.id != portFilter) continue;
    PrintProps(("port " + port.id).c_str(), port.props);
  }
}

void PrintJson(const Json &doc) { std::printf("%s\n", doc.dump(2).c_str()); }

std::string StatusText(uint32_t status) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08x", status);
  return std::string(zel::host::PYX_ReturnStatusToString(status)) + " (" + code + ")";
}

std::string StoreStatusText(uint32_t status) {
  static const char *const kTexts[] = {"ok",
                                       "internal failure",
                                       "bad argument",
                                       "type mismatch",
                                       "out of range",
                                       "no memory",
                                       "not found",
                                       "storage error",
                                       "busy",
                                       "corrupt stored content",
                                       "transaction state",
                                       "instance-id conflict"};
  if (status == 0xFFFFFFFFu) return "refused by the library (-1)";
  if (status < std::size(kTexts)) {
    return std::string(kTexts[status]) + " (configuration-store status " + std::to_string(status) +
           ")";
  }
  return StatusText(status);
}

int Show(const State &state, const std::string &switchId, const std::string &portId, bool json) {
  Json doc{{"source", state.source.name}, {"switches", Json::array()}};
  bool found = switchId.empty();
  for (const Switch &sw : state.switches) {
    if (!switchId.empty() && sw.id != switchId) continue;
    found = true;
    if (json) {
      doc["switches"].push_back(SwitchJson(sw, portId));
    } else {
      PrintSwitch(sw, portId);
    }
  }
  if (json) PrintJson(doc);
  if (!found) {
    std::fprintf(stderr, "zelctl: %s: no switch \"%s\"\n", state.source.name.c_str(),
                 switchId.c_str());
    return kExitNo;
  }
  return kExitOk;
}

void AddShowOptions(CLI::App *cmd, ShowOptions &o, bool withSource) {
  if (withSource) {
    cmd->add_option("SOURCE", o.source,
                    "file:PATH, blob:PATH, store[:DBPATH], desired[:DBPATH] or kernel")
        ->required();
  }
  cmd->add_option("--switch", o.switchId, "only the switch with this id");
  cmd->add_option("--port", o.portId, "only the port with this id (and no switch properties)");
  cmd->add_flag("--json", o.json, "one JSON document (schema in the README)");
}

void AddShow(CLI::App &app) {
  auto o = std::make_shared<ShowOptions>();
  auto *cmd =
      app.add_subcommand("show",
                         "every switch of a source with class, version, maxPorts, alias, and every "
                         "global, host and port property decoded through its mapping row");
  AddShowOptions(cmd, *o, true);
  cmd->callback([o] { g_exit = Show(LoadState(o->source), o->switchId, o->portId, o->json); });
}

}  // namespace zelctl
