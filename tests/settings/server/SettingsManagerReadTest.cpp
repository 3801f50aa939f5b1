#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ServedStore.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::DocumentOf;
using tavix::test::ServedStore;
using tavix::test::TextOf;
using tavix::test::UserSettingsOf;

constexpr char kDefaults[] = "[Audio]\nvolume=5\n[Net]\nx=1\n[Net/Eth0]\nip=10.0.0.2\n[Other]\nz=1\n";

GroupNameMatcher MatcherOf(const std::set<std::string>& groups) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  return matcher;
}

TEST(SettingsManager, ReadsTheGroupsThatMatch) {
  const ServedStore served({kDefaults});
  IniFile out;
  served.store.GetGroups(out, MatcherOf({"Net*", "Other", "None"}));
  EXPECT_EQ(TextOf(out), "[Net]\nx=1\n[Net/Eth0]\nip=10.0.0.2\n[Other]\nz=1\n");
}

TEST(SettingsManager, ReadsByOneNameOrPattern) {
  const ServedStore served({kDefaults});
  for (const auto& [wanted, found] : {std::pair<const char*, const char*>{"Audio", "[Audio]\nvolume=5\n"},
                                      {"Net/*", "[Net/Eth0]\nip=10.0.0.2\n"},
                                      {"*", kDefaults}}) {
    IniFile out;
    served.store.GetGroups(out, wanted);
    EXPECT_EQ(TextOf(out), found);
  }
}

TEST(SettingsManager, AddsWhatItReadsToTheCallersDocument) {
  const ServedStore served({"[A]\nx=1\n"});
  IniFile out = DocumentOf("[A]\nx=0\ny=0\n[B]\n");
  served.store.GetGroups(out, "A");
  EXPECT_EQ(TextOf(out), "[A]\nx=1\ny=0\n[B]\n");
}

TEST(SettingsManager, WhatMatchesNothingLeavesTheCallersDocument) {
  const ServedStore served({kDefaults});
  IniFile out = DocumentOf("[B]\n");
  for (const char* unknown : {"None", "X*", "audio", ""}) served.store.GetGroups(out, unknown);
  served.store.GetGroups(out, GroupNameMatcher());
  EXPECT_EQ(TextOf(out), "[B]\n");
}

TEST(SettingsManager, RestrictedGroupsAreReadLikeAnyOther) {
  const ServedStore served({}, "", "[Secure/K]\nkey=1\n");
  IniFile out;
  served.store.GetGroups(out, "Secure/K");
  EXPECT_EQ(TextOf(out), "[Secure/K]\nkey=1\n");
}

TEST(SettingsManager, WritesTheGroupsThatMatchInTheFormAskedFor) {
  const ServedStore served({kDefaults});
  std::ostringstream ini;
  std::ostringstream phparray;
  served.store.WriteGroups(ini, MatcherOf({"Net*"}), *served.serializers.GetSerializer("ini"));
  served.store.WriteGroups(phparray, MatcherOf({"Net"}), *served.serializers.GetSerializer("phparray"));
  EXPECT_EQ(ini.str(), "[Net]\nx=1\n[Net/Eth0]\nip=10.0.0.2\n");
  EXPECT_EQ(phparray.str(), "a:1:{s:3:\"Net\";a:1:{s:1:\"x\";s:1:\"1\";}}\n\n");
}

TEST(SettingsManager, DumpsTheUserLayerWithItsBookkeepingAndAllSettingsWithout) {
  ServedStore served({"[A]\nx=1\n[B]\ny=1\n"});
  served.store.OverwriteSettings("A", DocumentOf("[A]\nz=1\n"));
  EXPECT_EQ(UserSettingsOf(served.store), "[A]\nz=1\n[TavixSettings/Data/DeletedGroups]\nA=A\n");
  EXPECT_EQ(AllSettingsOf(served.store), "[A]\nz=1\n[B]\ny=1\n");
}

TEST(SettingsManager, TellsItsSizeAsReadersSeeItAndOfTheUserLayerWithoutBookkeeping) {
  ServedStore served({"[A]\nx=1\ny=1\n[B]\ny=1\n"}, "", "[Secure/S]\nk=1\n");
  served.store.OverwriteSettings("A", DocumentOf("[A]\nz=1\n[C]\n"));
  const SettingsManager::Sizes sizes = served.store.GetSizes();
  EXPECT_EQ(sizes.allGroups, 4u);
  EXPECT_EQ(sizes.allKeys, 3u);
  EXPECT_EQ(sizes.userGroups, 2u);
  EXPECT_EQ(sizes.userKeys, 1u);
}

}  // namespace
