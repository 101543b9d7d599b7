// The JSON form of configuration-store objects, and base64 for binary values.
#include <limits>
#include <nlohmann/json.hpp>

#include "host/configstore_internal.h"

namespace zel::cfgstore {

using nlohmann::json;

namespace {

constexpr const char *kTypesKey = "@types";

const char *IntegerTag(Kind k) {
  switch (k) {
    case Kind::kInt32: return "int32";
    case Kind::kUint32: return "uint32";
    case Kind::kUint16: return "uint16";
    default: return "int64";
  }
}

json ToJson(const Object &node) {
  json out = json::object();
  json types = json::object();
  for (const auto &[key, m] : node.members) {
    switch (m.kind) {
      case Kind::kString: out[key] = m.text; break;
      case Kind::kInt32:
      case Kind::kUint32:
      case Kind::kUint16:
      case Kind::kInt64:
        out[key] = m.number;
        types[key] = IntegerTag(m.kind);
        break;
      case Kind::kBool: out[key] = m.number != 0; break;
      case Kind::kBinary:
        out[key] = Base64Encode(m.text);
        types[key] = "binary";
        break;
      case Kind::kEmptyList: out[key] = json::array(); break;
      case Kind::kStringList: out[key] = m.strings; break;
      case Kind::kIntList: out[key] = m.ints; break;
      case Kind::kSubObject: out[key] = ToJson(*m.child); break;
      case Kind::kSubObjectList: {
        json arr = json::array();
        for (const auto &item : m.items) arr.push_back(ToJson(*item));
        out[key] = std::move(arr);
        break;
      }
    }
  }
  if (!types.empty()) out[kTypesKey] = std::move(types);
  return out;
}

bool FitsInt64(const json &v, int64_t &out) {
  if (v.is_number_integer() && !v.is_number_unsigned()) {
    out = v.get<int64_t>();
    return true;
  }
  if (v.is_number_unsigned()) {
    uint64_t u = v.get<uint64_t>();
    if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
    out = static_cast<int64_t>(u);
    return true;
  }
  return false;
}

class Parser {
 public:
  // Fills `node` from the JSON object `j`; kCorrupt when anything is off.
  int Fill(const json &j, Object &node) {
    if (!j.is_object() || node.depth > kMaxDepth) return kCorrupt;
    const json *types = nullptr;
    if (auto it = j.find(kTypesKey); it != j.end()) {
      if (!it->is_object()) return kCorrupt;
      for (const auto &t : *it)
        if (!t.is_string()) return kCorrupt;
      types = &*it;
    }
    for (auto it = j.begin(); it != j.end(); ++it) {
      const std::string &key = it.key();
      if (key == kTypesKey) continue;
      if (key.empty()) return kCorrupt;
      std::string tag;
      if (types != nullptr) {
        if (auto t = types->find(key); t != types->end()) tag = t->get<std::string>();
      }
      Member m;
      if (int s = Value(*it, tag, node, m); s != kOk) return s;
      auto [pos, inserted] = node.members.emplace(key, std::move(m));
      if (!inserted) return kCorrupt;
      for (auto &item : pos->second.items) item->list = &pos->second;
    }
    return kOk;
  }

 private:
  std::unique_ptr<Object> Child(Object &parent) {
    auto child = std::make_unique<Object>();
    child->parent = &parent;
    child->root = parent.root;
    child->depth = parent.depth + 1;
    return child;
  }

  int Value(const json &v, const std::string &tag, Object &node, Member &m) {
    switch (v.type()) {
      case json::value_t::string:
        if (tag == "binary") {
          m.kind = Kind::kBinary;
          return Base64Decode(v.get_ref<const std::string &>(), m.text) ? kOk : kCorrupt;
        }
        if (!tag.empty() && tag != "string") return kCorrupt;
        m.kind = Kind::kString;
        m.text = v.get<std::string>();
        return kOk;
      case json::value_t::boolean:
        if (!tag.empty() && tag != "bool") return kCorrupt;
        m.kind = Kind::kBool;
        m.number = v.get<bool>() ? 1 : 0;
        return kOk;
      case json::value_t::number_integer:
      case json::value_t::number_unsigned: return Integer(v, tag, m);
      case json::value_t::object: {
        if (!tag.empty()) return kCorrupt;
        m.kind = Kind::kSubObject;
        m.child = Child(node);
        return Fill(v, *m.child);
      }
      case json::value_t::array: return Array(v, tag, node, m);
      default: return kCorrupt;  // null, float, binary
    }
  }

