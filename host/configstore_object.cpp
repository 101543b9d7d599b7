// Configuration-store client: sub-objects and values of in-memory objects.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "host/configstore_internal.h"

// Keys are looked up as string views: the map's comparisons then measure the
// key once instead of at every node they pass.

namespace zel::cfgstore {

using testing::Op;

namespace {

constexpr const char *kIdKey = "key";

bool Text(const char *s) { return s != nullptr && s[0] != '\0'; }

// The object must be a live node and the key a usable name (UTF-8 text,
// since keys are JSON names).
int CheckTarget(const Object *object, const char *key) {
  if (object == nullptr || !Text(key) || strcmp(key, "@types") == 0 || !ValidUtf8(key))
    return kBadArgument;
  return Alive(object) ? kOk : kNotFound;
}

bool IsInstance(const Object *object) { return object->list != nullptr; }

// Moves every node a member holds to the root's detached list, so that
// handles to them stay valid memory.  Reserves first: on failure nothing moved.
void DetachAll(Object *root, Member &m) {
  auto &detached = root->top->detached;
  size_t items = m.lists ? m.lists->items.size() : 0;
  detached.reserve(detached.size() + items + (m.child ? 1 : 0));
  auto cut = [&](std::unique_ptr<Object> node) {
    node->parent = nullptr;
    node->list = nullptr;
    detached.push_back(std::move(node));
  };
  if (m.child) cut(std::move(m.child));
  if (!m.lists) return;
  for (auto &item : m.lists->items) cut(std::move(item));
  m.lists->items.clear();
  m.lists->index.clear();
}

// Takes one instance out of its list (to the detached nodes).
void RemoveInstance(Object *root, Member &list,
                    std::unordered_map<std::string, Object *>::iterator found) {
  auto &detached = root->top->detached;
  detached.reserve(detached.size() + 1);
  for (auto item = list.L().items.begin(); item != list.L().items.end(); ++item) {
    if (item->get() != found->second) continue;
    (*item)->parent = nullptr;
    (*item)->list = nullptr;
    detached.push_back(std::move(*item));
    list.L().items.erase(item);
    break;
  }
  list.L().index.erase(found);
  if (list.L().items.empty()) list.kind = Kind::kEmptyList;
}

// Writes a member under a key, replacing what was there.
int Put(Object *object, const char *key, Member &&value) {
  if (int s = CheckTarget(object, key); s != kOk) return s;
  if (IsInstance(object) && strcmp(key, kIdKey) == 0) return kBadArgument;
  auto it = object->members.find(std::string_view(key));
  if (it == object->members.end()) {
    object->members.emplace(key, std::move(value));
    return kOk;
  }
  DetachAll(object->root, it->second);
  it->second = std::move(value);
  return kOk;
}

Member Scalar(Kind kind, int64_t number) {
  Member m;
  m.kind = kind;
  m.number = number;
  return m;
}

// Renames a list instance: its "key" is its instance id.
int Rename(Object *instance, const char *id) {
  Member &key = instance->members.at(kIdKey);
  if (key.text == id) return kOk;
  Member &list = *instance->list;
  std::string newId(id);
  if (!list.L().index.emplace(newId, instance).second) return kConflict;
  list.L().index.erase(key.text);
  key.text.swap(newId);
  return kOk;
}

template <typename Append>
int AppendTo(Object *object, const char *key, Kind listKind, Append &&append) {
  if (int s = CheckTarget(object, key); s != kOk) return s;
  if (IsInstance(object) && strcmp(key, kIdKey) == 0) return kBadArgument;
  auto it = object->members.find(std::string_view(key));
  if (it == object->members.end()) {
    Member m;
    m.kind = listKind;
    append(m);
    object->members.emplace(key, std::move(m));
    return kOk;
  }
  Member &m = it->second;
  if (m.kind != listKind && m.kind != Kind::kEmptyList) return kTypeMismatch;
  append(m);
  m.kind = listKind;
  return kOk;
}

int Find(Object *object, const char *key, const Member *&out) {
  if (int s = CheckTarget(object, key); s != kOk) return s;
  auto it = object->members.find(std::string_view(key));
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

char *CopyText(const std::string &text) {
  char *out = static_cast<char *>(malloc(text.size() + 1));
  if (out != nullptr) memcpy(out, text.c_str(), text.size() + 1);
  return out;
}

// The list named by a sub-object filter.
int ListOf(Object *object, const Filter *filter, Member *&list) {
  if (filter == nullptr || !filter->sel2.empty() || !filter->sel3.empty()) return kBadArgument;
  if (int s = CheckTarget(object, filter->sel1.c_str()); s != kOk) return s;
  auto it = object->members.find(filter->sel1);
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
      *sub = m->child.get();
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
    if (int s = CheckTarget(object, name); s != kOk) return s;
    if (IsInstance(object) && strcmp(name, kIdKey) == 0) return kBadArgument;
    if (object->depth >= kMaxDepth) return kOutOfRange;
    auto it = object->members.find(std::string_view(name));
    if (!Text(instanceId) && it != object->members.end()) {
      if (it->second.kind != Kind::kSubObject) return kTypeMismatch;
      *sub = it->second.child.get();
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
    auto node = std::make_unique<Object>();
    node->parent = object;
    node->root = object->root;
    node->depth = object->depth + 1;
    if (!Text(instanceId)) {
      Member m;
      m.kind = Kind::kSubObject;
      Object *raw = node.get();
      m.child = std::move(node);
      object->members.emplace(name, std::move(m));
      *sub = raw;
      return kOk;
    }
    Member idValue;
    idValue.text = instanceId;
    node->members.emplace(kIdKey, std::move(idValue));
    if (it == object->members.end()) {
      Member m;
      m.kind = Kind::kEmptyList;
      it = object->members.emplace(name, std::move(m)).first;
    }
    Member &list = it->second;
    // Room first, so that a failed allocation leaves the list as it was;
    // the room grows by doubling, as a list of thousands of ports needs.
    auto &items = list.L().items;
    if (items.size() == items.capacity()) items.reserve(std::max<size_t>(8, 2 * items.size()));
    list.L().index.emplace(instanceId, node.get());
    node->list = &list;
    list.kind = Kind::kSubObjectList;
    *sub = node.get();
    list.L().items.push_back(std::move(node));
    return kOk;
  });
}

int DeleteSubObject(Object *object, const char *name, const char *instanceId) {
  return Run(Op::kDeleteSubObject, [&] {
    if (int s = CheckTarget(object, name); s != kOk) return s;
    auto it = object->members.find(std::string_view(name));
    if (it == object->members.end()) return kNotFound;
    Member &m = it->second;
    if (!Text(instanceId)) {
      if (m.kind != Kind::kSubObject) return kTypeMismatch;
      DetachAll(object->root, m);
      object->members.erase(it);
      return kOk;
    }
    if (m.kind == Kind::kEmptyList) return kNotFound;
    if (m.kind != Kind::kSubObjectList) return kTypeMismatch;
    auto found = m.L().index.find(instanceId);
    if (found == m.L().index.end()) return kNotFound;
    RemoveInstance(object->root, m, found);
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
      RemoveInstance(object->root, *list, found);
      return kOk;
    }
    DetachAll(object->root, *list);
    object->members.erase(filter->sel1);
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
      for (auto &item : list->L().items) chosen.push_back(item.get());
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
    if (object != nullptr && IsInstance(object) && key != nullptr && strcmp(key, kIdKey) == 0) {
      if (int s = CheckTarget(object, key); s != kOk) return s;
      return value[0] == '\0' ? kBadArgument : Rename(object, value);
    }
    Member m;
    m.kind = Kind::kString;
    m.text = value;
    return Put(object, key, std::move(m));
  });
}

int SetValueInt(Object *object, const char *key, int32_t value) {
  return Run(Op::kSetValueInt, [&] { return Put(object, key, Scalar(Kind::kInt32, value)); });
}

int SetValueUint32(Object *object, const char *key, uint32_t value) {
  return Run(Op::kSetValueUint32, [&] { return Put(object, key, Scalar(Kind::kUint32, value)); });
}

int SetValueUint16(Object *object, const char *key, uint16_t value) {
  return Run(Op::kSetValueUint16, [&] { return Put(object, key, Scalar(Kind::kUint16, value)); });
}

int SetValueLong(Object *object, const char *key, int64_t value) {
  return Run(Op::kSetValueLong, [&] { return Put(object, key, Scalar(Kind::kInt64, value)); });
}

int SetValueBool(Object *object, const char *key, bool value) {
  return Run(Op::kSetValueBool,
             [&] { return Put(object, key, Scalar(Kind::kBool, value ? 1 : 0)); });
}

int SetValueBinary(Object *object, const char *key, const void *data, int length) {
  return Run(Op::kSetValueBinary, [&] {
    if (length < 0 || (data == nullptr && length > 0)) return kBadArgument;
    Member m;
    m.kind = Kind::kBinary;
    if (length > 0) m.text.assign(static_cast<const char *>(data), static_cast<size_t>(length));
    return Put(object, key, std::move(m));
  });
}

int SetValueEmptyList(Object *object, const char *key) {
  return Run(Op::kSetValueEmptyList, [&] { return Put(object, key, Scalar(Kind::kEmptyList, 0)); });
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
    if (int s = CheckTarget(object, key); s != kOk) return s;
    if (IsInstance(object) && strcmp(key, kIdKey) == 0) return kBadArgument;
    auto it = object->members.find(std::string_view(key));
    if (it == object->members.end()) return kNotFound;
    DetachAll(object->root, it->second);
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
    *json = CopyText(SerializeContent(*object));
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
