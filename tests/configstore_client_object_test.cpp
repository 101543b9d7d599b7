// In-memory objects of the configuration-store client and their JSON form.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "configstore_client_support.h"

namespace {

using namespace cfgtest;
using cs::Object;

cs::Filter *ListFilter(const char *name, const char *id = "") {
  cs::Filter *f = nullptr;
  EXPECT_EQ(cs::CreateFilterSpecObject(name, "", "", id, &f), cs::kOk);
  return f;
}

std::vector<std::string> Keys(Object *o, const char *list) {
  cs::Filter *f = ListFilter(list);
  Object **items = nullptr;
  int n = 0;
  std::vector<std::string> out;
  if (cs::GetSubObjectInstances(o, f, &items, &n) == cs::kOk)
    for (int i = 0; i < n; ++i) out.push_back(Str(items[i], "key"));
  free(items);
  cs::DestroyFilterSpecObject(f);
  return out;
}

// Every kind of value, a singleton and a list: the stored form, byte for byte.
constexpr const char *kGolden =
    R"({"@types":{"big":"int64","blob":"binary","max_ports":"int32","mtu":"uint32","vlan":"uint16"},)"
    R"("big":-5,"blob":"AP8Q","empty":[],"max_ports":128,"mtu":9000,"names":["a","b"],"on":true,)"
    R"("ports":[{"key":"p1","name":"x"}],"product":{"forwarding_class":"vswitch"},"uuid":"sw1",)"
    R"("vlan":7,"vlans":[1,2]})";

TEST(ConfigStoreObjects, GoldenJsonAndRoundTrip) {
  ObjectPtr sw = NewSwitch("sw1");
  Object *o = sw.get();
  const uint8_t blob[] = {0x00, 0xFF, 0x10};
  ASSERT_EQ(cs::SetValueStr(o, "uuid", "sw1"), cs::kOk);
  ASSERT_EQ(cs::SetValueInt(o, "max_ports", 128), cs::kOk);
  ASSERT_EQ(cs::SetValueUint32(o, "mtu", 9000), cs::kOk);
  ASSERT_EQ(cs::SetValueUint16(o, "vlan", 7), cs::kOk);
  ASSERT_EQ(cs::SetValueLong(o, "big", -5), cs::kOk);
  ASSERT_EQ(cs::SetValueBool(o, "on", true), cs::kOk);
  ASSERT_EQ(cs::SetValueBinary(o, "blob", blob, 3), cs::kOk);
  ASSERT_EQ(cs::SetValueEmptyList(o, "empty"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "names", "a"), cs::kOk);  // creates the list
  ASSERT_EQ(cs::AppendValueString(o, "names", "b"), cs::kOk);
  ASSERT_EQ(cs::SetValueEmptyList(o, "vlans"), cs::kOk);
  ASSERT_EQ(cs::AppendValueInt(o, "vlans", 1), cs::kOk);
  ASSERT_EQ(cs::AppendValueInt(o, "vlans", 2), cs::kOk);
  Object *product = nullptr, *port = nullptr;
  ASSERT_EQ(cs::CreateSubObject(o, "product", "", &product), cs::kOk);
  ASSERT_EQ(cs::SetValueStr(product, "forwarding_class", "vswitch"), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "ports", "p1", &port), cs::kOk);
  ASSERT_EQ(cs::SetValueStr(port, "name", "x"), cs::kOk);
  EXPECT_EQ(Json(o), kGolden);

  Object *copy = nullptr;
  ASSERT_EQ(cs::CreateObject("switches", "network_zel", "orn", "sw1", kGolden, &copy), cs::kOk);
  ObjectPtr owner(copy);
  EXPECT_EQ(Json(copy), kGolden);
  char **arr = nullptr;
  int n = 0;
  ASSERT_EQ(cs::GetValueStringArray(copy, "names", &arr, &n), cs::kOk);
  ASSERT_EQ(n, 2);
  EXPECT_STREQ(arr[0], "a");
  EXPECT_STREQ(arr[1], "b");
  EXPECT_EQ(cs::DestroyStringArrayValue(&arr, n), cs::kOk);
  ASSERT_EQ(cs::GetValueStringArray(copy, "empty", &arr, &n), cs::kOk);
  EXPECT_EQ(n, 0);
}

