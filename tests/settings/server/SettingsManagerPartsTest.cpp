#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::core::StringOstream;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ISettingsSerializer;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::RandomDocuments;
using tavix::test::ServedStore;
using tavix::test::UserSettingsOf;

constexpr size_t kNoEnd = 1000000;
const SettingsManager::BetweenParts kNeverStopped;

// Writes a line a group, in one piece only.
struct NamesSerializer : ISettingsSerializer {
  void OnSerialize(const IniFile& settings, const GroupNameMatcher& groups, std::ostream& os) const override {
    std::set<std::string> names;
    groups.GetMatchingGroups(settings, names);
    for (const std::string& name : names) os << name << '\n';
  }
  void OnDeserialize(std::istream&, IniFile&) const override {}
};

GroupNameMatcher MatcherOf(const std::set<std::string>& names) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(names);
  return matcher;
}

std::string Written(const std::function<void(std::ostream&)>& write) {
  std::ostringstream text;
  write(text);
  return text.str();
}

std::string WrittenInParts(const SettingsManager& store, const GroupNameMatcher& matcher,
                           const ISettingsSerializer& serializer,
                           const SettingsManager::BetweenParts& isStopped = kNeverStopped) {
  return Written([&](std::ostream& os) { store.WriteGroupsInParts(os, matcher, serializer, isStopped); });
}

std::string DumpedInParts(const SettingsManager& store) {
  return Written([&](std::ostream& os) { store.DumpAllSettingsInParts(os, kNeverStopped); });
}

// All groups hold the same value.
IniFile SameEverywhere(int groups, const std::string& value) {
  IniFile document;
  for (int group = 0; group < groups; ++group) document.SetValue("Group " + std::to_string(group), "key", value);
  return document;
}

std::set<std::string> ValuesOf(const IniFile& document) {
  std::set<std::string> values;
  for (const auto& group : document) {
    for (const auto& entry : group.second) values.insert(entry.second);
  }
  return values;
}

TEST(SettingsManagerInParts, WritesTheSameBytesAsInOneGo) {
  RandomDocuments random(7);
  NamesSerializer names;
  for (int round = 0; round < 200; ++round) {
    ServedStore served;
    served.store.MergeSettings(IniFile(random.Next()), round % 2 ? SettingsManager::kNoPersist : 0);
    const GroupNameMatcher matcher =
        MatcherOf({random.NextText(2), random.NextText(3) + "*", "*" + random.NextText(1) + "*"});
    for (const ISettingsSerializer* serializer :
         {served.serializers.GetSerializer("ini"), served.serializers.GetSerializer("phparray"),
          static_cast<const ISettingsSerializer*>(&names)}) {
      const std::string expected =
          Written([&](std::ostream& os) { served.store.WriteGroups(os, matcher, *serializer); });
      ASSERT_EQ(WrittenInParts(served.store, matcher, *serializer), expected);
      ASSERT_EQ(Written([&](std::ostream& os) {
                  ASSERT_TRUE(served.store.TryWriteGroups(os, matcher, *serializer, kNoEnd));
                }),
                expected);
    }
    ASSERT_EQ(DumpedInParts(served.store), AllSettingsOf(served.store));
    ASSERT_EQ(Written([&](std::ostream& os) { served.store.DumpUserSettingsInParts(os, kNeverStopped); }),
              UserSettingsOf(served.store));
  }
}

TEST(SettingsManagerInParts, AStoreOfManyPartsIsWrittenWhole) {
  ServedStore served;
  served.store.MergeSettings(SameEverywhere(5000, std::string(100, 'v')), 0);
  EXPECT_EQ(DumpedInParts(served.store), AllSettingsOf(served.store));
  for (const char* form : {"ini", "phparray"}) {
    const ISettingsSerializer& serializer = *served.serializers.GetSerializer(form);
    const GroupNameMatcher some = MatcherOf({"*7", "Group 1*", "Group 4999"});
    EXPECT_EQ(WrittenInParts(served.store, some, serializer),
              Written([&](std::ostream& os) { served.store.WriteGroups(os, some, serializer); }));
  }
}

// Every change sets all groups at once, so that any two values in one text are of two states.
TEST(SettingsManagerInParts, ShowsOneStateWhileAllChanges) {
  constexpr int kGroups = 3000;
  ServedStore served;
  served.store.MergeSettings(SameEverywhere(kGroups, "start"), 0);
  std::atomic<bool> isDone{false};
  std::atomic<int> changes{0};
  BackgroundCall writer([&] {
    for (int change = 0; !isDone; ++change) {
      served.store.MergeSettings(SameEverywhere(kGroups, std::to_string(change)), 0);
      if (change % 3 == 0) served.store.OverwriteSettings("*", SameEverywhere(kGroups, "o" + std::to_string(change)));
      ++changes;
    }
  });
  for (int round = 0; round < 20 || changes < 5; ++round) {
    const IniFile all = DocumentOf(DumpedInParts(served.store));
    EXPECT_EQ(all.GetGroups().size(), static_cast<size_t>(kGroups));
    EXPECT_EQ(ValuesOf(all).size(), 1u);
    const GroupNameMatcher some = MatcherOf({"*7", "Group 1*"});
    const IniFile matching = DocumentOf(WrittenInParts(served.store, some, *served.serializers.GetSerializer("ini")));
    EXPECT_EQ(ValuesOf(matching).size(), 1u);
  }
  isDone = true;
  writer.Join();
}

