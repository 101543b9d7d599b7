// Internal model of the configuration-store client: the in-memory object
// tree behind the Object handles, its JSON form, and the fault seam.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <memory_resource>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/configstore_client.h"

namespace zel::cfgstore {

// Deepest nesting of sub-objects below a top-level object (the root is 0).
inline constexpr int kMaxDepth = 32;

// The member of an object's JSON that carries the type tags of its other
// members; never a key of its own.
inline constexpr std::string_view kTypesKey = "@types";

enum class Kind : uint8_t {
  kString,
  kInt32,
  kUint32,
  kUint16,
  kInt64,
  kBool,
  kBinary,
  kEmptyList,  // [] before anything is appended or created in it
  kStringList,
  kIntList,
  kSubObject,
  kSubObjectList,
};

inline bool IsInteger(Kind k) {
  return k == Kind::kInt32 || k == Kind::kUint32 || k == Kind::kUint16 || k == Kind::kInt64;
}

// Every node of a top-level object's tree, and everything inside the nodes
// (member maps and their keys, texts, lists, the instance index), comes from
// one arena owned by the root.  The nodes of a tree live and die together, so
// the arena hands memory out without keeping track of it and is released in
// one go with the root: no node is destroyed or freed one by one.  What is
// freed before that (a replaced text, a cut sub-object) stays in the arena
// until the root goes.
using Arena = std::pmr::polymorphic_allocator<>;

// Instance ids are looked up as string views, without a copy of the id.
struct IdHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};
struct IdEqual {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept { return a == b; }
};

// The contents of a list member, allocated only for lists.
struct Lists {
  using allocator_type = Arena;
  explicit Lists(const allocator_type &a) : strings(a), ints(a), items(a), index(a) {}

  std::pmr::vector<std::pmr::string> strings;  // kStringList
  std::pmr::vector<int64_t> ints;              // kIntList
  std::pmr::vector<Object *> items;            // kSubObjectList, in order
  std::pmr::unordered_map<std::pmr::string, Object *, IdHash, IdEqual> index;  // items by id
};

// What one key of an object holds.  Only the fields of its kind are used.
// A member is always made with the arena of the object it goes into (there
// is no default constructor), so no part of it comes from the global heap.
struct Member {
  using allocator_type = Arena;
  explicit Member(const allocator_type &a) : text(a) {}
  Member(Kind k, int64_t n, const allocator_type &a) : kind(k), number(n), text(a) {}
  Member(Member &&) = default;
  // Moves between members of one arena are pointer steals; the tree never
  // moves a member into another arena (child and lists stay where they are).
  Member(Member &&other, const allocator_type &a)
      : kind(other.kind),
        number(other.number),
        text(std::move(other.text), a),
        child(other.child),
        lists(other.lists) {}
  Member(const Member &) = delete;
  Member &operator=(Member &&) = default;
  Member &operator=(const Member &) = delete;

  Kind kind = Kind::kString;
  int64_t number = 0;         // integers and bool
  std::pmr::string text;      // string, binary bytes
  Object *child = nullptr;    // kSubObject
  Lists *lists = nullptr;     // list kinds (may be null while empty)

  Lists &L() {
    if (lists == nullptr) lists = Arena(text.get_allocator()).new_object<Lists>();
    return *lists;
  }
  const Lists &L() const {
    static const Lists kNone{Arena{}};
    return lists != nullptr ? *lists : kNone;
  }
};

// The arena of one tree: memory handed out from chunks taken one after the
// other, never given back piece by piece; all of it goes when the arena
// does.  The first chunk is a small buffer inside the arena itself, so a
// small object costs no allocation of its own; each further chunk is twice
// the one before, up to kMaxChunk.  The cap bounds the unused end of the
// last chunk: a tree of megabytes then leaves tens of kilobytes unused, not
// up to half of itself, and still takes its memory in a few hundred pieces.
// A piece larger than the next chunk gets a chunk of its own, and the
// current chunk stays in use.  Chunks of the largest size are kept for the
// thread's next trees when a tree goes (up to a bound): given back to the
// heap at once, they make it return the pages to the system, and the next
// tree would pay a page fault for each page again.
class TreeArena final : public std::pmr::memory_resource {
 public:
  TreeArena() = default;
  TreeArena(const TreeArena &) = delete;
  TreeArena &operator=(const TreeArena &) = delete;
  ~TreeArena() override;

