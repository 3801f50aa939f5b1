#include "programs/common/client/Spelling.h"

#include <gtest/gtest.h>

#include "tavix/core/IniFile.h"
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
    EXPECT_TRUE(programs::IsUtf8(text)) << text;
  for (const char* text :
       {"\xFF", "\xC3", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\xE2\x82"})
    EXPECT_FALSE(programs::IsUtf8(text)) << programs::SpellValue(text);
}

TEST(Spelling, ReadsBackAsTheSameBytesAndAsSettingsText) {
  RandomDocuments documents(3);
  for (int i = 0; i < 3000; ++i) {
    const std::string name = documents.NextText(12);
    const std::string key = documents.NextText(12);
    const std::string value = documents.NextText(12);
    EXPECT_EQ(programs::Unspell(programs::SpellName(name)), name);
    EXPECT_EQ(programs::Unspell(programs::SpellKey(key)), key);
    EXPECT_EQ(programs::Unspell(programs::SpellValue(value)), value);
    const core::IniFile settings = Parse("[" + programs::SpellName(name) + "]\n" + programs::SpellKey(key) + "=" +
                                         programs::SpellValue(value) + "\n");
    EXPECT_EQ(settings.GetValue(name, key), value);
  }
}

TEST(Spelling, IsUtf8WithoutControlCharacters) {
  RandomDocuments documents(4);
  for (int i = 0; i < 3000; ++i) {
    const std::string spelled = programs::SpellValue(documents.NextText(20));
    EXPECT_TRUE(programs::IsUtf8(spelled));
    for (const char c : spelled) EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
    EXPECT_EQ(spelled.find("\xC2\x9B"), std::string::npos);
  }
}

}  // namespace tavix::test
