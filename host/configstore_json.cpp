// The JSON form of configuration-store objects, and base64 for binary values.
//
// Reading parses the text with simdjson and feeds its elements, in document
// order, as events to a builder that makes the object tree; writing emits the
// text directly.  Both keep "@types" as
// the record of the types that JSON cannot show (see configstore_client.h).
// Text that is not valid UTF-8 cannot be a JSON string: such a string value
// (or list of strings) is written as base64 and tagged "string_base64"
// ("string_list_base64"), so any bytes come back exactly.
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <simdjson.h>
#include <utility>

#include "host/configstore_internal.h"

namespace zel::cfgstore {

namespace {

// ---------------------------------------------------------------- writing

// The text being written, in a buffer from malloc.  Room(n) makes sure of n
// bytes ahead, so that the writes after it are plain stores with no check
// per byte; the buffer grows by doubling, with realloc, which moves a large
// buffer's pages rather than copying them.
class Writer {
 public:
  Writer() = default;
  Writer(const Writer &) = delete;
  Writer &operator=(const Writer &) = delete;
  ~Writer() { free(data_); }

  // The text, NUL-terminated.
  JsonText Finish() {
    *Room(1) = '\0';
    return JsonText(std::exchange(data_, nullptr), size_);
  }

  char *Room(size_t n) {
    if (capacity_ - size_ < n) Grow(n);
    return data_ + size_;
  }
  void Advance(size_t n) { size_ += n; }
  void Put(char c) {
    *Room(1) = c;
    ++size_;
  }
  void Put(std::string_view s) {
    std::memcpy(Room(s.size()), s.data(), s.size());
    size_ += s.size();
  }

 private:
  void Grow(size_t n) {
    const size_t capacity = std::max({size_t{4096}, 2 * capacity_, size_ + n});
    auto *data = static_cast<char *>(realloc(data_, capacity));
    if (data == nullptr) throw std::bad_alloc();
    data_ = data;
    capacity_ = capacity;
  }