// Each getter on each kind: 0 for its own kind (or a fitting integer), 3 other, 6 missing.
TEST(ConfigStoreObjects, GetterTypeMatrix) {
  ObjectPtr sw = NewSwitch("sw");
  Object *o = sw.get();
  Object *sub = nullptr;
  ASSERT_EQ(cs::SetValueStr(o, "str", "t"), cs::kOk);
  ASSERT_EQ(cs::SetValueInt(o, "int", 5), cs::kOk);
  ASSERT_EQ(cs::SetValueBool(o, "bool", false), cs::kOk);
  ASSERT_EQ(cs::SetValueBinary(o, "bin", "", 0), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "strs", "s"), cs::kOk);
  ASSERT_EQ(cs::AppendValueInt(o, "ints", 1), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "single", nullptr, &sub), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "items", "i1", &sub), cs::kOk);

  using Getter = int (*)(Object *, const char *);
  const Getter getters[] = {
      [](Object *x, const char *k) { char *v = nullptr; int s = cs::GetValueStr(x, k, &v); free(v); return s; },
      [](Object *x, const char *k) { int32_t v; return cs::GetValueInt(x, k, &v); },
      [](Object *x, const char *k) { uint32_t v; return cs::GetValueUint32(x, k, &v); },
      [](Object *x, const char *k) { uint16_t v; return cs::GetValueUint16(x, k, &v); },
      [](Object *x, const char *k) { int64_t v; return cs::GetValueLong(x, k, &v); },
      [](Object *x, const char *k) { uint8_t v; return cs::GetValueBool(x, k, &v); },
      [](Object *x, const char *k) {
        uint8_t *v = nullptr;
        int n, s = cs::GetValueBinary(x, k, &v, &n);
        free(v);
        return s;
      },
      [](Object *x, const char *k) {
        char **v = nullptr;
        int n = 0, s = cs::GetValueStringArray(x, k, &v, &n);
        cs::DestroyStringArrayValue(&v, n);
        return s;
      },
  };
  const struct {
    const char *key;
    int expect[8];
  } rows[] = {
      {"str", {0, 3, 3, 3, 3, 3, 3, 3}},     {"int", {3, 0, 0, 0, 0, 3, 3, 3}},
      {"bool", {3, 3, 3, 3, 3, 0, 3, 3}},    {"bin", {3, 3, 3, 3, 3, 3, 0, 3}},
      {"strs", {3, 3, 3, 3, 3, 3, 3, 0}},    {"ints", {3, 3, 3, 3, 3, 3, 3, 3}},
      {"single", {3, 3, 3, 3, 3, 3, 3, 3}},  {"items", {3, 3, 3, 3, 3, 3, 3, 3}},
      {"missing", {6, 6, 6, 6, 6, 6, 6, 6}},
  };
  for (const auto &row : rows)
    for (int g = 0; g < 8; ++g)
      EXPECT_EQ(getters[g](o, row.key), row.expect[g]) << row.key << " getter " << g;
}

TEST(ConfigStoreObjects, IntegerRanges) {
  ObjectPtr sw = NewSwitch("sw");
  Object *o = sw.get();
  int32_t i32 = 11;
  uint32_t u32 = 11;
  uint16_t u16 = 11;
  int64_t i64 = 11;
  ASSERT_EQ(cs::SetValueUint32(o, "a", 70000), cs::kOk);
  EXPECT_EQ(cs::GetValueUint16(o, "a", &u16), cs::kOutOfRange);
  EXPECT_EQ(u16, 11);  // untouched on failure
  EXPECT_EQ(cs::GetValueInt(o, "a", &i32), cs::kOk);
  EXPECT_EQ(i32, 70000);
  ASSERT_EQ(cs::SetValueInt(o, "b", -1), cs::kOk);
  EXPECT_EQ(cs::GetValueUint32(o, "b", &u32), cs::kOutOfRange);
  EXPECT_EQ(cs::GetValueUint16(o, "b", &u16), cs::kOutOfRange);
  EXPECT_EQ(cs::GetValueLong(o, "b", &i64), cs::kOk);
  EXPECT_EQ(i64, -1);
  ASSERT_EQ(cs::SetValueUint32(o, "c", 4000000000u), cs::kOk);
  EXPECT_EQ(cs::GetValueInt(o, "c", &i32), cs::kOutOfRange);
  EXPECT_EQ(cs::GetValueUint32(o, "c", &u32), cs::kOk);
  EXPECT_EQ(u32, 4000000000u);
  ASSERT_EQ(cs::SetValueLong(o, "d", int64_t{1} << 40), cs::kOk);
  EXPECT_EQ(cs::GetValueUint32(o, "d", &u32), cs::kOutOfRange);
  ASSERT_EQ(cs::SetValueUint16(o, "e", 65535), cs::kOk);
  EXPECT_EQ(cs::GetValueUint16(o, "e", &u16), cs::kOk);
  EXPECT_EQ(u16, 65535);
}

