#include "programs/common/client/JsonWriter.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "programs/common/client/JsonObject.h"
#include "programs/common/client/JsonTree.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

using nlohmann::json;

namespace {

// As nlohmann's own writer does it.
void ExpectUsual(const json& document) {
  constexpr auto kReplace = json::error_handler_t::replace;
  EXPECT_EQ(programs::WriteJson(document), document.dump(-1, ' ', false, kReplace));
  EXPECT_EQ(programs::WriteJson(document, 2), document.dump(2, ' ', false, kReplace));
}

json Parse(const std::string& text) {
  programs::JsonTree tree;
  return programs::ParseJson(text, tree) ? tree.TakeDocument() : json(json::value_t::discarded);
}

}  // namespace

TEST(JsonWriter, WritesTextsOfAnyBytesAsUsual) {
  RandomDocuments documents(11);
  for (int i = 0; i < 2000; ++i) ExpectUsual(documents.NextText(20));
  for (const char* text :
       {"\xC3", "\xC0\x80", "\xE2\x82", "\xE2\x82x", "\xE0\x9F\x80", "\xED\xA0\x80", "\xF0\x8F\x80\x80", "\xF0\x9F\x98",
        "\xF4\x90\x80\x80", "\xF5", "a\x80z", "\xF0\x9F\x98\x80", "\xEF\xBB\xBF", "\x7F"})
    ExpectUsual(text);
  for (unsigned char byte = 0; byte < 0xFF; ++byte) ExpectUsual(std::string(1, static_cast<char>(byte)));
}

TEST(JsonWriter, WritesDocumentsAsUsual) {
  for (const char* text : {"{}", "[]", "null", "[true, false, null]", R"({"b": {}, "a": [[], {"c": [1, -2]}]})",
                           "[18446744073709551615, -9223372036854775808, 0]", R"([{"a": 1}, {"b": [{}]}])"})
    ExpectUsual(json::parse(text));
}

TEST(JsonWriter, WritesFractionsThatReadBack) {
  for (const double number : {0.1, 0.042, 1e-5, 123456.789, 2.0, -0.0, 1e300, 1.0 / 3}) {
    ExpectUsual(number);
    EXPECT_EQ(json::parse(programs::WriteJson(number)).get<double>(), number);
  }
  EXPECT_EQ(programs::WriteJson(std::numeric_limits<double>::infinity()), "null");
}

TEST(JsonTree, IsWhatTheUsualParserMakes) {
  for (const char* text : {"{}", "[]", "1", "-1", "1.5", "\"x\"", "true", "null",
                           R"({"a": {"b": [1, {"c": null}, []], "d": {}}, "e": "f"})", R"([[1], [2, [3]], {"a": [4]}])",
                           R"({"a": [1, 2], "a": {"b": 3}})", "\xEF\xBB\xBF{}"})
    EXPECT_EQ(Parse(text), json::parse(text)) << text;
}

TEST(JsonTree, TakesNoTextThatIsNotJson) {
  for (const char* text : {"", "{", "[1", "1 2", "{\"a\"}", "[1,]", "nul", "\"\xFF\"", "1e999", "{\"a\": 1,}"})
    EXPECT_TRUE(Parse(text).is_discarded()) << text;
}

TEST(JsonObject, HoldsMembersOfAllTypes) {
  const std::string text = "t";
  const json object = programs::JsonObject()
                          .Add("a", text)
                          .Add("b", "u")
                          .Add("c", -1)
                          .Add("d", std::uint64_t{18446744073709551615U})
                          .Add("e", true)
                          .Add("f", nullptr)
                          .Add("g", json::array({1}))
                          .Add("h", 0.5)
                          .Add("b", "v")
                          .Take();
  EXPECT_EQ(programs::WriteJson(object),
            R"({"a":"t","b":"v","c":-1,"d":18446744073709551615,"e":true,"f":null,"g":[1],"h":0.5})");
}

}  // namespace tavix::test