  char *data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

// Whether a byte must be written as an escape inside a JSON string.
bool NeedsEscape(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }

// Whether one of the eight bytes of `w` needs an escape (bit tricks that
// find a byte below 0x20 and a byte equal to '"' or '\\' without a branch).
bool AnyNeedsEscape(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ull;
  constexpr uint64_t kHigh = 0x8080808080808080ull;
  const auto below = [&](uint64_t x, uint64_t n) { return (x - kOnes * n) & ~x & kHigh; };
  return (below(w, 0x20) | below(w ^ (kOnes * '"'), 1) | below(w ^ (kOnes * '\\'), 1)) != 0;
}

// Whether no byte of `s` needs an escape.  The last bytes are checked as one
// word too, so that a short string (as keys are) takes no loop over its
// bytes.
bool Plain(std::string_view s) {
  size_t i = 0;
  for (uint64_t word; i + 8 <= s.size(); i += 8) {
    std::memcpy(&word, s.data() + i, sizeof word);
    if (AnyNeedsEscape(word)) return false;
  }
  return !AnyNeedsEscape(TailWord(s, i, 0x6161616161616161ull));  // pad "aaaaaaaa"
}

// A string with escapes: byte by byte (rare in stored content).
void WriteEscaped(Writer &out, std::string_view s) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.Put('"');
  size_t run = 0;  // start of the bytes not yet written
  for (size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (!NeedsEscape(c)) continue;
    out.Put(s.substr(run, i - run));
    run = i + 1;
    switch (c) {
      case '"': out.Put("\\\""); break;
      case '\\': out.Put("\\\\"); break;
      case '\b': out.Put("\\b"); break;
      case '\f': out.Put("\\f"); break;
      case '\n': out.Put("\\n"); break;
      case '\r': out.Put("\\r"); break;
      case '\t': out.Put("\\t"); break;
      default: {
        const char escape[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
        out.Put(std::string_view(escape, sizeof escape));
      }
    }
  }
  out.Put(s.substr(run));
  out.Put('"');
}

void WriteString(Writer &out, std::string_view s) {
  if (!Plain(s)) return WriteEscaped(out, s);
  char *p = out.Room(s.size() + 2);
  p[0] = '"';
  std::memcpy(p + 1, s.data(), s.size());
  p[s.size() + 1] = '"';
  out.Advance(s.size() + 2);
}

void WriteNumber(Writer &out, int64_t n) {
  constexpr size_t kMost = 20;  // "-9223372036854775808"
  char *p = out.Room(kMost);
  out.Advance(static_cast<size_t>(std::to_chars(p, p + kMost, n).ptr - p));
}

// The "@types" tag of a member, or null when it needs none.
const char *Tag(const Member &m) {
  switch (m.kind) {
    case Kind::kInt32: return "int32";
    case Kind::kUint32: return "uint32";
    case Kind::kUint16: return "uint16";
    case Kind::kInt64: return "int64";
    case Kind::kBinary: return "binary";
    case Kind::kString: return ValidUtf8(m.text) ? nullptr : "string_base64";
    case Kind::kStringList:
      for (const auto &s : m.L().strings)
        if (!ValidUtf8(s)) return "string_list_base64";
      return nullptr;
    default: return nullptr;
  }
}

bool TextKind(Kind k) { return k == Kind::kString || k == Kind::kStringList; }

// What WriteTypes wrote.
struct Types {
  bool any = false;   // "@types" was written
  bool text = false;  // a text member is tagged as base64
};

// Writes "@types" when any member needs a tag.  When no text member is
// tagged as base64, every text of the node is valid UTF-8 and is written
// without a second check.
Types WriteTypes(Writer &out, const Object &node) {
  bool anyTag = false;
  bool anyText = false;
  for (const auto &[key, m] : node.members) {
    const char *tag = Tag(m);
    if (tag == nullptr) continue;
    if (!anyTag) {
      WriteString(out, kTypesKey);
      out.Put(":{");
      anyTag = true;
    } else {
      out.Put(',');
    }
    WriteString(out, key);
    out.Put(':');
    WriteString(out, tag);
    anyText = anyText || TextKind(m.kind);
  }
  if (anyTag) out.Put('}');
  return Types{anyTag, anyText};
}

void WriteObject(Writer &out, const Object &node);

void WriteValue(Writer &out, const Member &m, bool checkText) {
  switch (m.kind) {
    case Kind::kString:
      // A branch each, so that plain text is not copied on its way out.
      if (!checkText || ValidUtf8(m.text)) {
        WriteString(out, m.text);
      } else {
        WriteString(out, Base64Encode(m.text));
      }
      break;
    case Kind::kInt32:
    case Kind::kUint32:
    case Kind::kUint16:
    case Kind::kInt64: WriteNumber(out, m.number); break;
    case Kind::kBool: out.Put(m.number != 0 ? std::string_view("true") : "false"); break;
    case Kind::kBinary: WriteString(out, Base64Encode(m.text)); break;
    case Kind::kEmptyList: out.Put("[]"); break;
    case Kind::kStringList: {
      bool plain = !checkText || Tag(m) == nullptr;
      out.Put('[');
      for (size_t i = 0; i < m.L().strings.size(); ++i) {
        if (i > 0) out.Put(',');
        if (plain) {
          WriteString(out, m.L().strings[i]);
        } else {
          WriteString(out, Base64Encode(m.L().strings[i]));
        }
      }
      out.Put(']');
      break;
    }
    case Kind::kIntList:
      out.Put('[');
      for (size_t i = 0; i < m.L().ints.size(); ++i) {
        if (i > 0) out.Put(',');
        WriteNumber(out, m.L().ints[i]);
      }
      out.Put(']');
      break;
    case Kind::kSubObject: WriteObject(out, *m.child); break;
    case Kind::kSubObjectList:
      out.Put('[');
      for (size_t i = 0; i < m.L().items.size(); ++i) {
        if (i > 0) out.Put(',');
        WriteObject(out, *m.L().items[i]);
      }
      out.Put(']');
      break;
  }
}

void WriteObject(Writer &out, const Object &node) {
  out.Put('{');
  const Types types = WriteTypes(out, node);
  bool first = !types.any;
  for (const auto &[key, m] : node.members) {
    if (!first) out.Put(',');
    first = false;
    WriteString(out, key);
    out.Put(':');
    WriteValue(out, m, types.text);
  }
  out.Put('}');
}

// ---------------------------------------------------------------- reading

// Builds the tree from parser events.  Values arrive with their JSON kind
// (integers as int64); an object's "@types" is applied when the object ends.
// Any event that cannot belong to a valid object stops the parse.  Keys and
// strings arrive as views into the parsed document, which outlives the
// builder; they are copied once, into the tree's arena.
class Builder {
 public:
  explicit Builder(Object &root) : root_(root) {}

