// Configuration-store client: sub-objects and values of in-memory objects.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "host/configstore_internal.h"

// Keys are looked up as string views: the map's comparisons then measure the
// key once instead of at every node they pass.

namespace zel::cfgstore {

using testing::Op;

namespace {

constexpr std::string_view kIdKey = "key";

bool Text(const char *s) { return s != nullptr && s[0] != '\0'; }

// The object must be a live node and the key a usable name (UTF-8 text,
// since keys are JSON names).  The key is measured once, into `name`, which
// the lookups that follow use.
int CheckTarget(const Object *object, const char *key, std::string_view &name) {
  if (object == nullptr || !Text(key)) return kBadArgument;
  name = key;
  if (name == kTypesKey || !ValidUtf8(name)) return kBadArgument;
  return Alive(object) ? kOk : kNotFound;
}

bool IsInstance(const Object *object) { return object->list != nullptr; }

// Cuts every node a member holds out of the tree.  Their memory stays in
// the root's arena, so handles to them stay valid memory and answer kNotFound.
void DetachAll(Member &m) noexcept {
  auto cut = [](Object *node) {
    node->parent = nullptr;
    node->list = nullptr;
  };
  if (m.child != nullptr) cut(std::exchange(m.child, nullptr));
  if (m.lists == nullptr) return;
  for (Object *item : m.lists->items) cut(item);
  m.lists->items.clear();
  m.lists->index.clear();
}

using Index = decltype(Lists::index);

// Takes one instance out of its list.
void RemoveInstance(Member &list, Index::iterator found) noexcept {
  auto &items = list.L().items;
  for (auto item = items.begin(); item != items.end(); ++item) {
    if (*item != found->second) continue;
    (*item)->parent = nullptr;
    (*item)->list = nullptr;
    items.erase(item);
    break;
  }
  list.L().index.erase(found);
  if (items.empty()) list.kind = Kind::kEmptyList;
}

// Writes a member under a key, replacing what was there.  `fill` makes the
// value in a member of the object's arena before anything changes.
template <typename Fill>
int Put(Object *object, const char *key, Fill &&fill) {
  std::string_view name;
  if (int s = CheckTarget(object, key, name); s != kOk) return s;
  if (IsInstance(object) && name == kIdKey) return kBadArgument;
  Member value(object->arena());
  fill(value);
  auto it = object->members.find(name);
  if (it == object->members.end()) {
    object->members.emplace(name, std::move(value));
    return kOk;
  }
  DetachAll(it->second);
  it->second = std::move(value);
  return kOk;
}

int PutScalar(Object *object, const char *key, Kind kind, int64_t number) {
  return Put(object, key, [&](Member &m) {
    m.kind = kind;
    m.number = number;
  });
}

// Renames a list instance: its "key" is its instance id.
int Rename(Object *instance, const char *id) {
  Member &key = instance->members.find(kIdKey)->second;
  if (key.text == id) return kOk;
  Lists &lists = instance->list->L();
  std::pmr::string newId(id, key.text.get_allocator());
  if (!lists.index.emplace(newId, instance).second) return kConflict;
  lists.index.erase(key.text);
  key.text.swap(newId);
  return kOk;
}

template <typename Append>
int AppendTo(Object *object, const char *key, Kind listKind, Append &&append) {
  std::string_view name;
  if (int s = CheckTarget(object, key, name); s != kOk) return s;
  if (IsInstance(object) && name == kIdKey) return kBadArgument;
  auto it = object->members.find(name);
  if (it == object->members.end()) {
    Member m(listKind, 0, object->arena());
    append(m);
    object->members.emplace(name, std::move(m));
    return kOk;
  }
  Member &m = it->second;
  if (m.kind != listKind && m.kind != Kind::kEmptyList) return kTypeMismatch;
  append(m);
  m.kind = listKind;
  return kOk;
}

int Find(Object *object, const char *key, const Member *&out) {
  std::string_view name;
  if (int s = CheckTarget(object, key, name); s != kOk) return s;
  auto it = object->members.find(name);
  if (it == object->members.end()) return kNotFound;
  out = &it->second;
  return kOk;
}

template <typename T>
int GetInteger(Op op, Object *object, const char *key, T *value) {
  return Run(op, [&] {
    if (value == nullptr) return kBadArgument;
    const Member *m = nullptr;
    if (int s = Find(object, key, m); s != kOk) return s;
    if (!IsInteger(m->kind)) return kTypeMismatch;
    if (m->number < static_cast<int64_t>(std::numeric_limits<T>::min()) ||
        (m->number > 0 &&
         static_cast<uint64_t>(m->number) > static_cast<uint64_t>(std::numeric_limits<T>::max())))
      return kOutOfRange;
    *value = static_cast<T>(m->number);
    return kOk;
  });
}

char *CopyText(std::string_view text) {
  char *out = static_cast<char *>(malloc(text.size() + 1));
  if (out != nullptr) {
    memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
  }
  return out;
}

// The list named by a sub-object filter.
int ListOf(Object *object, const Filter *filter, Member *&list) {
  if (filter == nullptr || !filter->sel2.empty() || !filter->sel3.empty()) return kBadArgument;
  std::string_view name;
  if (int s = CheckTarget(object, filter->sel1.c_str(), name); s != kOk) return s;
  auto it = object->members.find(name);
  if (it == object->members.end()) return kNotFound;
  if (it->second.kind != Kind::kSubObjectList && it->second.kind != Kind::kEmptyList)
    return kTypeMismatch;
  list = &it->second;
  return kOk;
}

}  // namespace

int GetSubObject(Object *object, const char *name, const char *instanceId, Object **sub) {
  if (sub == nullptr) return kBadArgument;
  *sub = nullptr;
  return Run(Op::kGetSubObject, [&] {
    const Member *m = nullptr;
    if (int s = Find(object, name, m); s != kOk) return s;
    if (!Text(instanceId)) {
      if (m->kind != Kind::kSubObject) return kTypeMismatch;
      *sub = m->child;
      return kOk;
    }
    if (m->kind == Kind::kEmptyList) return kNotFound;
    if (m->kind != Kind::kSubObjectList) return kTypeMismatch;
    auto found = m->L().index.find(instanceId);
    if (found == m->L().index.end()) return kNotFound;
    *sub = found->second;
    return kOk;
  });
}

int CreateSubObject(Object *object, const char *name, const char *instanceId, Object **sub) {
  if (sub == nullptr) return kBadArgument;
  *sub = nullptr;
  return Run(Op::kCreateSubObject, [&] {
    std::string_view key;
    if (int s = CheckTarget(object, name, key); s != kOk) return s;
    if (IsInstance(object) && key == kIdKey) return kBadArgument;
    if (object->depth >= kMaxDepth) return kOutOfRange;
    auto it = object->members.find(key);
    if (!Text(instanceId) && it != object->members.end()) {
      if (it->second.kind != Kind::kSubObject) return kTypeMismatch;
      *sub = it->second.child;
      return kOk;
    }
    if (Text(instanceId) && it != object->members.end()) {
      Member &list = it->second;
      if (list.kind != Kind::kSubObjectList && list.kind != Kind::kEmptyList) return kTypeMismatch;
      if (auto found = list.L().index.find(instanceId); found != list.L().index.end()) {
        *sub = found->second;
        return kOk;
      }
    }
    Object *node = NewChild(object);
    if (!Text(instanceId)) {
      Member m(Kind::kSubObject, 0, object->arena());
      m.child = node;
      object->members.emplace(key, std::move(m));
      *sub = node;
      return kOk;
    }
    Member idValue(object->arena());
    idValue.text = instanceId;
    node->members.emplace(kIdKey, std::move(idValue));
    if (it == object->members.end())
      it = object->members.emplace(key, Member(Kind::kEmptyList, 0, object->arena())).first;
    Member &list = it->second;
    // Room first, so that a failed allocation leaves the list as it was;
    // the room grows by doubling, as a list of thousands of ports needs.
    auto &items = list.L().items;
    if (items.size() == items.capacity()) items.reserve(std::max<size_t>(8, 2 * items.size()));
    list.L().index.emplace(instanceId, node);
    node->list = &list;
    list.kind = Kind::kSubObjectList;
    *sub = node;
    items.push_back(node);
    return kOk;
  });
}

int DeleteSubObject(Object *object, const char *name, const char *instanceId) {
  return Run(Op::kDeleteSubObject, [&] {
    std::string_view key;
    if (int s = CheckTarget(object, name, key); s != kOk) return s;
    auto it = object->members.find(key);
    if (it == object->members.end()) return kNotFound;
    Member &m = it->second;
    if (!Text(instanceId)) {
      if (m.kind != Kind::kSubObject) return kTypeMismatch;
      DetachAll(m);
      object->members.erase(it);
      return kOk;
    }
    if (m.kind == Kind::kEmptyList) return kNotFound;
    if (m.kind != Kind::kSubObjectList) return kTypeMismatch;
    auto found = m.L().index.find(instanceId);
    if (found == m.L().index.end()) return kNotFound;
    RemoveInstance(m, found);
    return kOk;
  });
}

int DeleteSubObjectInstances(Object *object, Filter *filter) {
  return Run(Op::kDeleteSubObjectInstances, [&] {
    Member *list = nullptr;
    if (int s = ListOf(object, filter, list); s != kOk) return s;
    if (!filter->instanceId.empty()) {
      auto found = list->L().index.find(filter->instanceId);
      if (found == list->L().index.end()) return kNotFound;
      RemoveInstance(*list, found);
      return kOk;
    }
    DetachAll(*list);
    object->members.erase(object->members.find(std::string_view(filter->sel1)));
    return kOk;
  });
}

int GetSubObjectInstances(Object *object, Filter *filter, Object ***subs, int *count) {
  if (subs == nullptr || count == nullptr) return kBadArgument;
  *subs = nullptr;
  *count = 0;
  return Run(Op::kGetSubObjectInstances, [&] {
    Member *list = nullptr;
    if (int s = ListOf(object, filter, list); s != kOk) return s;
    std::vector<Object *> chosen;
    if (filter->instanceId.empty()) {
      chosen.assign(list->L().items.begin(), list->L().items.end());
    } else {
      auto found = list->L().index.find(filter->instanceId);
      if (found == list->L().index.end()) return kNotFound;
      chosen.push_back(found->second);
    }
    if (chosen.empty()) return kOk;
    if (chosen.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return kOutOfRange;
    auto **arr = static_cast<Object **>(malloc(chosen.size() * sizeof(Object *)));
    if (arr == nullptr) return kNoMemory;
    memcpy(arr, chosen.data(), chosen.size() * sizeof(Object *));
    *subs = arr;
    *count = static_cast<int>(chosen.size());
    return kOk;
  });
}

int SetValueStr(Object *object, const char *key, const char *value) {
  return Run(Op::kSetValueStr, [&] {
    if (value == nullptr) return kBadArgument;
    if (object != nullptr && IsInstance(object) && key != nullptr && key == kIdKey) {
      std::string_view name;
      if (int s = CheckTarget(object, key, name); s != kOk) return s;
      return value[0] == '\0' ? kBadArgument : Rename(object, value);
    }
    return Put(object, key, [&](Member &m) {
      m.kind = Kind::kString;
      m.text = value;
    });
  });
}

int SetValueInt(Object *object, const char *key, int32_t value) {
  return Run(Op::kSetValueInt, [&] { return PutScalar(object, key, Kind::kInt32, value); });
}

int SetValueUint32(Object *object, const char *key, uint32_t value) {
  return Run(Op::kSetValueUint32, [&] { return PutScalar(object, key, Kind::kUint32, value); });
}

int SetValueUint16(Object *object, const char *key, uint16_t value) {
  return Run(Op::kSetValueUint16, [&] { return PutScalar(object, key, Kind::kUint16, value); });
}

int SetValueLong(Object *object, const char *key, int64_t value) {
  return Run(Op::kSetValueLong, [&] { return PutScalar(object, key, Kind::kInt64, value); });
}

int SetValueBool(Object *object, const char *key, bool value) {
  return Run(Op::kSetValueBool,
             [&] { return PutScalar(object, key, Kind::kBool, value ? 1 : 0); });
}

int SetValueBinary(Object *object, const char *key, const void *data, int length) {
  return Run(Op::kSetValueBinary, [&] {
    if (length < 0 || (data == nullptr && length > 0)) return kBadArgument;
    return Put(object, key, [&](Member &m) {
      m.kind = Kind::kBinary;
      if (length > 0) m.text.assign(static_cast<const char *>(data), static_cast<size_t>(length));
    });
  });
}

int SetValueEmptyList(Object *object, const char *key) {
  return Run(Op::kSetValueEmptyList,
             [&] { return PutScalar(object, key, Kind::kEmptyList, 0); });
}

int AppendValueString(Object *object, const char *key, const char *value) {
  return Run(Op::kAppendValueString, [&] {
    if (value == nullptr) return kBadArgument;
    return AppendTo(object, key, Kind::kStringList,
                    [&](Member &m) { m.L().strings.emplace_back(value); });
  });
}

int AppendValueInt(Object *object, const char *key, int32_t value) {
  return Run(Op::kAppendValueInt, [&] {
    return AppendTo(object, key, Kind::kIntList, [&](Member &m) { m.L().ints.push_back(value); });
  });
}

int RemoveValue(Object *object, const char *key) {
  return Run(Op::kRemoveValue, [&] {
    std::string_view name;
    if (int s = CheckTarget(object, key, name); s != kOk) return s;
    if (IsInstance(object) && name == kIdKey) return kBadArgument;
    auto it = object->members.find(name);
    if (it == object->members.end()) return kNotFound;
    DetachAll(it->second);
    object->members.erase(it);
    return kOk;
  });
}

int GetValueStr(Object *object, const char *key, char **value) {
  if (value == nullptr) return kBadArgument;
  *value = nullptr;
  return Run(Op::kGetValueStr, [&] {
    const Member *m = nullptr;
    if (int s = Find(object, key, m); s != kOk) return s;
    if (m->kind != Kind::kString) return kTypeMismatch;
    *value = CopyText(m->text);
    return *value != nullptr ? kOk : kNoMemory;
  });
}

int GetValueInt(Object *object, const char *key, int32_t *value) {
  return GetInteger(Op::kGetValueInt, object, key, value);
}

int GetValueUint32(Object *object, const char *key, uint32_t *value) {
  return GetInteger(Op::kGetValueUint32, object, key, value);
}

int GetValueUint16(Object *object, const char *key, uint16_t *value) {
  return GetInteger(Op::kGetValueUint16, object, key, value);
}

int GetValueLong(Object *object, const char *key, int64_t *value) {
  return GetInteger(Op::kGetValueLong, object, key, value);
}

int GetValueBool(Object *object, const char *key, uint8_t *value) {
  return Run(Op::kGetValueBool, [&] {
    if (value == nullptr) return kBadArgument;
    const Member *m = nullptr;
    if (int s = Find(object, key, m); s != kOk) return s;
    if (m->kind != Kind::kBool) return kTypeMismatch;
    *value = m->number != 0 ? 1 : 0;
    return kOk;
  });
}

int GetValueBinary(Object *object, const char *key, uint8_t **data, int *length) {
  if (data == nullptr || length == nullptr) return kBadArgument;
  *data = nullptr;
  *length = 0;
  return Run(Op::kGetValueBinary, [&] {
    const Member *m = nullptr;
    if (int s = Find(object, key, m); s != kOk) return s;
    if (m->kind != Kind::kBinary) return kTypeMismatch;
    if (m->text.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return kOutOfRange;
    auto *bytes = static_cast<uint8_t *>(malloc(m->text.empty() ? 1 : m->text.size()));
    if (bytes == nullptr) return kNoMemory;
    if (!m->text.empty()) memcpy(bytes, m->text.data(), m->text.size());
    *data = bytes;
    *length = static_cast<int>(m->text.size());
    return kOk;
  });
}

int GetValueStringArray(Object *object, const char *key, char ***array, int *count) {
  if (array == nullptr || count == nullptr) return kBadArgument;
  *array = nullptr;
  *count = 0;
  return Run(Op::kGetValueStringArray, [&] {
    const Member *m = nullptr;
    if (int s = Find(object, key, m); s != kOk) return s;
    if (m->kind == Kind::kEmptyList) return kOk;
    if (m->kind != Kind::kStringList) return kTypeMismatch;
    size_t n = m->L().strings.size();
    if (n > static_cast<size_t>(std::numeric_limits<int>::max())) return kOutOfRange;
    auto **arr = static_cast<char **>(calloc(n, sizeof(char *)));
    if (arr == nullptr) return kNoMemory;
    for (size_t i = 0; i < n; ++i) {
      arr[i] = CopyText(m->L().strings[i]);
      if (arr[i] == nullptr) {
        DestroyStringArrayValue(&arr, static_cast<int>(i));
        return kNoMemory;
      }
    }
    *array = arr;
    *count = static_cast<int>(n);
    return kOk;
  });
}

int DestroyStringArrayValue(char ***array, int count) {
  if (array == nullptr) return kBadArgument;
  if (*array != nullptr) {
    for (int i = 0; i < count; ++i) free((*array)[i]);
    free(*array);
    *array = nullptr;
  }
  return kOk;
}

int ExportObjectJson(Object *object, char **json) {
  if (json == nullptr) return kBadArgument;
  *json = nullptr;
  if (object == nullptr) return kBadArgument;
  if (!Alive(object)) return kNotFound;
  try {
    *json = WriteContent(*object).Release();
  } catch (const std::bad_alloc &) {
    return kNoMemory;
  }
  return *json != nullptr ? kOk : kNoMemory;
}

int GetObjectInstanceId(Object *object, char **instanceId) {
  if (instanceId == nullptr) return kBadArgument;
  *instanceId = nullptr;
  if (object == nullptr || object->top == nullptr) return kBadArgument;
  *instanceId = CopyText(object->top->instanceId);
  return *instanceId != nullptr ? kOk : kNoMemory;
}

}  // namespace zel::cfgstore