TEST(ConfigStoreObjects, SingletonsAndInstanceLists) {
  ObjectPtr sw = NewSwitch("sw");
  Object *o = sw.get();
  Object *a = nullptr, *b = nullptr;
  EXPECT_EQ(cs::GetSubObject(o, "settings", "", &a), cs::kNotFound);
  EXPECT_EQ(a, nullptr);
  ASSERT_EQ(cs::CreateSubObject(o, "settings", "", &a), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "settings", nullptr, &b), cs::kOk);  // existing one
  EXPECT_EQ(a, b);
  ASSERT_EQ(cs::GetSubObject(o, "settings", nullptr, &b), cs::kOk);
  EXPECT_EQ(a, b);
  EXPECT_EQ(cs::GetSubObject(o, "settings", "x", &b), cs::kTypeMismatch);

  // Instances keep their order and their handles while others are added.
  Object *first = nullptr;
  ASSERT_EQ(cs::CreateSubObject(o, "ports", "p2", &first), cs::kOk);
  for (int i = 0; i < 100; ++i) {
    Object *p = nullptr;
    ASSERT_EQ(cs::CreateSubObject(o, "ports", ("q" + std::to_string(i)).c_str(), &p), cs::kOk);
  }
  ASSERT_EQ(cs::SetValueStr(first, "name", "still here"), cs::kOk);
  ASSERT_EQ(cs::GetSubObject(o, "ports", "p2", &b), cs::kOk);
  EXPECT_EQ(b, first);
  EXPECT_EQ(Str(first, "key"), "p2");
  EXPECT_EQ(Keys(o, "ports").size(), 101u);
  EXPECT_EQ(Keys(o, "ports").front(), "p2");
  EXPECT_EQ(cs::GetSubObject(o, "ports", "", &b), cs::kTypeMismatch);
  EXPECT_EQ(cs::GetSubObject(o, "ports", "nope", &b), cs::kNotFound);

  // "key" is the instance id: setting it renames, unless taken.
  EXPECT_EQ(cs::SetValueStr(first, "key", "q0"), cs::kConflict);
  ASSERT_EQ(cs::SetValueStr(first, "key", "renamed"), cs::kOk);
  EXPECT_EQ(cs::GetSubObject(o, "ports", "p2", &b), cs::kNotFound);
  ASSERT_EQ(cs::GetSubObject(o, "ports", "renamed", &b), cs::kOk);
  EXPECT_EQ(b, first);
  EXPECT_EQ(cs::SetValueInt(first, "key", 1), cs::kBadArgument);
  EXPECT_EQ(cs::RemoveValue(first, "key"), cs::kBadArgument);

  // A deleted sub-object's handle answers 6 instead of dangling.
  ASSERT_EQ(cs::DeleteSubObject(o, "ports", "renamed"), cs::kOk);
  EXPECT_EQ(cs::SetValueStr(first, "name", "x"), cs::kNotFound);
  EXPECT_EQ(cs::DeleteSubObject(o, "ports", "renamed"), cs::kNotFound);
  ASSERT_EQ(cs::DeleteSubObject(o, "settings", ""), cs::kOk);
  EXPECT_EQ(cs::GetValueStr(a, "key", nullptr), cs::kBadArgument);
  char *v = nullptr;
  EXPECT_EQ(cs::GetValueStr(a, "x", &v), cs::kNotFound);
  EXPECT_EQ(cs::DeleteSubObject(o, "settings", ""), cs::kNotFound);

  cs::Filter *one = ListFilter("ports", "q5");
  cs::Filter *all = ListFilter("ports");
  Object **items = nullptr;
  int n = 0;
  ASSERT_EQ(cs::GetSubObjectInstances(o, one, &items, &n), cs::kOk);
  ASSERT_EQ(n, 1);
  EXPECT_EQ(Str(items[0], "key"), "q5");
  free(items);
  ASSERT_EQ(cs::DeleteSubObjectInstances(o, one), cs::kOk);
  EXPECT_EQ(cs::GetSubObjectInstances(o, one, &items, &n), cs::kNotFound);
  EXPECT_EQ(items, nullptr);
  EXPECT_EQ(cs::DeleteSubObjectInstances(o, one), cs::kNotFound);
  ASSERT_EQ(cs::DeleteSubObjectInstances(o, all), cs::kOk);
  EXPECT_EQ(cs::GetSubObjectInstances(o, all, &items, &n), cs::kNotFound);
  EXPECT_EQ(cs::DeleteSubObjectInstances(o, all), cs::kNotFound);
  cs::DestroyFilterSpecObject(one);
  cs::DestroyFilterSpecObject(all);
  EXPECT_EQ(Json(o), "{}");
}

