// The configuration-store client: objects and their JSON form; the store on disk with its layers,
// transactions, untrusted content and ids; the tool on both layers; processes and threads at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <thread>
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
      R"("u32":"uint32","wide":"int64"},"bin":"AP8z","bool":true,"huge":4000000000,"int":5,)"
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
  EXPECT_EQ(Json(o), R"({"pvlans":[3],"text":"t"})");
}

// Nodes below a cut node are dead too, however deep, whether built by calls or read from text;
// their siblings that stay in the tree keep working.
TEST_F(ConfigStoreObjects, NodesBelowACutNodeAnswerNotFound) {
  const char *text = R"({"ports":[{"key":"p1","policy":{"vlan":{"id":4}}},{"key":"p2"}]})";
  Object *parsed = nullptr;
  ASSERT_EQ(cs::CreateObject("switches", "network_zel", "orn", "sw", text, &parsed), cs::kOk);
  sw.reset(parsed);
  o = parsed;
  Object *p1 = nullptr, *p2 = nullptr, *policy = nullptr, *vlan = nullptr;
  ASSERT_EQ(cs::GetSubObject(o, "ports", "p1", &p1), cs::kOk);
  ASSERT_EQ(cs::GetSubObject(o, "ports", "p2", &p2), cs::kOk);
  ASSERT_EQ(cs::GetSubObject(p1, "policy", "", &policy), cs::kOk);
  ASSERT_EQ(cs::GetSubObject(policy, "vlan", "", &vlan), cs::kOk);
  ASSERT_EQ(cs::SetValueInt(vlan, "id", 5), cs::kOk);
  ASSERT_EQ(cs::DeleteSubObject(o, "ports", "p1"), cs::kOk);
  EXPECT_EQ(cs::SetValueInt(vlan, "id", 6), cs::kNotFound);
  Object *again = nullptr;
  EXPECT_EQ(cs::GetSubObject(policy, "vlan", "", &again), cs::kNotFound);
  char *json = nullptr;
  EXPECT_EQ(cs::ExportObjectJson(vlan, &json), cs::kNotFound);
  EXPECT_EQ(cs::SetValueStr(p2, "name", "kept"), cs::kOk);

  // A chain made by calls, cut at its top by overwriting, and a list cut by removal.
  Object *a = nullptr, *b = nullptr, *c = nullptr, *item = nullptr, *inner = nullptr;
  ASSERT_EQ(cs::CreateSubObject(o, "a", "", &a), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(a, "b", "", &b), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(b, "c", "", &c), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(c, "items", "i1", &item), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(item, "inner", "", &inner), cs::kOk);
  ASSERT_EQ(cs::SetValueBool(o, "a", true), cs::kOk);
  EXPECT_EQ(cs::SetValueStr(item, "key", "i2"), cs::kNotFound);
  EXPECT_EQ(cs::SetValueStr(inner, "x", "y"), cs::kNotFound);
  ASSERT_EQ(cs::RemoveValue(o, "ports"), cs::kOk);
  EXPECT_EQ(cs::SetValueStr(p2, "name", "gone"), cs::kNotFound);
  EXPECT_EQ(Json(o), R"({"a":true})");
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
      R"({"@types":{"b":"binary"},"b":5})", R"({"@types":{"x":"list"},"x":"a"})",
      R"({"@types":{"s":"int32"},"s":{}})", R"({"l":["a",1]})", R"({"l":[1,"a"]})",
      R"({"l":[{"name":"no key"}]})", R"({"l":[{"key":""}]})", R"({"l":[{"key":7}]})",
      R"({"l":[{"key":"a"},{"key":"a"}]})", R"({"l":[{"key":"a"},"b"]})",
      R"({"l":[1,{}]})", R"({"":1})", "1",
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
      {R"({"@types":{"s":"string","b":"bool","l":"string_list","e":"list","i":"int_list"},)"
       R"("s":"t","b":false,"l":["x"],"e":[],"n":12,"i":[2]})",
       R"({"@types":{"n":"int64"},"b":false,"e":[],"i":[2],"l":["x"],"n":12,"s":"t"})"},
      {R"({"@types":{"u":"uint32"},"u":0})", R"({"@types":{"u":"uint32"},"u":0})"},
      {"{\"a\":-0,\"s\":\"\\n\\u00e9\\ud83d\\ude00\"}",
       "{\"@types\":{\"a\":\"int64\"},\"a\":0,\"s\":\"\\n\xC3\xA9\xF0\x9F\x98\x80\"}"},
      // Each object's tags apply to its own members, wherever they stand.
      {R"({"@types":{"b":"uint16"},"a":{"b":70000,"@types":{"b":"int32"}},"b":2})",
       R"({"@types":{"b":"uint16"},"a":{"@types":{"b":"int32"},"b":70000},"b":2})"},
  };
  for (const auto &[text, stored] : good) {
    auto root = cs::NewRoot("s1", "s2", "s3", "id");
    ASSERT_EQ(cs::ParseContent(text, *root), cs::kOk) << text;
    EXPECT_EQ(cs::WriteContent(*root).view(), stored);
  }
}