  bool boolean(bool v) {
    Member *m = NewValue();
    if (m == nullptr) return false;
    m->kind = Kind::kBool;
    m->number = v ? 1 : 0;
    return true;
  }
  bool number_integer(int64_t v) { return Integer(v); }
  bool number_unsigned(uint64_t v) {
    if (v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
    return Integer(static_cast<int64_t>(v));
  }

  bool string(std::string_view v) {
    if (frames_.empty()) return false;
    Frame &f = frames_.back();
    if (f.inTypes) {
      tags_.emplace_back(pendingKey_, v);
      pendingKey_ = {};
      return true;
    }
    if (f.array != nullptr) {
      if (f.array->kind != Kind::kEmptyList && f.array->kind != Kind::kStringList) return false;
      f.array->kind = Kind::kStringList;
      f.array->L().strings.emplace_back(v);
      return true;
    }
    Member *m = NewValue();
    if (m == nullptr) return false;
    m->kind = Kind::kString;
    m->text = v;
    return true;
  }

  bool key(std::string_view k) {
    if (k.empty()) return false;
    pendingKey_ = k;
    return true;
  }

  bool start_object() {
    if (frames_.empty()) {
      frames_.push_back(Frame{&root_, nullptr, nullptr, false, false, tags_.size()});
      return true;
    }
    Frame &f = frames_.back();
    if (f.inTypes) return false;
    if (f.array == nullptr && pendingKey_ == kTypesKey) {
      if (f.sawTypes) return false;
      f.sawTypes = true;
      f.inTypes = true;
      return true;
    }
    Object *parent = f.array != nullptr ? f.owner : f.node;
    if (parent->depth >= kMaxDepth) return false;
    Object *child = NewChild(parent);
    if (f.array != nullptr) {
      Member &list = *f.array;
      if (list.kind != Kind::kEmptyList && list.kind != Kind::kSubObjectList) return false;
      list.kind = Kind::kSubObjectList;
      child->list = &list;
      list.L().items.push_back(child);
    } else {
      Member *m = NewValue();
      if (m == nullptr) return false;
      m->kind = Kind::kSubObject;
      m->child = child;
    }
    frames_.push_back(Frame{child, nullptr, nullptr, false, false, tags_.size()});
    return true;
  }

  bool end_object() {
    Frame &f = frames_.back();
    if (f.inTypes) {
      f.inTypes = false;
      return true;
    }
    if (!ApplyTags(f)) return false;
    Object *node = f.node;
    tags_.resize(f.tagsFrom);
    frames_.pop_back();
    if (node->list == nullptr) return true;
    // A list instance: its "key" is its unique instance id.
    auto key = node->members.find(std::string_view("key"));
    if (key == node->members.end() || key->second.kind != Kind::kString || key->second.text.empty())
      return false;
    return node->list->L().index.emplace(key->second.text, node).second;
  }

  bool start_array() {
    if (frames_.empty() || frames_.back().inTypes || frames_.back().array != nullptr) return false;
    Member *m = NewValue();
    if (m == nullptr) return false;
    m->kind = Kind::kEmptyList;
    Frame frame{};
    frame.owner = frames_.back().node;
    frame.array = m;
    frames_.push_back(std::move(frame));
    return true;
  }

  bool end_array() {
    frames_.pop_back();
    return true;
  }

 private:
  struct Frame {
    Object *node = nullptr;   // object frames: the node being filled
    Object *owner = nullptr;  // array frames: the node holding the array
    Member *array = nullptr;  // array frames: the member being filled
    bool inTypes = false;     // inside this object's "@types"
    bool sawTypes = false;
    size_t tagsFrom = 0;      // object frames: where its tags start in tags_
  };

  // The member for the value that follows a key in an object.
  Member *NewValue() {
    if (frames_.empty()) return nullptr;
    Frame &f = frames_.back();
    if (f.inTypes || f.array != nullptr || pendingKey_ == kTypesKey) return nullptr;
    auto &members = f.node->members;
    // Stored content has its keys in order, so a key normally goes last,
    // with no search; a key out of order is placed by one.
    auto it = members.end();
    if (!members.empty() && !members.key_comp()(std::prev(it)->first, pendingKey_)) {
      it = members.lower_bound(pendingKey_);
      if (it != members.end() && it->first == pendingKey_) return nullptr;  // a repeated key
    }
    // Key and member are made in place in the node's arena.
    it = members.emplace_hint(it, std::piecewise_construct, std::forward_as_tuple(pendingKey_),
                              std::forward_as_tuple());
    pendingKey_ = {};
    return &it->second;
  }

  bool Integer(int64_t v) {
    if (frames_.empty()) return false;
    Frame &f = frames_.back();
    if (f.inTypes) return false;
    if (f.array != nullptr) {
      if (f.array->kind != Kind::kEmptyList && f.array->kind != Kind::kIntList) return false;
      f.array->kind = Kind::kIntList;
      f.array->L().ints.push_back(v);
      return true;
    }
    Member *m = NewValue();
    if (m == nullptr) return false;
    m->kind = Kind::kInt64;
    m->number = v;
    return true;
  }

  bool ApplyTags(const Frame &f) {
    for (size_t i = f.tagsFrom; i < tags_.size(); ++i) {
      const auto &[key, tag] = tags_[i];
      auto it = f.node->members.find(key);
      if (it == f.node->members.end()) continue;  // a tag for nothing: harmless
      if (!ApplyTag(tag, it->second)) return false;
    }
    return true;
  }

  static bool Range(Member &m, Kind kind, int64_t lo, int64_t hi) {
    if (m.kind != Kind::kInt64 || m.number < lo || m.number > hi) return false;
    m.kind = kind;
    return true;
  }

  static bool ApplyTag(std::string_view tag, Member &m) {
    using L = std::numeric_limits<int64_t>;
    if (tag == "int64") return Range(m, Kind::kInt64, L::min(), L::max());
    if (tag == "int32")
      return Range(m, Kind::kInt32, std::numeric_limits<int32_t>::min(),
                   std::numeric_limits<int32_t>::max());
    if (tag == "uint32") return Range(m, Kind::kUint32, 0, std::numeric_limits<uint32_t>::max());
    if (tag == "uint16") return Range(m, Kind::kUint16, 0, std::numeric_limits<uint16_t>::max());
    if (tag == "string") return m.kind == Kind::kString;
    if (tag == "bool") return m.kind == Kind::kBool;
    if (tag == "binary" || tag == "string_base64") {
      if (m.kind != Kind::kString) return false;
      std::string bytes;
      if (!Base64Decode(m.text, bytes)) return false;
      m.text = bytes;
      if (tag == "binary") m.kind = Kind::kBinary;
      return true;
    }
    if (tag == "string_list_base64") {
      if (m.kind != Kind::kStringList) return false;
      for (auto &s : m.L().strings) {
        std::string bytes;
        if (!Base64Decode(s, bytes)) return false;
        s = bytes;
      }
      return true;
    }
    if (tag == "list")
      return m.kind == Kind::kEmptyList || m.kind == Kind::kStringList || m.kind == Kind::kIntList;
    if (tag == "string_list") return m.kind == Kind::kEmptyList || m.kind == Kind::kStringList;
    if (tag == "int_list") return m.kind == Kind::kEmptyList || m.kind == Kind::kIntList;
    return false;
  }

  Object &root_;
  std::vector<Frame> frames_;
  // The "@types" entries (key, type) of the objects open, innermost last:
  // one vector for all of them, so that an object's tags take no
  // allocation of their own.
  std::vector<std::pair<std::string_view, std::string_view>> tags_;
  std::string_view pendingKey_;
};

// Feeds an element and everything in it to the builder, in document order.
// Null and fractional numbers belong to no valid object.
bool Feed(Builder &b, simdjson::dom::element e) {
  using Type = simdjson::dom::element_type;
  switch (e.type()) {
    case Type::OBJECT: {
      if (!b.start_object()) return false;
      const simdjson::dom::object object = e.get_object().value_unsafe();
      for (simdjson::dom::key_value_pair field : object) {
        if (!b.key(field.key) || !Feed(b, field.value)) return false;
      }
      return b.end_object();
    }
    case Type::ARRAY: {
      if (!b.start_array()) return false;
      const simdjson::dom::array array = e.get_array().value_unsafe();
      for (simdjson::dom::element item : array) {
        if (!Feed(b, item)) return false;
      }
      return b.end_array();
    }
    case Type::STRING: return b.string(e.get_string().value_unsafe());
    case Type::INT64: return b.number_integer(e.get_int64().value_unsafe());
    case Type::UINT64: return b.number_unsigned(e.get_uint64().value_unsafe());
    case Type::BOOL: return b.boolean(e.get_bool().value_unsafe());
    case Type::DOUBLE:
    case Type::NULL_VALUE: return false;
  }
  return false;
}

// One parser per thread: it keeps its buffers from one document to the next.
simdjson::dom::parser &Parser() {
  thread_local simdjson::dom::parser parser;
  return parser;
}

}  // namespace

bool ValidUtf8(std::string_view s) {
  size_t i = 0;
  const size_t n = s.size();
  // Plain ASCII, eight bytes at a time: most keys and values are.
  constexpr uint64_t kHighBits = 0x8080808080808080ull;
  for (uint64_t word; i + 8 <= n; i += 8) {
    std::memcpy(&word, s.data() + i, 8);
    if ((word & kHighBits) != 0) break;
  }
  // The last bytes as one word too, so that short ASCII text, as keys are,
  // takes no loop over its bytes.
  if (n - i < 8 && (TailWord(s, i, 0) & kHighBits) == 0) return true;
  while (i < n) {
    auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      if (c == 0xE0) lo = 0xA0;  // no overlong forms
      if (c == 0xED) hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
    } else {
      return false;
    }
    if (n - i < len) return false;
    auto c1 = static_cast<unsigned char>(s[i + 1]);
    if (c1 < lo || c1 > hi) return false;
    for (size_t k = 2; k < len; ++k) {
      auto ck = static_cast<unsigned char>(s[i + k]);
      if (ck < 0x80 || ck > 0xBF) return false;
    }
    i += len;
  }
  return true;
}

RootPtr NewRoot(std::string sel1, std::string sel2, std::string sel3, std::string instanceId) {
  auto top = std::make_unique<TopLevel>();
  top->sel1 = std::move(sel1);
  top->sel2 = std::move(sel2);
  top->sel3 = std::move(sel3);
  top->instanceId = std::move(instanceId);
  Object *root = Arena(&top->arena).new_object<Object>();
  root->root = root;
  root->top = top.release();
  return RootPtr(root);
}

// The root lives in its own arena: releasing the arena ends the whole tree,
// and no node has anything outside it to free.
void RootDelete::operator()(Object *root) const noexcept { delete root->top; }

namespace {

// The thread's spare chunks of the largest size, linked through their
// first word.
constexpr size_t kSpareChunks = 64;

struct SpareChunks {
  void *head = nullptr;
  size_t count = 0;
  ~SpareChunks();
};

thread_local SpareChunks t_spare;
// Set once the thread's spare chunks are gone (a tree destroyed later in the
// thread's exit frees its chunks itself).
thread_local bool t_spareGone = false;

SpareChunks::~SpareChunks() {
  t_spareGone = true;
  while (head != nullptr) ::operator delete(std::exchange(head, *static_cast<void **>(head)));
}

void *TakeSpare() {
  if (t_spareGone || t_spare.head == nullptr) return nullptr;
  void *chunk = std::exchange(t_spare.head, *static_cast<void **>(t_spare.head));
  --t_spare.count;
  return chunk;
}

bool KeepSpare(void *chunk) {
  if (t_spareGone || t_spare.count >= kSpareChunks) return false;
  *static_cast<void **>(chunk) = std::exchange(t_spare.head, chunk);
  ++t_spare.count;
  return true;
}

}  // namespace

TreeArena::~TreeArena() {
  while (chunks_ != nullptr) {
    Chunk *chunk = std::exchange(chunks_, chunks_->next);
    if (chunk->size != kMaxChunk || !KeepSpare(chunk)) ::operator delete(chunk);
  }
}

void *TreeArena::NewChunk(size_t bytes, size_t align) {
  constexpr size_t kHeader = sizeof(Chunk);
  if (bytes > std::numeric_limits<size_t>::max() / 2 - align - kHeader) throw std::bad_alloc();
  const size_t need = kHeader + align + bytes;
  const bool own = need > next_;
  const size_t size = own ? need : next_;
  void *memory = size == kMaxChunk ? TakeSpare() : nullptr;
  auto *chunk = static_cast<Chunk *>(memory != nullptr ? memory : ::operator new(size));
  chunk->next = chunks_;
  chunk->size = size;
  chunks_ = chunk;
  const uintptr_t at =
      (reinterpret_cast<uintptr_t>(chunk + 1) + (align - 1)) & ~uintptr_t{align - 1};
  if (!own) {
    cur_ = at + bytes;
    end_ = reinterpret_cast<uintptr_t>(chunk) + size;
    next_ = std::min(2 * next_, kMaxChunk);
  }
  return reinterpret_cast<void *>(at);
}

Object *NewChild(Object *parent) {
  Object *child = parent->arena().new_object<Object>();
  child->parent = parent;
  child->root = parent->root;
  child->depth = parent->depth + 1;
  return child;
}

bool Alive(const Object *node) {
  while (node->parent != nullptr) node = node->parent;
  return node->top != nullptr;
}

int ParseContent(std::string_view text, Object &node) {
  // Parse into a scratch node so that a failure adds nothing to `node`.  It
  // uses the arena of `node`, so that handing its members over moves no
  // member; what a failure leaves in the arena goes with the root.
  Object scratch(node.arena());
  scratch.root = node.root;
  scratch.depth = node.depth;
  // A leading byte order mark is passed over and a NUL byte ends the text:
  // the rules stored content has always been read by.
  constexpr std::string_view kBom = "\xEF\xBB\xBF";
  if (text.substr(0, kBom.size()) == kBom) text.remove_prefix(kBom.size());
  text = text.substr(0, text.find('\0'));
  simdjson::dom::element document;
  if (Parser().parse(text.data(), text.size(), true).get(document) != simdjson::SUCCESS)
    return kCorrupt;
  Builder builder(scratch);
  if (!Feed(builder, document)) return kCorrupt;
  node.members = std::move(scratch.members);  // map nodes move, addresses stay
  for (auto &[key, m] : node.members) {
    if (m.child != nullptr) m.child->parent = &node;
    if (m.lists != nullptr)
      for (Object *item : m.lists->items) item->parent = &node;
  }
  return kOk;
}

JsonText WriteContent(const Object &node) {
  Writer writer;
  WriteObject(writer, node);
  return writer.Finish();
}

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