TEST(ConfigStoreObjects, EmptyListsBecomeWhatIsPutInThem) {
  ObjectPtr sw = NewSwitch("sw");
  Object *o = sw.get();
  Object *inst = nullptr, *old = nullptr;
  // An empty list holds instances, strings or ints, whichever comes first.
  ASSERT_EQ(cs::SetValueEmptyList(o, "pvlans"), cs::kOk);
  EXPECT_EQ(cs::GetSubObject(o, "pvlans", "x", &inst), cs::kNotFound);
  EXPECT_EQ(Keys(o, "pvlans"), std::vector<std::string>{});
  ASSERT_EQ(cs::CreateSubObject(o, "pvlans", "x", &old), cs::kOk);
  EXPECT_EQ(cs::AppendValueString(o, "pvlans", "s"), cs::kTypeMismatch);
  // Emptying the list again cuts the old instances off.
  ASSERT_EQ(cs::SetValueEmptyList(o, "pvlans"), cs::kOk);
  EXPECT_EQ(cs::SetValueUint16(old, "primary_id", 1), cs::kNotFound);
  EXPECT_EQ(cs::GetSubObject(o, "pvlans", "x", &inst), cs::kNotFound);
  ASSERT_EQ(cs::AppendValueInt(o, "pvlans", 3), cs::kOk);
  EXPECT_EQ(cs::AppendValueString(o, "pvlans", "s"), cs::kTypeMismatch);
  EXPECT_EQ(cs::CreateSubObject(o, "pvlans", "y", &inst), cs::kTypeMismatch);
  ASSERT_EQ(cs::SetValueStr(o, "text", "t"), cs::kOk);
  EXPECT_EQ(cs::AppendValueInt(o, "text", 1), cs::kTypeMismatch);
  // Overwriting a singleton with a value also cuts it off.
  ASSERT_EQ(cs::CreateSubObject(o, "settings", "", &old), cs::kOk);
  ASSERT_EQ(cs::SetValueBool(o, "settings", true), cs::kOk);
  EXPECT_EQ(cs::SetValueBool(old, "x", true), cs::kNotFound);
  ASSERT_EQ(cs::RemoveValue(o, "settings"), cs::kOk);
  EXPECT_EQ(cs::RemoveValue(o, "settings"), cs::kNotFound);
  EXPECT_EQ(Json(o), R"({"pvlans":[3],"text":"t"})");
}