// Text that is not UTF-8 is kept as base64 and comes back byte for byte, as binary values do
// at every length of the last group; keys must be UTF-8.
TEST_F(ConfigStoreObjects, TextAndBinaryKeepTheirBytes) {
  Object *inst = nullptr;
  ASSERT_EQ(cs::SetValueStr(o, "s", "\xff"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "l", "ok"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "l", "\xfe"), cs::kOk);
  ASSERT_EQ(cs::AppendValueString(o, "m", "ok"), cs::kOk);  // plain beside tagged text
  ASSERT_EQ(cs::SetValueStr(o, "u", "gr\xc3\xbc\xc3\x9f \"q\"\n"), cs::kOk);
  ASSERT_EQ(cs::CreateSubObject(o, "data", "\xc0\x80", &inst), cs::kOk);  // overlong NUL
  ASSERT_EQ(cs::SetValueBinary(o, "b", "\xfb\xff\x00\x61", 4), cs::kOk);
  ASSERT_EQ(cs::SetValueBinary(o, "e", "", 0), cs::kOk);
  const std::string golden =
      R"({"@types":{"b":"binary","e":"binary","l":"string_list_base64","s":"string_base64"},)"
      R"("b":"+/8AYQ==","data":[{"@types":{"key":"string_base64"},"key":"wIA="}],"e":"",)"
      R"("l":["b2s=","/g=="],"m":["ok"],"s":"/w==","u":)"
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

// Members are written in byte order of their keys (bytes above 0x7f after ASCII, a prefix before
// the longer key), and each is found again, also among keys that share long prefixes.
TEST_F(ConfigStoreObjects, KeysInByteOrderAndFoundAgain) {
  const std::string ordered[] = {"backing_type",        "blocked_ports",       "connectio",
                                 "connection",          "connection_",         "connection_a",
                                 "connection_b",        "connection_cookie_1", "connection_cookie_2",
                                 "connect\xc3\xa9",     "z",                   "\xc3\xa9"};
  const int insertion[] = {6, 11, 5, 3, 1, 2, 8, 7, 10, 9, 0, 4};
  for (int i : insertion) ASSERT_EQ(cs::SetValueInt(o, ordered[i].c_str(), i), cs::kOk);
  std::string types, values;
  for (int i = 0; i < 12; ++i) {
    types += (i > 0 ? ",\"" : "\"") + ordered[i] + "\":\"int32\"";
    values += ",\"" + ordered[i] + "\":" + std::to_string(i);
  }
  EXPECT_EQ(Json(o), "{\"@types\":{" + types + "}" + values + "}");
  for (int i = 0; i < 12; ++i) {
    int32_t got = -1;
    EXPECT_EQ(cs::GetValueInt(o, ordered[i].c_str(), &got), cs::kOk) << ordered[i];
    EXPECT_EQ(got, i);
  }
  int32_t got = 0;
  EXPECT_EQ(cs::GetValueInt(o, "connection_cookie_", &got), cs::kNotFound);
}

// A byte that needs an escape, or that is not UTF-8, is found at every position of short and long
// keys and texts.
TEST_F(ConfigStoreObjects, EscapesAndBadBytesFoundAtEveryPosition) {
  for (size_t n = 1; n <= 20; ++n) {
    for (size_t at = 0; at < n; ++at) {
      SCOPED_TRACE(std::to_string(n) + " " + std::to_string(at));
      std::string text(n, 'a');
      text[at] = '"';
      const std::string quoted = '"' + text.substr(0, at) + "\\\"" + text.substr(at + 1) + '"';
      ASSERT_EQ(cs::SetValueStr(o, text.c_str(), text.c_str()), cs::kOk);
      EXPECT_EQ(Json(o), "{" + quoted + ":" + quoted + "}");
      ASSERT_EQ(cs::RemoveValue(o, text.c_str()), cs::kOk);
      text[at] = '\x80';
      EXPECT_EQ(cs::SetValueStr(o, text.c_str(), "x"), cs::kBadArgument);
      ASSERT_EQ(cs::SetValueStr(o, "v", text.c_str()), cs::kOk);
      EXPECT_EQ(Json(o).find(R"({"@types":{"v":"string_base64"})"), 0u);
      ASSERT_EQ(cs::RemoveValue(o, "v"), cs::kOk);
    }
  }
}

// Values far larger than the pieces an object's memory is taken in, mixed
// with small ones made before and after them, keep their bytes both in
// memory and through the stored form.
TEST_F(ConfigStoreObjects, LargeValuesBesideSmallOnes) {
  const std::string big(100000, 'x');
  std::string bytes(40000, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  ASSERT_EQ(cs::SetValueStr(o, "before", "small"), cs::kOk);
  ASSERT_EQ(cs::SetValueStr(o, "big", big.c_str()), cs::kOk);
  ASSERT_EQ(cs::SetValueBinary(o, "bytes", bytes.data(), static_cast<int>(bytes.size())), cs::kOk);
  ASSERT_EQ(cs::SetValueStr(o, "after", "tiny"), cs::kOk);
  Object *copy = nullptr;
  const std::string json = Json(o);
  ASSERT_EQ(cs::CreateObject("a", "b", "c", "d", json.c_str(), &copy), cs::kOk);
  ObjectPtr owner(copy);
  for (Object *obj : {o, copy}) {
    EXPECT_EQ(Str(obj, "before"), "small");
    EXPECT_EQ(Str(obj, "big"), big);
    EXPECT_EQ(Str(obj, "after"), "tiny");
    uint8_t *data = nullptr;
    int length = 0;
    ASSERT_EQ(cs::GetValueBinary(obj, "bytes", &data, &length), cs::kOk);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(data), static_cast<size_t>(length)), bytes);
    std::free(data);
  }
  EXPECT_EQ(Json(copy), json);
}

