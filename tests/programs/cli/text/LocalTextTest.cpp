#include "programs/cli/text/LocalText.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/RandomDocument.h"

namespace tavix::test {

namespace {

core::IniFile Parse(const std::string& text) {
  core::IniFile settings;
  settings.LoadFromString(text);
  return settings;
}

}  // namespace

TEST(LocalText, SaysWhatItWasToldWhateverStoodThereBefore) {
  RandomDocuments documents(5);
  for (int i = 0; i < 300; ++i) {
    std::ostringstream before;
    core::IniFile(documents.Next()).SaveToStream(before);
    programs::cli::LocalText text("# first\n\n" + before.str() + "# last", "x");
    const core::IniFile after(documents.Next());
    text.Change(after);
    EXPECT_EQ(Parse(text.ToText()).GetGroups(), after.GetGroups());
    EXPECT_EQ(text.ToText().rfind("# first\n", 0), 0U);
  }
}

TEST(LocalText, AddsLinesThatEndAsTheirNeighboursDo) {
  programs::cli::LocalText text("[a]\r\nk=1\r\n[b]\r\n", "x");
  core::IniFile settings = text.GetSettings();
  settings.SetValue("a", "l", "2");
  settings.SetValue("b", "m", "3");
  settings.SetValue("c", "n", "4");
  text.Change(settings);
  EXPECT_EQ(text.ToText(), "[a]\r\nk=1\r\nl=2\r\n[b]\r\nm=3\r\n\r\n[c]\r\nn=4\r\n");
}

TEST(LocalText, KeepsEveryLineThatDoesNotChange) {
  const std::string before = "\xEF\xBB\xBF[a]\r\nk = 1\n#c\n[b]\n[a]\nk=2\nl=\\q\n";
  programs::cli::LocalText text(before, "x");
  EXPECT_EQ(text.ToText(), before);
  core::IniFile settings = text.GetSettings();
  settings.SetValue("a", "k", "3");
  text.Change(settings);
  EXPECT_EQ(text.ToText(), "\xEF\xBB\xBF[a]\r\nk = 1\n#c\n[b]\n[a]\nk=3\nl=\\q\n");
}

}  // namespace tavix::test