TEST(ConfigStoreObjects, BadArguments) {
  ObjectPtr sw = NewSwitch("sw");
  Object *o = sw.get();
  Object *sub = nullptr;
  int32_t i = 0;
  EXPECT_EQ(cs::SetValueInt(nullptr, "k", 1), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueInt(o, nullptr, 1), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueInt(o, "", 1), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueInt(o, "@types", 1), cs::kBadArgument);
  EXPECT_EQ(cs::GetValueInt(o, "k", nullptr), cs::kBadArgument);
  EXPECT_EQ(cs::GetValueInt(nullptr, "k", &i), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueStr(o, "k", nullptr), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueBinary(o, "k", "x", -1), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueBinary(o, "k", nullptr, 2), cs::kBadArgument);
  EXPECT_EQ(cs::AppendValueString(o, "k", nullptr), cs::kBadArgument);
  EXPECT_EQ(cs::CreateSubObject(o, nullptr, "", &sub), cs::kBadArgument);
  ASSERT_EQ(cs::CreateSubObject(o, "s", "", &sub), cs::kOk);
  EXPECT_EQ(cs::DestroyConfigStoreObject(sub), cs::kBadArgument);  // owned by its root
  EXPECT_EQ(cs::DestroyConfigStoreObject(nullptr), cs::kOk);

  cs::Filter *f = nullptr;
  EXPECT_EQ(cs::CreateFilterSpecObject("a", "b", "", "", &f), cs::kBadArgument);
  EXPECT_EQ(cs::CreateFilterSpecObject("", "", "", "", &f), cs::kBadArgument);
  ASSERT_EQ(cs::CreateFilterSpecObject("switches", "network_zel", "orn", nullptr, &f), cs::kOk);
  Object **items = nullptr;
  int n = 0;
  EXPECT_EQ(cs::GetSubObjectInstances(o, f, &items, &n), cs::kBadArgument);
  EXPECT_EQ(cs::DeleteSubObjectInstances(o, f), cs::kBadArgument);
  EXPECT_EQ(cs::GetSubObjectInstances(o, nullptr, &items, &n), cs::kBadArgument);
  cs::DestroyFilterSpecObject(f);

  Object *at = o;
  int status = cs::kOk;
  for (int depth = 0; depth < 40 && status == cs::kOk; ++depth)
    status = cs::CreateSubObject(at, "n", "", &at);
  EXPECT_EQ(status, cs::kOutOfRange);
}

TEST(ConfigStoreObjects, MalformedContentIsRefused) {
  const char *bad[] = {
      "", "[", "[]", R"({"a":null})", R"({"a":1.5})", R"({"a":18446744073709551615})",
      R"({"@types":[]})", R"({"@types":{"a":1},"a":1})", R"({"@types":{"a":"uint16"},"a":70000})",
      R"({"@types":{"a":"int32"},"a":"text"})", R"({"@types":{"a":"float"},"a":1})",
      R"({"@types":{"b":"binary"},"b":"!!!!"})", R"({"@types":{"b":"binary"},"b":"QQ="})",
      R"({"@types":{"s":"int32"},"s":{}})", R"({"l":["a",1]})", R"({"l":[1,"a"]})",
      R"({"l":[{"name":"no key"}]})", R"({"l":[{"key":""}]})", R"({"l":[{"key":7}]})",
      R"({"l":[{"key":"a"},{"key":"a"}]})", R"({"l":[{"key":"a"},"b"]})", R"({"":1})", "1",
      R"("text")", R"({"@types":1})", R"({"@types":{"a":"int32"},"@types":{},"a":1})",
      R"({"@types":{"a":{}}})", R"({"a":[[1]]})", R"({"a":1,"a":2})", R"({"a":[true]})",
      "{\"a\":\"\xff\"}", R"({"@types":{"s":"string_base64"},"s":"*"})"
  };
  for (const char *text : bad) {
    Object *o = reinterpret_cast<Object *>(1);
    EXPECT_EQ(cs::CreateObject("switches", "network_zel", "orn", "x", text, &o), cs::kBadArgument)
        << text;
    EXPECT_EQ(o, nullptr);
  }
  std::string deep;
  for (int i = 0; i < 40; ++i) deep += R"({"n":)";
  deep += "{}" + std::string(40, '}');
  Object *o = nullptr;
  EXPECT_EQ(cs::CreateObject("switches", "network_zel", "orn", "x", deep.c_str(), &o),
            cs::kBadArgument);
  // Hand-written content may name the obvious types or leave them out.
  ASSERT_EQ(cs::CreateObject("switches", "network_zel", "orn", "x",
                             R"({"@types":{"s":"string","b":"bool","l":"string_list","e":"list"},)"
                             R"("s":"t","b":false,"l":["x"],"e":[],"n":12})",
                             &o),
            cs::kOk);
  ObjectPtr owner(o);
  int64_t n = 0;
  EXPECT_EQ(cs::GetValueLong(o, "n", &n), cs::kOk);
  EXPECT_EQ(n, 12);
  EXPECT_EQ(Json(o), R"({"@types":{"n":"int64"},"b":false,"e":[],"l":["x"],"n":12,"s":"t"})");
}

