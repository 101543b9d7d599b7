// What the reader of stored content accepts at the edges of JSON: the rules
// stored content has always been read by.
#include <gtest/gtest.h>

#include <string>

#include "host/configstore_internal.h"

namespace cs = zel::cfgstore;

namespace {

TEST(ConfigStoreJson, ReadsStoredContentByTheSameRules) {
  using namespace std::string_literals;
  struct Row {
    const char *what;
    std::string text;
    int status;
  };
  const Row rows[] = {
      {"byte order mark before the object", "\xEF\xBB\xBF{\"a\":1}", cs::kOk},
      {"NUL after the object ends the text", "{\"a\":1} \0garbage"s, cs::kOk},
      {"NUL inside a string", "{\"a\":\"x\0y\"}"s, cs::kCorrupt},
      {"NUL before the object", " \0{}"s, cs::kCorrupt},
      {"negative zero is an integer", "{\"a\":-0}", cs::kOk},
      {"integer above the int64 range", "{\"a\":9223372036854775808}", cs::kCorrupt},
      {"fraction", "{\"a\":1.5}", cs::kCorrupt},
      {"null", "{\"a\":null}", cs::kCorrupt},
      {"unescaped control character", "{\"a\":\"x\x01y\"}", cs::kCorrupt},
      {"lone surrogate escape", "{\"a\":\"\\udc00\"}", cs::kCorrupt},
      {"duplicate key", "{\"a\":1,\"a\":2}", cs::kCorrupt},
      {"text after the object", "{}x", cs::kCorrupt},
      {"escapes and a pair of surrogates", "{\"a\":\"\\n\\u00e9\\ud83d\\ude00\"}", cs::kOk},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.what);
    auto root = cs::NewRoot("s1", "s2", "s3", "id");
    ASSERT_EQ(cs::ParseContent(r.text, *root), r.status);
    EXPECT_EQ(root->members.empty(), r.status != cs::kOk);
  }
  auto root = cs::NewRoot("s1", "s2", "s3", "id");
  ASSERT_EQ(cs::ParseContent("{\"a\":-0,\"s\":\"\\n\\u00e9\\ud83d\\ude00\"}", *root), cs::kOk);
  EXPECT_EQ(cs::SerializeContent(*root),
            "{\"@types\":{\"a\":\"int64\"},\"a\":0,\"s\":\"\\n\xC3\xA9\xF0\x9F\x98\x80\"}");
}

}  // namespace
