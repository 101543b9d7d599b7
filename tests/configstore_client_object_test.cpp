// In-memory objects of the configuration-store client and their JSON form.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "configstore_client_support.h"
#include "host/configstore_internal.h"

namespace {

using namespace cfgtest;
using cs::Object;

cs::Filter *ListFilter(const char *name, const char *id = "") {
  cs::Filter *f = nullptr;
  EXPECT_EQ(cs::CreateFilterSpecObject(name, "", "", id, &f), cs::kOk);
  return f;
}

class ConfigStoreObjects : public ::testing::Test {
 protected:
  ObjectPtr sw = NewSwitch("sw");
  Object *o = sw.get();
};

template <typename T, int (*Get)(Object *, const char *, T *)>
int Integer(Object *o, const char *key, int64_t *got) {
  T v = 11;
  const int s = Get(o, key, &v);
  return *got = static_cast<int64_t>(v), s;
}

// Each getter on each kind and integer range of a stored object: its status, and for the integer
// getters the value read (11, untouched, on failure); the object is written back byte for byte.
TEST_F(ConfigStoreObjects, EveryKindReadBackAndStored) {
  const char *golden =
      R"({"@types":{"bin":"binary","huge":"uint32","int":"int32","neg":"int32","u16":"uint16",)"
      R"("u32":"uint32","wide":"int64"},"bin":"AP8Q","bool":true,"huge":4000000000,"int":5,)"
      R"("ints":[1],"items":[{"key":"i1","name":"x"}],"neg":-1,)"
      R"("single":{"forwarding_class":"vswitch"},"str":"t","strs":["a","b"],"u16":65535,)"
      R"("u32":70000,"wide":1099511627776})";
  Object *parsed = nullptr;
  ASSERT_EQ(cs::CreateObject("switches", "network_zel", "orn", "sw", golden, &parsed), cs::kOk);
  sw.reset(parsed);
  o = parsed;
  EXPECT_EQ(Json(o), golden);
  using Getter = int (*)(Object *, const char *, int64_t *);
  const Getter getters[] = {
      [](Object *x, const char *k, int64_t *) {
        char *v = nullptr;
        int s = cs::GetValueStr(x, k, &v);
        return free(v), s;
      },
      Integer<int32_t, cs::GetValueInt>, Integer<uint32_t, cs::GetValueUint32>,
      Integer<uint16_t, cs::GetValueUint16>, Integer<int64_t, cs::GetValueLong>,
      [](Object *x, const char *k, int64_t *) { uint8_t v; return cs::GetValueBool(x, k, &v); },
      [](Object *x, const char *k, int64_t *) {
        uint8_t *v = nullptr;
        int n, s = cs::GetValueBinary(x, k, &v, &n);
        return free(v), s;
      },
      [](Object *x, const char *k, int64_t *) {
        char **v = nullptr;
        int n = 0, s = cs::GetValueStringArray(x, k, &v, &n);
        return cs::DestroyStringArrayValue(&v, n), s;
      },
  };
  const struct {
    const char *key;
    int64_t value;
    int expect[8];  // str, int32, uint32, uint16, int64, bool, binary, string list
  } rows[] = {
      {"str", 0, {0, 3, 3, 3, 3, 3, 3, 3}},
      {"int", 5, {3, 0, 0, 0, 0, 3, 3, 3}},
      {"u32", 70000, {3, 0, 0, 4, 0, 3, 3, 3}},
      {"neg", -1, {3, 0, 4, 4, 0, 3, 3, 3}},
      {"huge", 4000000000, {3, 4, 0, 4, 0, 3, 3, 3}},
      {"wide", int64_t{1} << 40, {3, 4, 4, 4, 0, 3, 3, 3}},
      {"u16", 65535, {3, 0, 0, 0, 0, 3, 3, 3}},
      {"bool", 0, {3, 3, 3, 3, 3, 0, 3, 3}},
      {"bin", 0, {3, 3, 3, 3, 3, 3, 0, 3}},
      {"strs", 0, {3, 3, 3, 3, 3, 3, 3, 0}},
      {"ints", 0, {3, 3, 3, 3, 3, 3, 3, 3}},
      {"single", 0, {3, 3, 3, 3, 3, 3, 3, 3}},
      {"items", 0, {3, 3, 3, 3, 3, 3, 3, 3}},
      {"missing", 0, {6, 6, 6, 6, 6, 6, 6, 6}},
  };
  for (const auto &row : rows) {
    for (int g = 0; g < 8; ++g) {
      SCOPED_TRACE(std::string(row.key) + " getter " + std::to_string(g));
      int64_t got = 11;
      EXPECT_EQ(getters[g](o, row.key, &got), row.expect[g]);
      EXPECT_EQ(got, row.expect[g] == 0 && g >= 1 && g <= 4 ? row.value : 11);
    }
  }
}

TEST_F(ConfigStoreObjects, SingletonsAndInstanceLists) {
  Object *a = nullptr, *b = nullptr;
  EXPECT_EQ(cs::GetSubObject(o, "settings", "", &a), cs::kNotFound);
  ASSERT_EQ(cs::CreateSubObject(o, "settings", "", &a), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "settings", nullptr, &b), cs::kOk);  // existing one
  EXPECT_EQ(a, b);
  EXPECT_EQ(cs::GetSubObject(o, "settings", "x", &b), cs::kTypeMismatch);