 private:
  struct alignas(std::max_align_t) Chunk {
    Chunk *next;
    size_t size;
  };
  static constexpr size_t kFirstChunk = 1024;
  static constexpr size_t kMaxChunk = 32 * 1024;

  void *do_allocate(size_t bytes, size_t align) override {
    uintptr_t at = (cur_ + (align - 1)) & ~uintptr_t{align - 1};
    if (at > end_ || bytes > end_ - at) return NewChunk(bytes, align);
    cur_ = at + bytes;
    return reinterpret_cast<void *>(at);
  }
  void do_deallocate(void *, size_t, size_t) override {}
  bool do_is_equal(const std::pmr::memory_resource &other) const noexcept override {
    return this == &other;
  }
  // Takes a chunk for what does not fit in the current one.
  void *NewChunk(size_t bytes, size_t align);

  alignas(std::max_align_t) std::byte first_[256];
  uintptr_t cur_ = reinterpret_cast<uintptr_t>(first_);
  uintptr_t end_ = reinterpret_cast<uintptr_t>(first_) + sizeof first_;
  Chunk *chunks_ = nullptr;
  size_t next_ = kFirstChunk;
};

// Addressing of a top-level object, and the arena of its tree.
struct TopLevel {
  TopLevel() = default;
  TopLevel(const TopLevel &) = delete;
  TopLevel &operator=(const TopLevel &) = delete;

  std::string sel1, sel2, sel3, instanceId;
  TreeArena arena;
};

// The order of keys: byte-wise, as std::less of strings, so that members
// are written in the same order.  Keys of one object mostly differ in their
// first bytes, so those are compared inline (eight at once when both keys
// have them), and the library compare is called only for the rest.
struct KeyLess {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept {
    const size_t n = std::min(a.size(), b.size());
    size_t done = 1;
    if (n >= 8) {
      uint64_t x, y;
      std::memcpy(&x, a.data(), 8);
      std::memcpy(&y, b.data(), 8);
      if (x != y) {
        if constexpr (std::endian::native == std::endian::little) {
          x = __builtin_bswap64(x);  // the first byte most significant
          y = __builtin_bswap64(y);
        }
        return x < y;
      }
      done = 8;
    } else if (n > 0 && a[0] != b[0]) {
      return static_cast<unsigned char>(a[0]) < static_cast<unsigned char>(b[0]);
    }
    if (n > done) {
      if (int c = std::memcmp(a.data() + done, b.data() + done, n - done); c != 0) return c < 0;
    }
    return a.size() < b.size();
  }
};

using Members = std::pmr::map<std::pmr::string, Member, KeyLess>;

// A node of an object tree.  Nodes are made in the root's arena and never
// move, so their addresses serve as handles.  A node cut out of the tree
// (deleted or replaced) keeps its memory until the root goes; it has no
// parent and is not the root, which is how Alive tells it is dead.
struct Object {
  using allocator_type = Arena;
  explicit Object(const allocator_type &a) : members(a) {}

  Members members;
  Object *parent = nullptr;  // null for the root and for a cut node
  Object *root = nullptr;    // the top-level object owning this node
  Member *list = nullptr;    // for a list instance: the list holding it
  int depth = 0;
  TopLevel *top = nullptr;   // set on the root only

  Arena arena() const { return members.get_allocator(); }
};

// A new node in the arena of `parent`'s tree, below it.
Object *NewChild(Object *parent);

// Owns a root: destroying it releases the whole tree with its arena.
struct RootDelete {
  void operator()(Object *root) const noexcept;
};
using RootPtr = std::unique_ptr<Object, RootDelete>;

