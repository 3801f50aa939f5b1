#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/bridge/formats/DesiredDocument.h"
#include "programs/bridge/formats/DeviceMessages.h"
#include "programs/bridge/formats/SharedGroup.h"
#include "programs/bridge/formats/Topics.h"

// What stands behind topics and keys. What the mirrors refuse is tested with them.
namespace {

using namespace tavix::bridge;
using testing::HasSubstr;

constexpr size_t kLarge = 1'000'000;

TEST(Topics, SpellNamesByPercentOutsideOfLettersAndFew) {
  EXPECT_EQ(EncodeForTopic("Net/Eth0-._~"), "Net/Eth0-._~");
  EXPECT_EQ(EncodeForTopic("a b+#%\xC3\xA4"), "a%20b%2B%23%25%C3%A4");
  EXPECT_EQ(EncodeForTopic(std::string("\0", 1)), "%00");
}

TEST(Topics, ReadTheOneSpellingOfAName) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string name = std::string("x") + static_cast<char>(byte);
    EXPECT_EQ(DecodeFromTopic(EncodeForTopic(name)), name);
  }
  for (const char* text : {"%", "%2", "%zz", "%2b", "%41", "a b", "a+"}) EXPECT_FALSE(DecodeFromTopic(text)) << text;
}

TEST(Topics, KnowWhatTheyAreFor) {
  const Topics topics("a/b", "cam 1", "out");
  EXPECT_EQ(topics.GetReported("Net/A"), "a/b/cam%201/reported/Net/A");
  EXPECT_EQ(topics.FindReportedGroup("a/b/cam%201/reported/Net/A"), "Net/A");
  const auto document = topics.FindDocument("a/b/class/out/desired/x/y");
  ASSERT_TRUE(document);
  EXPECT_EQ(document->level, Level::kClass);
  EXPECT_EQ(document->name, "x/y");
  EXPECT_FALSE(topics.FindDocument("a/b/cam%201/desired/"));
  EXPECT_FALSE(topics.FindDocument("a/b/cam%201/index"));
  EXPECT_FALSE(Topics("a", "d", "").FindDocument("a/class//desired/x"));
}

TEST(DesiredDocument, ReadsValuesOfAllForms) {
  const DesiredDocument document = ParseDesired(
      R"({"format":1,"epoch":"e","version":7,"more":[],"groups":{"base64:/w==":{"k":{"base64":"AP8="},"n":null,"t":"x"}}})",
      kLarge);
  EXPECT_EQ(document.version, 7u);
  const DesiredKeys expected = {{"k", std::string("\0\xFF", 2)}, {"n", std::nullopt}, {"t", "x"}};
  EXPECT_EQ(document.groups.at("\xFF"), expected);
}

TEST(DesiredDocument, ReadsWhatItWrites) {
  const DesiredDocument document{"e", 3, {{"A", {{"k", "\xFF"}, {"n", std::nullopt}}}, {"\xFE", {}}}};
  const DesiredDocument read = ParseDesired(ComposeDesired(document), kLarge);
  EXPECT_EQ(read.groups, document.groups);
}

TEST(DesiredDocument, IsRefusedWithAReason) {
  const std::string head = R"({"format":1,"epoch":"e","version":1,"groups":)";
  const std::pair<std::string, std::string> cases[] = {
      {"[1]", "expected an object, found array"},
      {head + R"({"A":1}})", "[A]: expected an object of keys, found number"},
      {head + R"({"A":{"k":{"base64":"?"}}}})", "[A]k: expected a string, null"},
      {head + R"({"A":{"k":true}}})", "[A]k: expected a string, null"},
      {head + R"({"base64:?":{}}})", "is no base64"},
      {head + R"({"a\nb":{}}})", "holds no line feed"},
      {head + R"({"A":{"k":"1","k":"2"}}})", "the name 'k' stands twice"},
      {head + R"({"A":{"k":"1","base64:aw==":"2"}}})", "[A]k stands twice"},
      {std::string(100, '['), "nests deeper"},
      {head + "{}} x", "the document is not JSON"}};
  for (const auto& [text, reason] : cases) {
    try {
      (void)ParseDesired(text, kLarge);
      ADD_FAILURE() << text;
    } catch (const BadDocument& error) {
      EXPECT_THAT(error.what(), HasSubstr(reason)) << text;
    }
  }
}

TEST(DesiredIndex, HasAVersionForEachDocument) {
  const auto versions = ParseDesiredIndex(R"({"format":1,"documents":{"a":1,"b/c":22}})", kLarge);
  EXPECT_EQ(versions, (std::map<std::string, std::uint64_t>{{"a", 1}, {"b/c", 22}}));
  EXPECT_THROW((void)ParseDesiredIndex(R"({"format":1,"documents":{"a":"1"}})", kLarge), BadDocument);
}

TEST(DeviceMessages, HaveValuesOrThatTheGroupIsGone) {
  EXPECT_EQ(ComposeReported("e", 3, {{"k", "\xFF"}, {"p", "x"}}, {"p"}),
            R"({"epoch":"e","format":1,"values":{"k":{"base64":"/w=="},"p":{"masked":true}},"version":3})");
  const std::string gone = ComposeReported("e", 4, {}, {});
  EXPECT_EQ(gone, R"({"epoch":"e","format":1,"gone":true,"version":4})");
  EXPECT_TRUE(ParseReported(gone, kLarge).isGone);
  EXPECT_EQ(ParseReported(gone, kLarge).version, 4u);
}

TEST(SharedGroup, ReadsWhatItWrites) {
  const Keys keys = {{"\xFE", "\xFF"}, {"k", "1"}};
  const auto group = ParseSharedGroup(ComposeSharedGroup(keys, {"m"}), kLarge);
  EXPECT_EQ(group.keys, keys);
  EXPECT_EQ(group.masked, std::set<std::string>{"m"});
  EXPECT_THROW((void)ParseSharedGroup(R"({"format":1,"keys":{"k":5}})", kLarge), BadDocument);
  EXPECT_THROW((void)ParseSharedGroup("{}", kLarge), BadDocument);
}

}  // namespace