// Text that is not UTF-8 is kept as base64 and comes back byte for byte; keys must be UTF-8.
TEST(ConfigStoreObjects, NonUtf8TextKeepsItsBytes) {
  ObjectPtr sw = NewSwitch("sw");
  Object *o = sw.get();
  Object *inst = nullptr;
  ASSERT_EQ(cs::SetValueStr(o, "s", "\xff"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "l", "ok"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "l", "\xfe"), cs::kOk);
  ASSERT_EQ(cs::SetValueStr(o, "u", "gr\xc3\xbc\xc3\x9f \"q\"\n"), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "data", "\xc0\x80", &inst), cs::kOk);  // overlong NUL
  const std::string golden =
      R"({"@types":{"l":"string_list_base64","s":"string_base64"},"data":[{"@types":{"key":"string_base64"},"key":"wIA="}],)"
      R"("l":["b2s=","/g=="],"s":"/w==","u":)"
      "\"gr\xc3\xbc\xc3\x9f \\\"q\\\"\\n\"}";
  EXPECT_EQ(Json(o), golden);
  Object *copy = nullptr;
  ASSERT_EQ(cs::CreateObject("a", "b", "c", "d", golden.c_str(), &copy), cs::kOk);
  ObjectPtr owner(copy);
  EXPECT_EQ(Str(copy, "s"), "\xff");
  EXPECT_EQ(Str(copy, "u"), "gr\xc3\xbc\xc3\x9f \"q\"\n");
  ASSERT_EQ(cs::GetSubObject(copy, "data", "\xc0\x80", &inst), cs::kOk);
  char **arr = nullptr;
  int n = 0;
  ASSERT_EQ(cs::GetValueStringArray(copy, "l", &arr, &n), cs::kOk);
  ASSERT_EQ(n, 2);
  EXPECT_STREQ(arr[1], "\xfe");
  cs::DestroyStringArrayValue(&arr, n);
  EXPECT_EQ(cs::SetValueStr(o, "\xff", "x"), cs::kBadArgument);
  EXPECT_EQ(cs::CreateSubObject(o, "\xed\xa0\x80", "", &inst), cs::kBadArgument);  // surrogate
}

TEST(ConfigStoreObjects, Base64EdgeLengths) {
  const uint8_t bytes[] = {0xFB, 0xFF, 0x00, 0x61};
  const char *expect[] = {R"("")", R"("+w==")", R"("+/8=")", R"("+/8A")", R"("+/8AYQ==")"};
  for (int len = 0; len <= 4; ++len) {
    ObjectPtr sw = NewSwitch("sw");
    ASSERT_EQ(cs::SetValueBinary(sw.get(), "b", bytes, len), cs::kOk);
    EXPECT_EQ(Json(sw.get()), std::string(R"({"@types":{"b":"binary"},"b":)") + expect[len] + "}");
    Object *copy = nullptr;
    ASSERT_EQ(cs::CreateObject("a", "b", "c", "d", Json(sw.get()).c_str(), &copy), cs::kOk);
    ObjectPtr owner(copy);
    uint8_t *data = nullptr;
    int n = -1;
    ASSERT_EQ(cs::GetValueBinary(copy, "b", &data, &n), cs::kOk);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(n, len);
    EXPECT_EQ(memcmp(data, bytes, len), 0);
    free(data);
  }
}

}  // namespace
