#include "programs/cli/text/LocalText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programs/common/client/Failure.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"

namespace tavix::test {

namespace {

using programs::cli::LocalText;

bool All(const std::string&) {
  return true;
}

bool None(const std::string&) {
  return false;
}

core::IniFile Parse(const std::string& text) {
  core::IniFile settings;
  settings.LoadFromString(text);
  return settings;
}

}  // namespace

TEST(LocalText, HoldsWhatItWasToldWhateverStoodThereBefore) {
  RandomDocuments documents(5);
  for (int i = 0; i < 300; ++i) {
    LocalText text("# first\n\n" + TextOf(core::IniFile(documents.Next())) + "# last", "x");
    const core::IniFile after(documents.Next());
    text.Change(All, after);
    EXPECT_EQ(Parse(text.GetText()).GetGroups(), after.GetGroups());
    EXPECT_EQ(text.GetText().rfind("# first\n", 0), 0U);
  }
}

TEST(LocalText, ChangesWhatTheLibraryReadsThereAndNothingElse) {
  RandomDocuments documents(6);
  for (int i = 0; i < 300; ++i) {
    const std::string before = TextOf(core::IniFile(documents.Next())) + TextOf(core::IniFile(documents.Next()));
    core::IniFile expected = Parse(before);
    const core::IniFile added(documents.Next());
    LocalText text(before, "x");
    text.Change(None, added);
    expected.MergeSettings(added);
    EXPECT_EQ(Parse(text.GetText()).GetGroups(), expected.GetGroups());
    EXPECT_EQ(text.GetSettings().GetGroups(), expected.GetGroups());
  }
}

TEST(LocalText, ReportsWhetherAnythingChanged) {
  LocalText text("[a]\nk=1\nk=2\n", "x");
  EXPECT_FALSE(text.Change(None, DocumentOf("[a]\nk=2\n")));
  EXPECT_FALSE(text.Change(All, DocumentOf("[a]\nk=2\n")));
  EXPECT_EQ(text.GetText(), "[a]\nk=1\nk=2\n");
  EXPECT_TRUE(text.Change(All, DocumentOf("[a]\n")));
  EXPECT_EQ(text.GetText(), "[a]\n");
}

TEST(LocalText, GivesTheGroupsThatAreMeantInAscendingOrder) {
  const auto isMeant = [](const std::string& group) { return group != "b"; };
  for (const char* lines : {"[a]\nk=1\n[b]\nk=2\n[c]\nk=3\n", "#\n[c]\nk=3\n[b]\nk=2\n[a]\nk=0\n[a]\nk=1"}) {
    const LocalText text(lines, "x");
    std::vector<std::string> parts;
    text.GetEach(isMeant, [&](const core::IniFile& part) { parts.push_back(TextOf(part)); });
    EXPECT_THAT(parts, testing::ElementsAre("[a]\nk=1\n", "[c]\nk=3\n"));
    EXPECT_EQ(TextOf(text.GetGroups(isMeant)), "[a]\nk=1\n[c]\nk=3\n");
  }
}

TEST(LocalText, NamesTheLineThatIsNone) {
  for (const char* lines : {"[a]\nnonsense\n", "\nk=1\n", "[a]\nk\\=1\n", "[a\n"}) {
    EXPECT_THROW(LocalText(lines, "x"), programs::Failure) << lines;
  }
}

TEST(LocalText, AddsLinesThatEndAsTheirNeighboursDo) {
  LocalText text("[a]\r\nk=1\r\n[b]\r\n", "x");
  text.Change(None, DocumentOf("[a]\nl=2\n[b]\nm=3\n[c]\nn=4\n"));
  EXPECT_EQ(text.GetText(), "[a]\r\nk=1\r\nl=2\r\n[b]\r\nm=3\r\n\r\n[c]\r\nn=4\r\n");
}

TEST(LocalText, KeepsEveryLineThatDoesNotChange) {
  const std::string before = "\xEF\xBB\xBF[a]\r\nk = 1\n#c\n[b]\n[a]\nk=2\nl=\\q\n";
  LocalText text(before, "x");
  EXPECT_EQ(text.GetText(), before);
  text.Change(None, DocumentOf("[a]\nk=3\n"));
  EXPECT_EQ(text.GetText(), "\xEF\xBB\xBF[a]\r\nk = 1\n#c\n[b]\n[a]\nk=3\nl=\\q\n");
}

}  // namespace tavix::test
