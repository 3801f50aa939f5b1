#include "programs/server/trials/TrialText.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/programs/server/trials/TriedStore.h"

// Trials as lines, and back.

namespace tavix::test {

using daemon::OldSettings;
using daemon::SettingName;
using daemon::TrialBook;

namespace {

constexpr char kPending[] = "#t t unix 1000 100 812\n";

std::string SpellAfter(const std::string& lines) {
  TrialBook book(TriedStore::kMaxTrials);
  book.Load(lines);
  return book.Spell();
}

}  // namespace

TEST(TrialText, HasTheOldValuesOfATrial) {
  TriedStore store("[A]\nx=1\n[B]\n");
  store.Try("60 t", "[A]\nx=2\ny=2\n[B]\nz=2\n[C]\n");
  EXPECT_EQ(store.lines, std::string(kPending) + "#t- [A]x=1\n#t! [A]y\n#t- [B]\n#t! [B]z\n#t! [C]\n");
  EXPECT_EQ(store.book.Spell(), store.lines);
}

TEST(TrialText, LeadsToTheSameBookAfterARestart) {
  TriedStore store("[A]\nx=1\ny=1\n");
  store.Try("60 one", "[A]\nx=2\ny=2\n[C]\n");
  store.Try("60 two", "[A]\nx=3\n");
  store.Merge("[A]\ny=3\n");
  store.Try("60 one", "[B]\nz=2\n");
  EXPECT_EQ(store.Restart().Spell(), store.book.Spell());
  store.Revert("two");
  store.Confirm("one");
  EXPECT_EQ(store.Restart().Spell(), "");
}

TEST(TrialText, LeadsToTheSameBookWhenLinesComeTwice) {
  TriedStore store("[A]\nx=1\n");
  store.Try("60 one", "[A]\nx=2\n");
  store.Merge("[A]\nx=3\n");
  store.Try("60 one", "[A]\nx=4\n");
  store.Try("60 two", "[A]\nx=5\ny=5\n");
  const std::string book = store.book.Spell();
  EXPECT_EQ(SpellAfter(book + store.lines), book);
  EXPECT_EQ(SpellAfter(store.lines + store.lines), book);
  store.Confirm("two");
  EXPECT_EQ(SpellAfter(book + store.lines), store.book.Spell());
}

TEST(TrialText, EscapesWhateverNamesAndValuesHold) {
  const std::string odd("]=[#\n\t \\;\r\0.", 12);
  OldSettings settings{{SettingName{odd, odd}, odd},
                       {SettingName{odd, ""}, ""},
                       {SettingName{odd, std::nullopt}, std::nullopt},
                       {SettingName{"", "k"}, std::nullopt},
                       {SettingName{"G", ""}, std::nullopt}};
  std::string lines = kPending;
  AppendOldSettings(settings, lines);
  EXPECT_EQ(SpellAfter(lines), lines);
  TrialBook book(1);
  book.Load(lines);
  EXPECT_EQ(book.GetSettings("t", nullptr), settings);
}

TEST(TrialText, SpellsASettingAsSettingsTextDoes) {
  EXPECT_EQ(daemon::SpellSetting({"A", "x"}), "[A]x");
  EXPECT_EQ(daemon::SpellSetting({"A", ""}), "[A]=");
  EXPECT_EQ(daemon::SpellSetting({"A", std::nullopt}), "[A]");
}

TEST(TrialText, KnowsWhoArmedATrialAfterARestart) {
  for (const auto& client : {TriedStore::ClientOf(1000), TriedStore::Tcp()}) {
    TriedStore store;
    store.client = client;
    store.Try("60 t", "[A]\nx=2\n");
    EXPECT_EQ(store.Restart().FindTrial("t")->client.user, client.user);
    EXPECT_EQ(store.Restart().Spell(), store.book.Spell());
  }
}

TEST(TrialText, EndsWhereOtherLinesBegin) {
  const std::string lines = std::string(kPending) + "#t! [A]x\n";
  EXPECT_EQ(SpellAfter(lines + "#@ 1 2 merge unix 1000 100 812\n#t t\n#t! [A]y\n"), lines);
  EXPECT_EQ(SpellAfter(lines + "[A]\nx=1\n"), lines);
}

TEST(TrialText, SkipsWhatIsDamaged) {
  const std::string lines = std::string(kPending) + "#t! [A]x\n";
  EXPECT_EQ(SpellAfter("#t! [A]y\n#c \n#t\x01- [A\n"), "");
  EXPECT_EQ(SpellAfter(lines + "#t- \n#t- [A\n#t! A\n#c ../x confirmed\n#c x"), lines);
  EXPECT_EQ(SpellAfter("#t a/b unix 1 1 1\n#t! [A]x\n" + lines), lines);
}

}  // namespace tavix::test
