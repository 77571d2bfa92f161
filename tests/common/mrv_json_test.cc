// The JSON reader: the documents the programs write read back whole, and
// text that is not JSON is refused with where it went wrong.
#include "common/mrv_json.h"

#include <gtest/gtest.h>

namespace {

TEST(MrvJson, ReadsNestedDocumentsWithEscapes) {
  JsonValue v;
  std::string error;
  ASSERT_TRUE(M_json_parse(R"( {"a": [1, -2.5e1, true, null], "s": "q\"\\\/\t\u00fe\u00e9x",
                               "o": {}, "e": [] } )", &v, &error)) << error;
  const JsonValue* a = v.get("a");
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->items.size(), 4u);
  EXPECT_EQ(a->items[1].number, -25);
  EXPECT_TRUE(a->items[2].boolean);
  EXPECT_EQ(a->items[3].type, JsonValue::Type::Null);
  // \u00XX above 0x7F is the byte the summary writer escaped.
  EXPECT_EQ(v.text_of("s"), std::string("q\"\\/\t\xfe\xe9x"));
  EXPECT_EQ(v.get("o")->type, JsonValue::Type::Object);
  EXPECT_EQ(v.number_of("missing", 7), 7);
  EXPECT_EQ(v.text_of("a", "fallback"), "fallback");  // of another type
  EXPECT_FALSE(v.bool_of("s"));
}

TEST(MrvJson, RefusesWhatIsNotOneValue) {
  const char* bad[] = {"", "{", "{\"a\" 1}", "[1,]", "[1 2]", "\"open", "tru", "{} x", "\"\\q\"", "\"\\u12\""};
  for (const char* text : bad) {
    JsonValue v;
    std::string error;
    EXPECT_FALSE(M_json_parse(text, &v, &error)) << text;
    EXPECT_NE(error.find("at offset"), std::string::npos) << text;
  }
  std::string deep(200, '[');
  JsonValue v;
  EXPECT_FALSE(M_json_parse(deep + std::string(200, ']'), &v, nullptr));
}

}  // namespace