  // Instances keep their order and their handles while others are added.
  Object *first = nullptr;
  ASSERT_EQ(cs::CreateSubObject(o, "ports", "p2", &first), cs::kOk);
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(cs::CreateSubObject(o, "ports", ("q" + std::to_string(i)).c_str(), &b), cs::kOk);
  cs::Filter *one = ListFilter("ports", "q5");
  cs::Filter *all = ListFilter("ports");
  Object **items = nullptr;
  int n = 0;
  ASSERT_EQ(cs::GetSubObjectInstances(o, all, &items, &n), cs::kOk);
  ASSERT_EQ(n, 101);
  EXPECT_EQ(items[0], first);
  free(items);
  EXPECT_EQ(cs::GetSubObject(o, "ports", "", &b), cs::kTypeMismatch);

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
  EXPECT_EQ(cs::SetValueStr(a, "x", "y"), cs::kNotFound);

  ASSERT_EQ(cs::GetSubObjectInstances(o, one, &items, &n), cs::kOk);
  ASSERT_EQ(n, 1);
  EXPECT_EQ(Str(items[0], "key"), "q5");
  free(items);
  ASSERT_EQ(cs::DeleteSubObjectInstances(o, one), cs::kOk);
  EXPECT_EQ(cs::GetSubObjectInstances(o, one, &items, &n), cs::kNotFound);
  ASSERT_EQ(cs::DeleteSubObjectInstances(o, all), cs::kOk);
  EXPECT_EQ(cs::DeleteSubObjectInstances(o, all), cs::kNotFound);
  cs::DestroyFilterSpecObject(one);
  cs::DestroyFilterSpecObject(all);
  EXPECT_EQ(Json(o), "{}");
}

// An empty list holds instances, strings or ints, whichever comes first; emptying it again, or
// overwriting a singleton, cuts the old nodes off.
TEST_F(ConfigStoreObjects, EmptyListsBecomeWhatIsPutInThem) {
  Object *inst = nullptr, *old = nullptr;
  ASSERT_EQ(cs::SetValueEmptyList(o, "pvlans"), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "pvlans", "x", &old), cs::kOk);
  EXPECT_EQ(cs::AppendValueString(o, "pvlans", "s"), cs::kTypeMismatch);
  ASSERT_EQ(cs::SetValueEmptyList(o, "pvlans"), cs::kOk);
  EXPECT_EQ(cs::SetValueUint16(old, "primary_id", 1), cs::kNotFound);
  ASSERT_EQ(cs::AppendValueInt(o, "pvlans", 3), cs::kOk);
  EXPECT_EQ(cs::AppendValueString(o, "pvlans", "s"), cs::kTypeMismatch);
  EXPECT_EQ(cs::CreateSubObject(o, "pvlans", "y", &inst), cs::kTypeMismatch);
  ASSERT_EQ(cs::SetValueStr(o, "text", "t"), cs::kOk);
  EXPECT_EQ(cs::AppendValueInt(o, "text", 1), cs::kTypeMismatch);
  ASSERT_EQ(cs::CreateSubObject(o, "settings", "", &old), cs::kOk);
  ASSERT_EQ(cs::SetValueBool(o, "settings", true), cs::kOk);
  EXPECT_EQ(cs::SetValueBool(old, "x", true), cs::kNotFound);
  ASSERT_EQ(cs::RemoveValue(o, "settings"), cs::kOk);
  EXPECT_EQ(cs::RemoveValue(o, "settings"), cs::kNotFound);
  ASSERT_EQ(cs::SetValueEmptyList(o, "empty"), cs::kOk);
  EXPECT_EQ(Json(o), R"({"empty":[],"pvlans":[3],"text":"t"})");
}