class ConfigStoreStore : public ::testing::Test {
 protected:
  TempStore tmp;
  StorePtr store = OpenStore();
};

TEST_F(ConfigStoreStore, FileCreatedPrivateAtConfiguredPath) {
  // With no override the environment names the file; its directory is created.
  cs::testing::UsePath(nullptr);
  const std::string dir = tmp.path().substr(0, tmp.path().rfind('/')) + "/sub";
  setenv(cs::kPathEnv, (dir + "/env.db").c_str(), 1);
  StorePtr envStore = OpenStore();
  ASSERT_NE(envStore, nullptr);
  struct stat st {};
  ASSERT_EQ(stat((dir + "/env.db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // A one-letter name is a path relative to the working directory like any other.
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  setenv(cs::kPathEnv, "x", 1);
  StorePtr relative = OpenStore();
  unsetenv(cs::kPathEnv);
  std::filesystem::current_path(cwd);
  EXPECT_EQ(stat((dir + "/x").c_str(), &st), 0);
  cs::Store *s = reinterpret_cast<cs::Store *>(1);
  EXPECT_EQ(cs::GetStore(1, &s), cs::kBadArgument);
  EXPECT_EQ(s, nullptr);
}

TEST_F(ConfigStoreStore, SetGetDeleteAndStoredForm) {
  Object *got = reinterpret_cast<Object *>(1);
  EXPECT_EQ(cs::Get(store.get(), "switches", "network_zel", "orn", "sw1", &got), cs::kNotFound);
  EXPECT_EQ(got, nullptr);
  ObjectPtr sw = SwitchWith("sw1", "first");
  Object *port = nullptr;
  ASSERT_EQ(cs::CreateSubObject(sw.get(), "ports", "p1", &port), cs::kOk);
  ASSERT_EQ(cs::SetValueUint32(port, "connection_cookie", 77), cs::kOk);
  ASSERT_EQ(cs::Set(store.get(), sw.get(), "EXTERNAL"), cs::kOk);
  EXPECT_EQ(RawContent(tmp.path(), "current", "sw1"),
            R"({"name":"first","ports":[{"@types":{"connection_cookie":"uint32"},)"
            R"("connection_cookie":77,"key":"p1"}],"uuid":"sw1"})");
  EXPECT_EQ(cs::Set(store.get(), port, "EXTERNAL"), cs::kBadArgument);  // not top-level
  EXPECT_EQ(cs::SetDesired(store.get(), port), cs::kBadArgument);
  EXPECT_EQ(cs::Set(store.get(), sw.get(), nullptr), cs::kBadArgument);
  EXPECT_EQ(cs::Get(store.get(), "switches", "", "orn", "sw1", &got), cs::kBadArgument);
  ASSERT_EQ(cs::Delete(store.get(), "switches", "network_zel", "orn", "sw1"), cs::kOk);
  EXPECT_EQ(cs::Delete(store.get(), "switches", "network_zel", "orn", "sw1"), cs::kNotFound);
}

TEST_F(ConfigStoreStore, InstancesOrderedAndFiltered) {
  int status = -1;
  EXPECT_EQ(SwitchUuids(store.get(), &status), std::vector<std::string>{});
  EXPECT_EQ(status, cs::kOk);  // an empty store is not an error
  for (const char *id : {"b", "c", "a"})
    ASSERT_EQ(cs::Set(store.get(), SwitchWith(id, id).get(), "EXTERNAL"), cs::kOk);
  Object *other = nullptr;
  ASSERT_EQ(cs::CreateObject("switches", "network_zel", "other", "a", "{}", &other), cs::kOk);
  ObjectPtr owner(other);
  ASSERT_EQ(cs::Set(store.get(), other, "EXTERNAL"), cs::kOk);
  EXPECT_EQ(SwitchUuids(store.get()), (std::vector<std::string>{"a", "b", "c"}));

  EXPECT_EQ(SwitchUuids(store.get(), &status, "c"), std::vector<std::string>{"c"});
  EXPECT_EQ(status, cs::kOk);
  EXPECT_EQ(SwitchUuids(store.get(), &status, "zz"), std::vector<std::string>{});
  EXPECT_EQ(status, cs::kNotFound);
  cs::Filter *f = ListFilter("ports");
  Object **objs = nullptr;
  int n = 0;
  EXPECT_EQ(cs::GetInstances(store.get(), f, &objs, &n), cs::kBadArgument);
  cs::DestroyFilterSpecObject(f);
}

// Runs "zelctl store" on the test's database; returns its exit status and output.
int Tool(const TempStore &tmp, const std::string &args, std::string *out = nullptr) {
  const std::string cmd = ZELCTL_PATH " store --db '" + tmp.path() + "' " + args + " 2>/dev/null";
  FILE *p = popen(cmd.c_str(), "r");
  std::string text;
  for (char buf[256]; fgets(buf, sizeof buf, p) != nullptr;) text += buf;
  int st = pclose(p);
  if (out != nullptr) *out = text;
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// The desired layer is separate from the current one; the tool writes and reads both.
TEST_F(ConfigStoreStore, DesiredLayerIsSeparate) {
  ASSERT_EQ(cs::SetDesired(store.get(), SwitchWith("sw2", "wanted").get()), cs::kOk);
  const std::string sw1 = R"('{"uuid":"sw1","@types":{"max_ports":"int32"},"max_ports":64}')";
  ASSERT_EQ(Tool(tmp, "--desired put switches network_zel orn sw1 " + sw1), 0);
  ASSERT_EQ(Tool(tmp, R"(put switches network_zel orn sw1 '{"uuid":"sw1"}')"), 0);
  EXPECT_EQ(SwitchUuids(store.get()), std::vector<std::string>{"sw1"});

  Object **objs = nullptr;
  int n = 0;
  ASSERT_EQ(cs::GetDesiredUserConfigInstances("switches", "network_zel", "orn", &objs, &n),
            cs::kOk);
  ASSERT_EQ(n, 2);
  EXPECT_EQ(Json(objs[0]), R"({"@types":{"max_ports":"int32"},"max_ports":64,"uuid":"sw1"})");
  EXPECT_EQ(Json(objs[1]), R"({"name":"wanted","uuid":"sw2"})");
  for (int i = 0; i < n; ++i) cs::DestroyConfigStoreObject(objs[i]);
  free(objs);

  std::string out;
  EXPECT_EQ(Tool(tmp, "--desired get switches network_zel orn sw1", &out), 0);
  EXPECT_EQ(out, "{\"@types\":{\"max_ports\":\"int32\"},\"max_ports\":64,\"uuid\":\"sw1\"}\n");
  EXPECT_EQ(Tool(tmp, "--desired delete switches network_zel orn sw1"), 0);
  EXPECT_EQ(Tool(tmp, "--desired get switches network_zel orn sw1"), 1);
  ASSERT_EQ(cs::DeleteDesired(store.get(), "switches", "network_zel", "orn", "sw2"), cs::kOk);
  EXPECT_EQ(cs::DeleteDesired(store.get(), "switches", "network_zel", "orn", "sw2"), cs::kNotFound);
}

// Commit and cancel as seen by another process are covered with the processes; here the
// transaction's own rules.
TEST_F(ConfigStoreStore, TransactionRules) {
  cs::testing::UseBusyTimeout(50);
  StorePtr writer = OpenStore();
  StorePtr second = OpenStore();
  cs::testing::UseBusyTimeout(-1);
  ASSERT_EQ(cs::BeginTransaction(writer.get()), cs::kOk);
  EXPECT_EQ(cs::BeginTransaction(writer.get()), cs::kTransaction);
  // A second writer waits, then reports busy; reading is not blocked.
  EXPECT_EQ(cs::BeginTransaction(second.get()), cs::kBusy);
  EXPECT_EQ(cs::Set(second.get(), SwitchWith("x", "x").get(), "EXTERNAL"), cs::kBusy);
  ASSERT_EQ(cs::Set(writer.get(), SwitchWith("a", "new").get(), "EXTERNAL"), cs::kOk);
  EXPECT_EQ(SwitchUuids(writer.get()), std::vector<std::string>{"a"});
  EXPECT_EQ(SwitchUuids(second.get()), std::vector<std::string>{});
  ASSERT_EQ(cs::CommitTransaction(writer.get()), cs::kOk);
  EXPECT_EQ(cs::CommitTransaction(writer.get()), cs::kTransaction);
  EXPECT_EQ(cs::CancelTransaction(writer.get()), cs::kTransaction);

  ASSERT_EQ(cs::BeginTransaction(writer.get()), cs::kOk);
  ASSERT_EQ(cs::Delete(writer.get(), "switches", "network_zel", "orn", "a"), cs::kOk);
  ASSERT_EQ(cs::CancelTransaction(writer.get()), cs::kOk);
  EXPECT_EQ(SwitchUuids(writer.get()), std::vector<std::string>{"a"});
  // Closing a store discards its open transaction.
  ASSERT_EQ(cs::BeginTransaction(writer.get()), cs::kOk);
  ASSERT_EQ(cs::Set(writer.get(), SwitchWith("d", "gone").get(), "EXTERNAL"), cs::kOk);
  writer.reset();
  EXPECT_EQ(SwitchUuids(second.get()), std::vector<std::string>{"a"});
}

TEST_F(ConfigStoreStore, UntrustedStoredContent) {
  Query(tmp.path(), "INSERT INTO objects VALUES ('current','switches','network_zel','orn','bad',"
                    "'{\"a\":',''), ('current','switches','network_zel','orn','blob',x'7b7d',''),"
                    " ('current','switches','network_zel','orn','ok','{}','')");
  Object *o = nullptr;
  EXPECT_EQ(cs::Get(store.get(), "switches", "network_zel", "orn", "bad", &o), cs::kCorrupt);
  EXPECT_EQ(o, nullptr);
  EXPECT_EQ(cs::Get(store.get(), "switches", "network_zel", "orn", "blob", &o), cs::kCorrupt);
  int status = 0;
  EXPECT_EQ(SwitchUuids(store.get(), &status), std::vector<std::string>{});
  EXPECT_EQ(status, cs::kCorrupt);
  store.reset();

  // A file of a later format, or not a database at all, is refused.
  Query(tmp.path(), "PRAGMA user_version=99");
  cs::Store *s = nullptr;
  EXPECT_EQ(cs::GetStore(0, &s), cs::kCorrupt);
  EXPECT_EQ(s, nullptr);
  TempStore other;
  FILE *f = fopen(other.path().c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs("this is not a database file, only some text that is long enough", f);
  fclose(f);
  EXPECT_EQ(cs::GetStore(0, &s), cs::kCorrupt);
}

TEST_F(ConfigStoreStore, GeneratedInstanceIdsAreRandomUuids) {
  const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  std::set<char> third;  // the byte after the version nibble is random too
  for (int i = 0; i < 200; ++i) {
    char *id = nullptr;
    ASSERT_EQ(cs::GenerateInstanceId(&id), cs::kOk);
    EXPECT_TRUE(std::regex_match(id, uuid)) << id;
    seen.insert(id);
    third.insert(id[16]);
    free(id);
  }
  EXPECT_EQ(seen.size(), 200u);
  EXPECT_GT(third.size(), 4u);
}

int SetSwitch(cs::Store *store, const std::string &id) {
  return cs::Set(store, SwitchWith(id.c_str()).get(), "EXTERNAL");
}

// One transaction: adds one to "count" of the object "counter" and writes "<tag>-<i>".
int Increment(cs::Store *store, const std::string &tag, int i) {
  int s = cs::BeginTransaction(store);
  if (s != cs::kOk) return s;
  Object *o = nullptr;
  s = cs::Get(store, "switches", "network_zel", "orn", "counter", &o);
  if (s == cs::kNotFound)
    s = cs::CreateObject("switches", "network_zel", "orn", "counter", "{}", &o);
  ObjectPtr owner(o);
  int64_t count = 0;  // until the first round sets it
  if (s == cs::kOk) cs::GetValueLong(o, "count", &count);
  if (s == cs::kOk) s = cs::SetValueLong(o, "count", count + 1);
  if (s == cs::kOk) s = cs::Set(store, o, "EXTERNAL");
  if (s == cs::kOk) s = SetSwitch(store, tag + "-" + std::to_string(i));
  if (s == cs::kOk) return cs::CommitTransaction(store);
  cs::CancelTransaction(store);
  return s;
}

int64_t Count(cs::Store *store) {
  Object *o = nullptr;
  int64_t count = -1;
  if (cs::Get(store, "switches", "network_zel", "orn", "counter", &o) == cs::kOk)
    cs::GetValueLong(o, "count", &count);
  cs::DestroyConfigStoreObject(o);
  return count;
}

// A writer killed before its commit leaves the store as it was.
TEST(ConfigStoreProcesses, KilledWriterLeavesStoreUnchanged) {
  TempStore tmp;
  StorePtr store = OpenStore();
  ASSERT_EQ(SetSwitch(store.get(), "before"), cs::kOk);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    cs::Store *s = nullptr;
    bool ok = cs::GetStore(0, &s) == cs::kOk && cs::BeginTransaction(s) == cs::kOk;
    for (int i = 0; ok && i < 5; ++i) ok = SetSwitch(s, "child-" + std::to_string(i)) == cs::kOk;
    ok = ok && cs::Delete(s, "switches", "network_zel", "orn", "before") == cs::kOk;
    char c = ok ? 'w' : 'f';
    if (write(ready[1], &c, 1) != 1) _exit(3);
    for (;;) pause();
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'w');
  EXPECT_EQ(SwitchUuids(store.get()), std::vector<std::string>{"before"});
  kill(pid, SIGKILL);
  int st = 0;
  EXPECT_EQ(waitpid(pid, &st, 0), pid);
  EXPECT_TRUE(WIFSIGNALED(st));
  for (int fd : ready) close(fd);
  StorePtr fresh = OpenStore();
  EXPECT_EQ(SwitchUuids(fresh.get()), std::vector<std::string>{"before"});
  // The store is writable again at once: the dead writer's lock is gone.
  ASSERT_EQ(cs::BeginTransaction(fresh.get()), cs::kOk);
  EXPECT_EQ(cs::CommitTransaction(fresh.get()), cs::kOk);
}

// Two processes writing at once both succeed in turn and lose nothing.
TEST(ConfigStoreProcesses, TwoWritersTakeTurns) {
  TempStore tmp;
  constexpr int kRounds = 20;
  std::vector<pid_t> pids;
  for (const char *tag : {"x", "y"}) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      cs::Store *s = nullptr;
      bool ok = cs::GetStore(0, &s) == cs::kOk;
      for (int i = 0; ok && i < kRounds; ++i) ok = Increment(s, tag, i) == cs::kOk;
      cs::DestroyStore(s);
      _exit(ok ? 0 : 1);
    }
    pids.push_back(pid);
  }
  for (int st = 0; pid_t pid : pids) EXPECT_TRUE(waitpid(pid, &st, 0) == pid && st == 0);
  StorePtr store = OpenStore();
  EXPECT_EQ(Count(store.get()), 2 * kRounds);
  EXPECT_EQ(SwitchUuids(store.get()).size(), 2u * kRounds + 1);  // and the counter itself
}

TEST(ConfigStoreConcurrency, ThreadsWithOwnStoresTakeTurns) {
  TempStore tmp;
  constexpr int kRounds = 10;
  std::vector<std::thread> threads;
  std::vector<int> failures(3, 0);
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([t, &failures] {
      cs::Store *s = nullptr;
      cs::GetStore(0, &s);  // without a store every round fails
      for (int i = 0; i < kRounds; ++i)
        failures[t] += Increment(s, "t" + std::to_string(t), i) != cs::kOk;
      cs::DestroyStore(s);
    });
  }
  for (auto &th : threads) th.join();
  EXPECT_EQ(failures, std::vector<int>(3, 0));
  StorePtr store = OpenStore();
  EXPECT_EQ(Count(store.get()), 3 * kRounds);
}

}  // namespace
