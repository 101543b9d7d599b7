// Internal model of the configuration-store client: the in-memory object
// tree behind the Object handles, its JSON form, and the fault seam.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/configstore_client.h"

namespace zel::cfgstore {

// Deepest nesting of sub-objects below a top-level object (the root is 0).
inline constexpr int kMaxDepth = 32;

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

// The contents of a list member, allocated only for lists.
struct Lists {
  std::vector<std::string> strings;                 // kStringList
  std::vector<int64_t> ints;                        // kIntList
  std::vector<std::unique_ptr<Object>> items;       // kSubObjectList, in order
  std::unordered_map<std::string, Object *> index;  // items by instance id
};

// What one key of an object holds.  Only the fields of its kind are used.
struct Member {
  Kind kind = Kind::kString;
  int64_t number = 0;             // integers and bool
  std::string text;               // string, binary bytes
  std::unique_ptr<Object> child;  // kSubObject
  std::unique_ptr<Lists> lists;   // list kinds (may be null while empty)

  Lists &L() {
    if (!lists) lists = std::make_unique<Lists>();
    return *lists;
  }
  const Lists &L() const {
    static const Lists kNone;
    return lists ? *lists : kNone;
  }
};

// Addressing and bookkeeping of a top-level object.
struct TopLevel {
  std::string sel1, sel2, sel3, instanceId;
  // Sub-objects cut out of the tree (deleted or replaced).  They are kept
  // until the top-level object goes, so that handles to them never dangle.
  std::vector<std::unique_ptr<Object>> detached;
};

// A node of an object tree.  Nodes are allocated one by one and never move,
// so their addresses serve as handles.
struct Object {
  std::map<std::string, Member, std::less<>> members;
  Object *parent = nullptr;  // null for the root and for a detached node
  Object *root = nullptr;    // the top-level object owning this node
  Member *list = nullptr;    // for a list instance: the list holding it
  int depth = 0;
  std::unique_ptr<TopLevel> top;  // set on the root only
};

// A root (top-level object) with its addressing.
std::unique_ptr<Object> NewRoot(std::string sel1, std::string sel2, std::string sel3,
                                std::string instanceId);
// True when the node is the root or still reachable from it.
bool Alive(const Object *node);

struct Filter {
  std::string sel1, sel2, sel3, instanceId;
};

// JSON form (see the header for the layout).  ParseContent fills an empty
// node (normally a root) from text and returns kCorrupt for anything that is
// not a valid object; nothing is added on failure.
int ParseContent(std::string_view text, Object &node);
std::string SerializeContent(const Object &node);

// Strict UTF-8 (no overlong forms, surrogates or values above U+10FFFF).
bool ValidUtf8(std::string_view s);

std::string Base64Encode(std::string_view bytes);
// False for text that is not padded standard base64.
bool Base64Decode(std::string_view text, std::string &bytes);

namespace fault {
// The injected status for this call of `op`, or kOk.
int Check(testing::Op op);
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