TEST_F(ConfigStoreObjects, BadArguments) {
  Object *sub = nullptr;
  int32_t i = 0;
  EXPECT_EQ(cs::SetValueInt(o, "", 1), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueInt(o, "@types", 1), cs::kBadArgument);
  EXPECT_EQ(cs::GetValueInt(o, "k", nullptr), cs::kBadArgument);
  EXPECT_EQ(cs::GetValueInt(nullptr, "k", &i), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueStr(o, "k", nullptr), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueBinary(o, "k", "x", -1), cs::kBadArgument);
  EXPECT_EQ(cs::SetValueBinary(o, "k", nullptr, 2), cs::kBadArgument);
  EXPECT_EQ(cs::AppendValueString(o, "k", nullptr), cs::kBadArgument);
  ASSERT_EQ(cs::CreateSubObject(o, "s", "", &sub), cs::kOk);
  EXPECT_EQ(cs::DestroyConfigStoreObject(sub), cs::kBadArgument);  // owned by its root
  cs::Filter *f = nullptr;
  EXPECT_EQ(cs::CreateFilterSpecObject("a", "b", "", "", &f), cs::kBadArgument);
  EXPECT_EQ(cs::CreateFilterSpecObject("", "", "", "", &f), cs::kBadArgument);
  ASSERT_EQ(cs::CreateFilterSpecObject("switches", "network_zel", "orn", nullptr, &f), cs::kOk);
  Object **items = nullptr;
  int n = 0;
  EXPECT_EQ(cs::GetSubObjectInstances(o, f, &items, &n), cs::kBadArgument);
  EXPECT_EQ(cs::DeleteSubObjectInstances(o, f), cs::kBadArgument);
  cs::DestroyFilterSpecObject(f);

  Object *at = o;
  int depth = 0, status = cs::kOk;
  while ((status = cs::CreateSubObject(at, "n", "", &at)) == cs::kOk && depth < 40) ++depth;
  EXPECT_EQ(depth, 32);
  EXPECT_EQ(status, cs::kOutOfRange);
}