  static int Integer(const json &v, const std::string &tag, Member &m) {
    int64_t n = 0;
    if (!FitsInt64(v, n)) return kCorrupt;
    int64_t lo = std::numeric_limits<int64_t>::min();
    int64_t hi = std::numeric_limits<int64_t>::max();
    if (tag.empty() || tag == "int64") {
      m.kind = Kind::kInt64;
    } else if (tag == "int32") {
      m.kind = Kind::kInt32;
      lo = std::numeric_limits<int32_t>::min();
      hi = std::numeric_limits<int32_t>::max();
    } else if (tag == "uint32") {
      m.kind = Kind::kUint32;
      lo = 0;
      hi = std::numeric_limits<uint32_t>::max();
    } else if (tag == "uint16") {
      m.kind = Kind::kUint16;
      lo = 0;
      hi = std::numeric_limits<uint16_t>::max();
    } else {
      return kCorrupt;
    }
    if (n < lo || n > hi) return kCorrupt;
    m.number = n;
    return kOk;
  }

  int Array(const json &v, const std::string &tag, Object &node, Member &m) {
    if (v.empty()) {
      if (!tag.empty() && tag != "list" && tag != "string_list" && tag != "int_list")
        return kCorrupt;
      m.kind = Kind::kEmptyList;
      return kOk;
    }
    const json &first = v.front();
    if (first.is_string()) {
      if (!tag.empty() && tag != "list" && tag != "string_list") return kCorrupt;
      m.kind = Kind::kStringList;
      for (const auto &e : v) {
        if (!e.is_string()) return kCorrupt;
        m.strings.push_back(e.get<std::string>());
      }
      return kOk;
    }
    if (first.is_number_integer()) {
      if (!tag.empty() && tag != "list" && tag != "int_list") return kCorrupt;
      m.kind = Kind::kIntList;
      for (const auto &e : v) {
        int64_t n = 0;
        if (!FitsInt64(e, n)) return kCorrupt;
        m.ints.push_back(n);
      }
      return kOk;
    }
    if (!first.is_object() || !tag.empty()) return kCorrupt;
    // A list of instances: every element is an object with a unique "key".
    m.kind = Kind::kSubObjectList;
    for (const auto &e : v) {
      if (!e.is_object()) return kCorrupt;
      auto item = Child(node);
      if (int s = Fill(e, *item); s != kOk) return s;
      auto key = item->members.find("key");
      if (key == item->members.end() || key->second.kind != Kind::kString ||
          key->second.text.empty())
        return kCorrupt;
      if (!m.index.emplace(key->second.text, item.get()).second) return kCorrupt;
      m.items.push_back(std::move(item));
    }
    return kOk;
  }
};

}  // namespace

std::unique_ptr<Object> NewRoot(std::string sel1, std::string sel2, std::string sel3,
                                std::string instanceId) {
  auto root = std::make_unique<Object>();
  root->root = root.get();
  root->top = std::make_unique<TopLevel>();
  root->top->sel1 = std::move(sel1);
  root->top->sel2 = std::move(sel2);
  root->top->sel3 = std::move(sel3);
  root->top->instanceId = std::move(instanceId);
  return root;
}

bool Alive(const Object *node) {
  while (node->parent != nullptr) node = node->parent;
  return node->top != nullptr;
}

int ParseContent(std::string_view text, Object &node) {
  json j = json::parse(text.begin(), text.end(), nullptr, false);
  if (j.is_discarded()) return kCorrupt;
  Object scratch;
  scratch.root = node.root;
  scratch.depth = node.depth;
  Parser parser;
  if (int s = parser.Fill(j, scratch); s != kOk) return s;
  // Re-home the parsed members: their children point at the scratch node.
  node.members = std::move(scratch.members);
  for (auto &[key, m] : node.members) {
    if (m.child) m.child->parent = &node;
    for (auto &item : m.items) item->parent = &node;
  }
  return kOk;
}

std::string SerializeContent(const Object &node) { return ToJson(node).dump(); }

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}
}  // namespace

std::string Base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = (uint32_t(uint8_t(bytes[i])) << 16) | (uint32_t(uint8_t(bytes[i + 1])) << 8) |
                 uint8_t(bytes[i + 2]);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
    if (rest == 2) v |= uint32_t(uint8_t(bytes[i + 1])) << 8;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

bool Base64Decode(std::string_view text, std::string &bytes) {
  if (text.size() % 4 != 0) return false;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    bool last = i + 4 == text.size();
    int pad = 0;
    if (last && text[i + 3] == '=') pad = text[i + 2] == '=' ? 2 : 1;
    uint32_t v = 0;
    for (size_t k = 0; k < 4; ++k) {
      int s = k < 4 - size_t(pad) ? Sextet(text[i + k]) : 0;
      if (s < 0) return false;
      v = (v << 6) | uint32_t(s);
    }
    out += char((v >> 16) & 0xFF);
    if (pad < 2) out += char((v >> 8) & 0xFF);
    if (pad < 1) out += char(v & 0xFF);
  }
  bytes = std::move(out);
  return true;
}

}  // namespace zel::cfgstore