// Single groups change quickly: a pair is always changed by one merge, and is equal in each text.
TEST(SettingsManagerInParts, ShowsOneStateWhilePairsChange) {
  constexpr int kPairs = 500;
  ServedStore served;
  IniFile start;
  const auto setPair = [](IniFile& document, size_t pair, const std::string& value) {
    for (const char* side : {"left ", "right "}) document.SetValue(side + std::to_string(pair), "key", value);
  };
  for (int pair = 0; pair < kPairs; ++pair) setPair(start, static_cast<size_t>(pair), std::string(100, 's'));
  served.store.MergeSettings(start, 0);
  std::atomic<bool> isDone{false};
  std::atomic<int> changes{0};
  BackgroundCall writer([&] {
    for (RandomDocuments random(3); !isDone; ++changes) {
      IniFile change;
      setPair(change, random.Below(kPairs), std::string(random.Below(200), 'v'));
      served.store.MergeSettings(change, SettingsManager::kNoPersist);
    }
  });
  for (int round = 0; round < 10 || changes < 100; ++round) {
    const IniFile all = DocumentOf(DumpedInParts(served.store));
    for (int pair = 0; pair < kPairs; ++pair) {
      const std::string number = std::to_string(pair);
      ASSERT_EQ(all.GetValue("left " + number, "key"), all.GetValue("right " + number, "key")) << round;
    }
  }
  isDone = true;
  writer.Join();
}

TEST(SettingsManagerInParts, AStringGetsTheMemoryForTheTextAtOnce) {
  ServedStore served;
  for (const int groups : {1000, 1300, 1700}) {
    served.store.MergeSettings(SameEverywhere(groups, std::string(1000, 'v')), 0);
    StringOstream text;
    served.store.DumpAllSettingsInParts(text, kNeverStopped);
    EXPECT_EQ(text.GetText(), AllSettingsOf(served.store));
    EXPECT_LT(text.GetText().capacity(), text.GetText().size() + 1000) << groups;
  }
}

TEST(SettingsManagerInParts, AStoppedTextEndsByAnExceptionBetweenParts) {
  ServedStore served;
  served.store.MergeSettings(SameEverywhere(5000, std::string(100, 'v')), 0);
  int asked = 0;
  std::ostringstream text;
  EXPECT_THROW(served.store.DumpAllSettingsInParts(text, {[&] { return ++asked == 3; }}), Exception);
  EXPECT_EQ(asked, 3);
  EXPECT_EQ(text.str(), "");
  EXPECT_THROW(WrittenInParts(served.store, MatcherOf({"*"}), NamesSerializer(), {[] { return true; }}), Exception);
  EXPECT_EQ(DumpedInParts(served.store), AllSettingsOf(served.store)) << "nothing is left of it";
}

// The question whether to stop is asked without a lock.
TEST(SettingsManagerInParts, WritersGetTheirTurnBetweenParts) {
  ServedStore served;
  served.store.MergeSettings(SameEverywhere(5000, std::string(100, 'v')), 0);
  int changes = 0;
  const auto change = [&] {
    if (changes < 3) served.store.MergeSettings(SameEverywhere(1, "changed " + std::to_string(++changes)), 0);
    return false;
  };
  const std::string text =
      WrittenInParts(served.store, MatcherOf({"*"}), *served.serializers.GetSerializer("ini"), {change});
  EXPECT_EQ(changes, 3);
  EXPECT_EQ(text, AllSettingsOf(served.store));
}

// So that whoever is told of changes can be kept waiting from then on, and is told of none that the text lacks.
TEST(SettingsManagerInParts, WhatIsChangedBeforeTheLastPartIsSeen) {
  ServedStore served;
  served.store.MergeSettings(SameEverywhere(5000, std::string(100, 'v')), 0);
  int calls = 0;
  const auto change = [&] {
    ++calls;
    served.store.MergeSettings(SameEverywhere(1, "changed"), 0);
  };
  std::ostringstream text;
  served.store.DumpAllSettingsInParts(text, {{}, change});
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(text.str(), AllSettingsOf(served.store));
}

TEST(SettingsManagerInParts, ATryGivesUpOnTooManyGroupsOrBytes) {
  ServedStore served;
  served.store.MergeSettings(SameEverywhere(2000, "v"), 0);
  served.store.MergeSettings(DocumentOf("[Long]\nkey=" + std::string(30000, 'v') + "\n"), 0);
  const auto tryToWrite = [&](const std::set<std::string>& groups) {
    std::ostringstream text;
    return served.store.TryWriteGroups(text, MatcherOf(groups), *served.serializers.GetSerializer("ini"), 100);
  };
  EXPECT_TRUE(tryToWrite({"Group 7"}));
  EXPECT_TRUE(tryToWrite({"Group 7", "Group 19*"}) == false) << "111 groups begin so";
  EXPECT_TRUE(tryToWrite({"Group 199*"}));
  EXPECT_FALSE(tryToWrite({"*nothing"})) << "groups that do not match are visited, too";
  EXPECT_FALSE(tryToWrite({"Long"}));
  EXPECT_TRUE(tryToWrite({"None"}));
  EXPECT_TRUE(tryToWrite({}));
}

}  // namespace
