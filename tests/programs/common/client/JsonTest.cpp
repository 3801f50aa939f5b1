#include "programs/common/client/Json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "programs/common/client/Failure.h"
#include "programs/common/client/JsonPlaces.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

TEST(Json, KeepsEveryDocument) {
  RandomDocuments documents(10);
  for (int i = 0; i < 300; ++i) {
    const core::IniFile document(documents.Next());
    const std::string text = programs::Pretty(programs::ToJson(document));
    EXPECT_EQ(programs::FromJson(text, "x").GetGroups(), document.GetGroups());
  }
}

TEST(Json, TakesNumbersAndTruthValuesAsTheyAreWritten) {
  EXPECT_EQ(TextOf(programs::FromJson(R"({"a": {"k": 1.50, "l": true}})", "x")), "[a]\nk=1.50\nl=true\n");
}

TEST(Json, SpellsBytesThatAreNoText) {
  EXPECT_EQ(programs::Compact(programs::ValueToJson(std::string("\xFF"))), R"({"base64":"/w=="})");
  EXPECT_EQ(programs::Compact(programs::NameToJson("base64:")), "\"base64:YmFzZTY0Og==\"");
}

TEST(Json, OfPartsIsWhatTheWholeIs) {
  for (const char* text : {"{}", R"({"a": {}})", R"({"a": {"k": "1"}, "b": {}, "c": {"k": "\n"}})"}) {
    const auto whole = nlohmann::json::parse(text);
    programs::PrettyParts parts("{}");
    std::string pretty;
    for (const auto& [name, member] : whole.items()) pretty += parts.Add({{name, member}});
    EXPECT_EQ(pretty + parts.Finish(), programs::Pretty(whole));
  }
  programs::PrettyParts list("[]");
  std::string pretty = list.Add(nlohmann::json::array({1, 2}));
  pretty += list.Add(nlohmann::json::array({3}));
  EXPECT_EQ(pretty + list.Finish(), programs::Pretty(nlohmann::json::array({1, 2, 3})));
  EXPECT_EQ(programs::PrettyParts("[]").Finish(), "[]\n");
}

TEST(Json, RefusesWhatIsNoDocument) {
  for (const char* text : {"[]", "{", R"({"a": 1})", R"({"a": {"k": null}})", R"({"a": {"k": "1", "k": "2"}})"})
    EXPECT_THROW(programs::FromJson(text, "x"), programs::Failure) << text;
}

TEST(Json, ValuesAreListedByTheirPlaces) {
  const std::string text = R"({"a": [1, {"b": "x", "c": null}, []], "d": {"e": true, "f": -1, "g": false}, "h": 2.5})";
  const programs::JsonPlaces expected{{"", "{an object"},     {"a", "[3"},         {"a[0]", "n1"},
                                      {"a[1]", "{an object"}, {"a[1].b", "sx"},    {"a[1].c", "0null"},
                                      {"a[2]", "[0"},         {"d", "{an object"}, {"d.e", "ttrue"},
                                      {"d.f", "x-1"},         {"d.g", "ffalse"},   {"h", "x2.5"}};
  EXPECT_EQ(programs::ListJsonPlaces(text, "x"), expected);
  EXPECT_EQ(programs::ListJsonPlaces("\"y\"", "x"), (programs::JsonPlaces{{"", "sy"}}));
}

TEST(Json, PlacesHaveBounds) {
  const std::string most = std::string(8, '[') + std::string(8, ']');
  EXPECT_EQ(programs::ListJsonPlaces(most, "x").size(), 8U);
  std::string many = "[0";
  for (int i = 0; i < 1000000; ++i) many += ",0";
  for (const std::string& text :
       {"[" + most + "]", many + "]", "{\"" + std::string(257, 'n') + "\": 0}", std::string(1000000, '['),
        std::string("{"), std::string("1 2"), std::string(), std::string("\"\xFF\"")})
    EXPECT_THROW(programs::ListJsonPlaces(text, "x"), programs::Failure) << text.substr(0, 40);
}

}  // namespace tavix::test