// Content is read whole or refused, leaving the node untouched; a byte order mark and a NUL after
// the object are tolerated, as stored content has always been read.
TEST_F(ConfigStoreObjects, ContentReadWholeOrRefused) {
  using namespace std::string_literals;
  std::string deep;
  for (int i = 0; i < 40; ++i) deep += R"({"n":)";
  deep += "{}" + std::string(40, '}');
  const std::string bad[] = {
      "", "[", "[]", R"({"a":null})", R"({"a":1.5})", R"({"a":18446744073709551615})",
      R"({"@types":[]})", R"({"@types":{"a":1},"a":1})", R"({"@types":{"a":"uint16"},"a":70000})",
      R"({"@types":{"a":"int32"},"a":"text"})", R"({"@types":{"a":"float"},"a":1})",
      R"({"@types":{"b":"binary"},"b":"!!!!"})", R"({"@types":{"b":"binary"},"b":"QQ="})",
      R"({"@types":{"s":"int32"},"s":{}})", R"({"l":["a",1]})", R"({"l":[1,"a"]})",
      R"({"l":[{"name":"no key"}]})", R"({"l":[{"key":""}]})", R"({"l":[{"key":7}]})",
      R"({"l":[{"key":"a"},{"key":"a"}]})", R"({"l":[{"key":"a"},"b"]})", R"({"":1})", "1",
      R"("text")", R"({"@types":1})", R"({"@types":{"a":"int32"},"@types":{},"a":1})",
      R"({"@types":{"a":{}}})", R"({"a":[[1]]})", R"({"a":1,"a":2})", R"({"a":[true]})",
      "{\"a\":\"\xff\"}", R"({"@types":{"s":"string_base64"},"s":"*"})",
      "{\"a\":\"x\0y\"}"s, " \0{}"s, "{\"a\":9223372036854775808}", "{}x",
      "{\"a\":\"x\x01y\"}",   // unescaped control character
      "{\"a\":\"\\udc00\"}",  // lone surrogate escape
      deep};
  for (const std::string &text : bad) {
    auto root = cs::NewRoot("s1", "s2", "s3", "id");
    EXPECT_EQ(cs::ParseContent(text, *root), cs::kCorrupt) << text;
    EXPECT_TRUE(root->members.empty());
  }
  Object *refused = reinterpret_cast<Object *>(1);
  EXPECT_EQ(cs::CreateObject("switches", "network_zel", "orn", "x", "[]", &refused),
            cs::kBadArgument);
  EXPECT_EQ(refused, nullptr);
  // Hand-written content may name the obvious types or leave them out; -0 is an integer.
  const std::pair<std::string, std::string> good[] = {
      {"\xEF\xBB\xBF{\"a\":1}", R"({"@types":{"a":"int64"},"a":1})"},
      {"{\"a\":1} \0garbage"s, R"({"@types":{"a":"int64"},"a":1})"},
      {R"({"@types":{"s":"string","b":"bool","l":"string_list","e":"list"},)"
       R"("s":"t","b":false,"l":["x"],"e":[],"n":12})",
       R"({"@types":{"n":"int64"},"b":false,"e":[],"l":["x"],"n":12,"s":"t"})"},
      {"{\"a\":-0,\"s\":\"\\n\\u00e9\\ud83d\\ude00\"}",
       "{\"@types\":{\"a\":\"int64\"},\"a\":0,\"s\":\"\\n\xC3\xA9\xF0\x9F\x98\x80\"}"},
  };
  for (const auto &[text, stored] : good) {
    auto root = cs::NewRoot("s1", "s2", "s3", "id");
    ASSERT_EQ(cs::ParseContent(text, *root), cs::kOk) << text;
    EXPECT_EQ(cs::SerializeContent(*root), stored);
  }
}

// Text that is not UTF-8 is kept as base64 and comes back byte for byte, as binary values do
// at every length of the last group; keys must be UTF-8.
TEST_F(ConfigStoreObjects, TextAndBinaryKeepTheirBytes) {
  Object *inst = nullptr;
  ASSERT_EQ(cs::SetValueStr(o, "s", "\xff"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "l", "ok"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "l", "\xfe"), cs::kOk);
  ASSERT_EQ(cs::SetValueStr(o, "u", "gr\xc3\xbc\xc3\x9f \"q\"\n"), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "data", "\xc0\x80", &inst), cs::kOk);  // overlong NUL
  ASSERT_EQ(cs::SetValueBinary(o, "b", "\xfb\xff\x00\x61", 4), cs::kOk);
  ASSERT_EQ(cs::SetValueBinary(o, "e", "", 0), cs::kOk);
  const std::string golden =
      R"({"@types":{"b":"binary","e":"binary","l":"string_list_base64","s":"string_base64"},)"
      R"("b":"+/8AYQ==","data":[{"@types":{"key":"string_base64"},"key":"wIA="}],"e":"",)"
      R"("l":["b2s=","/g=="],"s":"/w==","u":)"
      "\"gr\xc3\xbc\xc3\x9f \\\"q\\\"\\n\"}";
  EXPECT_EQ(Json(o), golden);
  Object *copy = nullptr;
  ASSERT_EQ(cs::CreateObject("a", "b", "c", "d", golden.c_str(), &copy), cs::kOk);
  ObjectPtr owner(copy);
  EXPECT_EQ(Json(copy), golden);
  EXPECT_EQ(Str(copy, "s"), "\xff");
  EXPECT_EQ(cs::SetValueStr(o, "\xff", "x"), cs::kBadArgument);
  EXPECT_EQ(cs::CreateSubObject(o, "\xed\xa0\x80", "", &inst), cs::kBadArgument);  // surrogate
}

}  // namespace
