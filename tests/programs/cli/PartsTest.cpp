#include <gtest/gtest.h>

#include <sstream>

#include "programs/cli/LocalText.h"
#include "programs/cli/Spelling.h"
#include "programs/cli/Suggestion.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

namespace {

core::IniFile Parse(const std::string& text) {
  core::IniFile settings;
  settings.LoadFromString(text);
  return settings;
}

}  // namespace

TEST(Spelling, KnowsUtf8) {
  for (const char* text : {"", "abc", "caf\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF"})
    EXPECT_TRUE(cli::IsUtf8(text)) << text;
  for (const char* text :
       {"\xFF", "\xC3", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xE2\x82"})
    EXPECT_FALSE(cli::IsUtf8(text)) << cli::SpellValue(text);
}

TEST(Spelling, ReadsBackAsTheSameBytesAndAsSettingsText) {
  RandomDocuments documents(3);
  for (int i = 0; i < 3000; ++i) {
    const std::string name = documents.NextText(12);
    const std::string key = documents.NextText(12);
    const std::string value = documents.NextText(12);
    EXPECT_EQ(cli::Unspell(cli::SpellName(name)), name);
    EXPECT_EQ(cli::Unspell(cli::SpellKey(key)), key);
    EXPECT_EQ(cli::Unspell(cli::SpellValue(value)), value);
    const core::IniFile settings =
        Parse("[" + cli::SpellName(name) + "]\n" + cli::SpellKey(key) + "=" + cli::SpellValue(value) + "\n");
    EXPECT_EQ(settings.GetValue(name, key), value);
  }
}

TEST(Spelling, IsUtf8WithoutControlCharacters) {
  RandomDocuments documents(4);
  for (int i = 0; i < 3000; ++i) {
    const std::string spelled = cli::SpellValue(documents.NextText(20));
    EXPECT_TRUE(cli::IsUtf8(spelled));
    for (const char c : spelled) EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
    EXPECT_EQ(spelled.find("\xC2\x9B"), std::string::npos);
  }
}

TEST(Suggestion, FindsWhatWasMeant) {
  const std::vector<std::string> names{"get", "list", "show", "search", "set", "delete"};
  EXPECT_EQ(cli::FindSimilar("shwo", names), "show");
  EXPECT_EQ(cli::FindSimilar("delet", names), "delete");
  EXPECT_EQ(cli::FindSimilar("LIST", names), "list");
  EXPECT_EQ(cli::FindSimilar("quux", names), "");
}

TEST(LocalText, SaysWhatItWasToldWhateverStoodThereBefore) {
  RandomDocuments documents(5);
  for (int i = 0; i < 300; ++i) {
    std::ostringstream before;
    core::IniFile(documents.Next()).SaveToStream(before);
    cli::LocalText text("# first\n\n" + before.str() + "# last", "x");
    const core::IniFile after(documents.Next());
    text.Change(after);
    EXPECT_EQ(Parse(text.ToText()).GetGroups(), after.GetGroups());
    EXPECT_EQ(text.ToText().rfind("# first\n", 0), 0U);
  }
}

TEST(LocalText, AddsLinesThatEndAsTheirNeighboursDo) {
  cli::LocalText text("[a]\r\nk=1\r\n[b]\r\n", "x");
  core::IniFile settings = text.GetSettings();
  settings.SetValue("a", "l", "2");
  settings.SetValue("b", "m", "3");
  settings.SetValue("c", "n", "4");
  text.Change(settings);
  EXPECT_EQ(text.ToText(), "[a]\r\nk=1\r\nl=2\r\n[b]\r\nm=3\r\n\r\n[c]\r\nn=4\r\n");
}

TEST(LocalText, KeepsEveryLineThatDoesNotChange) {
  const std::string before = "\xEF\xBB\xBF[a]\r\nk = 1\n#c\n[b]\n[a]\nk=2\nl=\\q\n";
  cli::LocalText text(before, "x");
  EXPECT_EQ(text.ToText(), before);
  core::IniFile settings = text.GetSettings();
  settings.SetValue("a", "k", "3");
  text.Change(settings);
  EXPECT_EQ(text.ToText(), "\xEF\xBB\xBF[a]\r\nk = 1\n#c\n[b]\n[a]\nk=3\nl=\\q\n");
}

}  // namespace tavix::test