// A root (top-level object) with its addressing.
RootPtr NewRoot(std::string sel1, std::string sel2, std::string sel3, std::string instanceId);
// True when the node is the root or still reachable from it.
bool Alive(const Object *node);

struct Filter {
  std::string sel1, sel2, sel3, instanceId;
};

// JSON form (see the header for the layout).  ParseContent fills an empty
// node (normally a root) from text and returns kCorrupt for anything that is
// not a valid object; nothing is added on failure.
int ParseContent(std::string_view text, Object &node);

// JSON text in a buffer from malloc, NUL-terminated after its size: bound
// to a statement as it is, or handed to a caller who frees it with free().
class JsonText {
 public:
  JsonText(char *data, size_t size) : data_(data), size_(size) {}
  std::string_view view() const { return {data_.get(), size_}; }
  operator std::string_view() const { return view(); }
  char *Release() { return data_.release(); }

 private:
  struct Free {
    void operator()(char *p) const noexcept { free(p); }
  };
  std::unique_ptr<char, Free> data_;
  size_t size_;
};
// The JSON text of a node.
JsonText WriteContent(const Object &node);

// Strict UTF-8 (no overlong forms, surrogates or values above U+10FFFF).
bool ValidUtf8(std::string_view s);

// The last bytes of `s` after `from` (fewer than eight) in one word, for
// tests that look at each byte on its own: every byte is in some lane of
// the word (some twice), by loads of fixed size instead of a copy of
// varying length.  A string of eight bytes or more gives its last eight
// (which may overlap bytes already tested); lanes without a byte are `pad`.
inline uint64_t TailWord(std::string_view s, size_t from, uint64_t pad) {
  const char *p = s.data();
  const size_t n = s.size();
  uint64_t word;
  if (n >= 8) {
    std::memcpy(&word, p + n - 8, 8);
    return word;
  }
  if (n - from >= 4) {
    uint32_t lo, hi;
    std::memcpy(&lo, p + from, 4);
    std::memcpy(&hi, p + n - 4, 4);
    return lo | (uint64_t{hi} << 32);
  }
  if (n == from) return pad;
  const auto byte = [&](size_t i) { return uint64_t{static_cast<unsigned char>(p[i])}; };
  const size_t mid = from + (n - from) / 2;
  return (pad & ~uint64_t{0xFFFFFF}) | byte(from) | byte(mid) << 8 | byte(n - 1) << 16;
}

std::string Base64Encode(std::string_view bytes);
// False for text that is not padded standard base64.
bool Base64Decode(std::string_view text, std::string &bytes);

namespace fault {
inline constexpr size_t kOps = static_cast<size_t>(testing::Op::kDeleteDesired) + 1;
// Calls of each operation since the last ClearFailures.
extern std::array<std::atomic<uint64_t>, kOps> g_calls;
// Whether any failure rule is in place.
extern std::atomic<bool> g_armed;

// The injected status for this call of `op` once a rule is in place.
int CheckRules(testing::Op op);

// The injected status for this call of `op`, or kOk.  Every operation
// passes here, so counting and the unarmed case are inline: the count is a
// plain load and store rather than a locked add (two threads counting at
// once may lose a count, which only the tests read, and they count from one
// thread).
inline int Check(testing::Op op) {
  auto &count = g_calls[static_cast<size_t>(op)];
  count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  if (!g_armed.load(std::memory_order_acquire)) return kOk;
  return CheckRules(op);
}
}  // namespace fault

// Runs an operation: counts it, applies an injected failure, and turns any
// exception into a status.
template <typename Body>
int Run(testing::Op op, Body &&body) noexcept {
  try {
    if (int injected = fault::Check(op); injected != kOk) return injected;
    return body();
  } catch (const std::bad_alloc &) {
    return kNoMemory;
  } catch (...) {
    return kInternal;
  }
}

}  // namespace zel::cfgstore
