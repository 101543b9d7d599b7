// What the reader of stored content accepts at the edges of JSON.
#include <gtest/gtest.h>

#include "host/configstore_internal.h"

namespace cs = zel::cfgstore;

namespace {

TEST(ConfigStoreJson, ReadsStoredContentByTheSameRules) {
  using namespace std::string_literals;
  const std::pair<std::string, int> rows[] = {
      {"\xEF\xBB\xBF{\"a\":1}", cs::kOk},             // byte order mark
      {"{\"a\":1} \0garbage"s, cs::kOk},              // NUL after the object ends the text
      {"{\"a\":\"x\0y\"}"s, cs::kCorrupt},            // NUL inside a string
      {" \0{}"s, cs::kCorrupt},                       // NUL before the object
      {"{\"a\":9223372036854775808}", cs::kCorrupt},  // above the int64 range
      {"{\"a\":1.5}", cs::kCorrupt},
      {"{\"a\":null}", cs::kCorrupt},
      {"{\"a\":\"x\x01y\"}", cs::kCorrupt},   // unescaped control character
      {"{\"a\":\"\\udc00\"}", cs::kCorrupt},  // lone surrogate escape
      {"{\"a\":1,\"a\":2}", cs::kCorrupt},
      {"{}x", cs::kCorrupt},
      {"{\"a\":-0,\"s\":\"\\n\\u00e9\\ud83d\\ude00\"}", cs::kOk},
  };
  for (const auto &[text, status] : rows) {
    SCOPED_TRACE(text);
    auto root = cs::NewRoot("s1", "s2", "s3", "id");
    ASSERT_EQ(cs::ParseContent(text, *root), status);
    EXPECT_EQ(root->members.empty(), status != cs::kOk);
  }
  auto root = cs::NewRoot("s1", "s2", "s3", "id");  // negative zero is an integer
  ASSERT_EQ(cs::ParseContent(rows[11].first, *root), cs::kOk);
  EXPECT_EQ(cs::SerializeContent(*root),
            "{\"@types\":{\"a\":\"int64\"},\"a\":0,\"s\":\"\\n\xC3\xA9\xF0\x9F\x98\x80\"}");
}

}  // namespace
