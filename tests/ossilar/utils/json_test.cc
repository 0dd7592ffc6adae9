#include "ossilar/utils/json.h"

#include <gtest/gtest.h>

#include "ossilar/utils/error.h"

namespace ossilar::utils {
namespace {

TEST(Json, TruthAndText) {
  struct Row {
    Map value;
    bool truth;
    std::string text;
  };
  const std::vector<Row> rows{
      {nullptr, false, "null"},
      {true, true, "true"},
      {0, false, "0"},
      {-0.0, false, "-0.0"},
      {0.5, true, "0.5"},
      {"", false, ""},
      {"say \"hi\"\n", true, "say \"hi\"\n"},
      {Map::array(), false, "[]"},
      {Map::array({nullptr}), true, "[null]"},
      {Map::object(), false, "{}"},
      {Map{{"z", 1}, {"a", {1, "Ü\"\\\x1F\x7F"}}}, true, "{\"z\": 1, \"a\": [1, \"Ü\\\"\\\\\\u001f\x7F\"]}"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(truthy(row.value), row.truth) << row.value;
    EXPECT_EQ(text_form(row.value), row.text);
  }
  EXPECT_FALSE(truthy(Map::binary({})));
  EXPECT_EQ(json_text("a\nb"), "\"a\\nb\"");
  EXPECT_THROW(json_text(Map{{"k", "\xFF"}}), Map::type_error);
}

// Our own writer of keys and texts must agree with the library.
TEST(JsonText, WritesEachCharacterAsTheLibraryDoes) {
  std::vector<std::string> texts{"", "\xC3\xA9\n\"", "\xF0\x9F\x98\x80", "a\\b\tc", std::string(3, '\0')};
  for (int c = 0; c < 0x80; ++c) texts.push_back("a" + std::string(1, static_cast<char>(c)) + "b");
  for (const std::string& text : texts) {
    EXPECT_EQ(json_text(text), Map(text).dump());
    EXPECT_EQ(json_text(Map{{text, 1}}), "{" + Map(text).dump() + ": 1}");
  }
  for (const Map& number : {Map(-5), Map(INT64_MIN), Map(UINT64_MAX), Map(1.5), Map(1e300), Map(0)})
    EXPECT_EQ(json_text(number), number.dump());
}

TEST(Json, DepthIsBounded) {
  const auto parse_nested = [](std::size_t depth) {
    return parse_json(std::string(depth, '[') + std::string(depth, ']'), "it");
  };
  EXPECT_NO_THROW(parse_nested(kMaxJsonDepth));
  EXPECT_THROW(parse_nested(kMaxJsonDepth + 1), Error);
  EXPECT_THROW(parse_nested(300'000), Error) << "and no stack is spent";
}

TEST(Json, MalformedTextIsRefused) {
  for (const char* text : {"{\"a\": }", "[1,]", "", "[1] x", "\"\xFF\"", "1e999"})
    EXPECT_THROW(parse_json(text, "it"), Error) << text;
}

}  // namespace
}  // namespace ossilar::utils
