#include "tavix/core/IniFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tavix/osa/Exception.h"
#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::test::RandomDocuments;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

IniFile FromText(const std::string& text) {
  IniFile ini;
  ini.LoadFromString(text);
  return ini;
}

std::vector<std::string> Members(const IniFile& ini, const std::string& list) {
  std::vector<std::string> members;
  for (const auto& [key, value] : ini[list]) members.push_back(value);
  return members;
}

TEST(IniFile, IsEmptyAtFirst) {
  const IniFile ini;
  EXPECT_TRUE(ini.IsEmpty());
  EXPECT_EQ(ini.begin(), ini.end());
}

TEST(IniFile, AnEmptyDocumentIsWrittenAsNothing) {
  std::ostringstream text;
  IniFile().SaveToStream(text);
  EXPECT_EQ(text.str(), "");
}

TEST(IniFile, SetValueCreatesAndReplaces) {
  IniFile ini;
  ini.SetValue("Network", "ip", "10.0.0.1");
  ini.SetValue("Network", "ip", "10.0.0.2");
  ini.SetValue("Network", "mask", "255.0.0.0");
  EXPECT_EQ(ini.GetGroups(), (IniFile::GroupMap{{"Network", {{"ip", "10.0.0.2"}, {"mask", "255.0.0.0"}}}}));
}

TEST(IniFile, AValueMayBeSetToItself) {
  IniFile ini = FromText("[g]\nk=v\n");
  ini.SetValue("g", "k", ini.GetValue("g", "k"));
  EXPECT_EQ(ini.GetValue("g", "k"), "v");
}

TEST(IniFile, GetValueOfAMissingSettingThrowsAndNamesIt) {
  const IniFile ini = FromText("[Network]\nip=10.0.0.1\n");
  EXPECT_EQ(ini.GetValue("Network", "ip"), "10.0.0.1");
  EXPECT_THAT([&] { ini.GetValue("Network", "mask"); }, testing::ThrowsMessage<Exception>(HasSubstr("[Network]mask")));
  EXPECT_THAT([&] { ini.GetValue("Audio", "ip"); }, testing::ThrowsMessage<Exception>(HasSubstr("[Audio]ip")));
}

TEST(IniFile, GetValueOrDefaultOfAMissingSettingIsEmpty) {
  const IniFile ini = FromText("[Network]\nip=10.0.0.1\n");
  EXPECT_EQ(ini.GetValueOrDefault("Network", "ip"), "10.0.0.1");
  EXPECT_EQ(ini.GetValueOrDefault("Network", "mask"), "");
  EXPECT_EQ(ini.GetValueOrDefault("Audio", "ip"), "");
}

TEST(IniFile, HasValueCountsEmptyValues) {
  const IniFile ini = FromText("[Network]\nip=\n[Empty]\n");
  EXPECT_TRUE(ini.HasValue("Network", "ip"));
  EXPECT_FALSE(ini.HasValue("Network", "mask"));
  EXPECT_FALSE(ini.HasValue("Empty", "ip"));
  EXPECT_FALSE(ini.HasValue("Audio", "ip"));
}

TEST(IniFile, HasGroupCountsEmptyGroups) {
  const IniFile ini = FromText("[Empty]\n");
  EXPECT_TRUE(ini.HasGroup("Empty"));
  EXPECT_FALSE(ini.HasGroup("empty")) << "names are compared byte by byte";
  EXPECT_FALSE(ini.HasGroup(""));
}

TEST(IniFile, NamesAreNotSplitAtSlashes) {
  IniFile ini;
  ini.SetValue("TavixSettings/Data/DeletedGroups", "a", "b");
  EXPECT_FALSE(ini.HasGroup("TavixSettings"));
  EXPECT_FALSE(ini.HasGroup("TavixSettings/Data"));
}

TEST(IniFile, IteratesInByteOrder) {
  IniFile ini;
  for (const char* name : {"b", "a/b", "\xff", "a", "B", "", "ab"}) ini[name];
  std::vector<std::string> names;
  for (const auto& group : std::as_const(ini)) names.push_back(group.first);
  EXPECT_THAT(names, ElementsAre("", "B", "a", "a/b", "ab", "b", "\xff"));
}

TEST(IniFile, TheIteratorIsThatOfAMapOfMaps) {
  IniFile ini = FromText("[a]\nk=v\n");
  std::map<std::string, std::map<std::string, std::string>>::iterator group = ini.begin();
  group->second["k"] = "w";
  EXPECT_EQ(ini.GetValue("a", "k"), "w");
}

TEST(IniFile, IndexingCreatesAGroup) {
  IniFile ini;
  ini["Network"]["ip"] = "10.0.0.1";
  std::map<std::string, std::string>& empty = ini["Empty"];
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(ini.GetGroups(), (IniFile::GroupMap{{"Empty", {}}, {"Network", {{"ip", "10.0.0.1"}}}}));
}

TEST(IniFile, IndexingAConstantDocumentThrowsForAMissingGroup) {
  const IniFile ini = FromText("[Network]\nip=10.0.0.1\n");
  EXPECT_THAT(ini["Network"], ElementsAre(Pair("ip", "10.0.0.1")));
  EXPECT_THAT([&] { ini["Audio"]; }, testing::ThrowsMessage<Exception>(HasSubstr("Audio")));
}

TEST(IniFile, ClearRemovesAllGroups) {
  IniFile ini = FromText("[a]\nk=v\n[b]\n");
  ini.Clear();
  EXPECT_TRUE(ini.IsEmpty());
  EXPECT_FALSE(ini.HasGroup("a"));
}

TEST(IniFile, RemoveGroupRemovesItsKeys) {
  IniFile ini = FromText("[a]\nk=v\n[b]\nk=v\n");
  ini.RemoveGroup("a");
  EXPECT_EQ(ini.GetGroups(), (IniFile::GroupMap{{"b", {{"k", "v"}}}}));
}

TEST(IniFile, RemovingAMissingGroupChangesNothing) {
  IniFile ini = FromText("[a]\nk=v\n");
  ini.RemoveGroup("b");
  ini.RemoveGroup("");
  EXPECT_EQ(ini.GetGroups(), FromText("[a]\nk=v\n").GetGroups());
}

TEST(IniFile, RemovingAtAnIteratorKeepsTheOthersValid) {
  IniFile ini = FromText("[a]\n[b]\n[c]\nk=v\n");
  for (IniFile::iterator group = ini.begin(); group != ini.end();) {
    const IniFile::iterator current = group++;
    if (current->first != "c") ini.RemoveGroup(current);
  }
  EXPECT_EQ(ini.GetGroups(), FromText("[c]\nk=v\n").GetGroups());
}

TEST(IniFile, AMissingNumberIsTheDefault) {
  const IniFile ini = FromText("[g]\nempty=\n");
  EXPECT_EQ(ini.GetIntOrDefault("g", "missing", 100), 100);
  EXPECT_EQ(ini.GetIntOrDefault("missing", "k", -7), -7);
  EXPECT_EQ(ini.GetIntOrDefault("g", "empty", 100), 100);
}

TEST(IniFile, ANumberThatIsSetReadsBack) {
  IniFile ini;
  for (const int number : {0, 1, -1, 3, 100, -2147483647, INT_MIN, INT_MAX}) {
    ini.SetInt("g", "k", number);
    EXPECT_EQ(ini.GetIntOrDefault("g", "k", 42), number);
  }
}

TEST(IniFile, ANumberIsWrittenInDecimal) {
  IniFile ini;
  ini.SetInt("g", "log.level", 3);
  ini.SetInt("g", "negative", -1234567);
  EXPECT_EQ(ini.GetValue("g", "log.level"), "3");
  EXPECT_EQ(ini.GetValue("g", "negative"), "-1234567");
}

TEST(IniFile, NumbersMayHaveASignAndBlanksAround) {
  for (const auto& [text, number] :
       {std::pair("7", 7), std::pair("+7", 7), std::pair("-7", -7), std::pair(" 7", 7), std::pair("7\t ", 7),
        std::pair("\t+7 ", 7), std::pair("007", 7), std::pair("-0", 0), std::pair("+0", 0),
        std::pair("2147483647", INT_MAX), std::pair("-2147483648", INT_MIN)}) {
    IniFile ini;
    ini.SetValue("g", "k", text);
    EXPECT_EQ(ini.GetIntOrDefault("g", "k", 42), number) << text;
  }
}

TEST(IniFile, WhatIsNoNumberIsTheDefault) {
  for (const std::string text : {"",
                                 " ",
                                 "+",
                                 "-",
                                 "+-7",
                                 "-+7",
                                 "++7",
                                 "--7",
                                 "- 7",
                                 "+ 7",
                                 "7x",
                                 "x7",
                                 "7 7",
                                 "7.0",
                                 "7,0",
                                 "1e3",
                                 "0x10",
                                 "2147483648",
                                 "-2147483649",
                                 "99999999999999999999",
                                 "true",
                                 "\n7",
                                 "7\n",
                                 "7\r",
                                 "\v7",
                                 "\xC2\xA0"
                                 "7"}) {
    IniFile ini;
    ini.SetValue("g", "k", text);
    EXPECT_EQ(ini.GetIntOrDefault("g", "k", 42), 42) << text;
  }
}

TEST(IniFile, ANumberWithANulByteIsNone) {
  IniFile ini;
  ini.SetValue("g", "k", std::string("7\0", 2));
  EXPECT_EQ(ini.GetIntOrDefault("g", "k", 42), 42);
}

TEST(IniFile, BooleansHaveFourSpellingsEachInAnyCase) {
  IniFile ini;
  for (const char* yes : {"true", "True", "TRUE", "tRuE", "yes", "YES", "on", "On", "1"}) {
    ini.SetValue("g", "k", yes);
    EXPECT_TRUE(ini.GetBoolOrDefault("g", "k", false)) << yes;
  }
  for (const char* no : {"false", "False", "FALSE", "fAlSe", "no", "NO", "off", "oFF", "0"}) {
    ini.SetValue("g", "k", no);
    EXPECT_FALSE(ini.GetBoolOrDefault("g", "k", true)) << no;
  }
}

TEST(IniFile, WhatIsNoBooleanIsTheDefault) {
  IniFile ini;
  for (const std::string text : {"", "t", "f", "y", "n", "2", "-1", "00", "01", "truee", "tru", "enabled", " true",
                                 "true ", "true\n", "\xC3\xB6n", "wrong"}) {
    ini.SetValue("g", "k", text);
    EXPECT_TRUE(ini.GetBoolOrDefault("g", "k", true)) << text;
    EXPECT_FALSE(ini.GetBoolOrDefault("g", "k", false)) << text;
  }
}

TEST(IniFile, AMissingBooleanIsTheDefault) {
  const IniFile ini;
  EXPECT_TRUE(ini.GetBoolOrDefault("g", "k", true));
  EXPECT_FALSE(ini.GetBoolOrDefault("g", "k", false));
}

TEST(IniFile, AListIsTheValuesOfAGroup) {
  IniFile ini;
  ini.ValueListAppendUnique("List", "b");
  ini.ValueListAppendUnique("List", "a");
  EXPECT_THAT(Members(ini, "List"), testing::UnorderedElementsAre("a", "b"));
}

TEST(IniFile, AListHoldsAMemberOnce) {
  IniFile ini;
  ini.ValueListAppendUnique("List", "a");
  ini.ValueListAppendUnique("List", "a");
  EXPECT_THAT(Members(ini, "List"), ElementsAre("a"));
}

TEST(IniFile, AMemberUnderAnotherKeyIsNotAddedAgain) {
  IniFile ini = FromText("[List]\n0=a\n");
  ini.ValueListAppendUnique("List", "a");
  EXPECT_EQ(ini.GetGroups(), FromText("[List]\n0=a\n").GetGroups());
}

// Whoever numbers the members loses one when two lists with the same numbers are merged.
TEST(IniFile, AMembersKeyIsItsOwnText) {
  IniFile ini;
  ini.ValueListAppendUnique("List", "Network/Eth0");
  EXPECT_THAT(ini["List"], ElementsAre(Pair("Network/Eth0", "Network/Eth0")));
}

TEST(IniFile, AnotherEntrysKeyIsNeverTakenOver) {
  IniFile ini = FromText("[List]\na=b\n");
  ini.ValueListAppendUnique("List", "a");
  EXPECT_THAT(Members(ini, "List"), testing::UnorderedElementsAre("a", "b"));
  ini.ValueListAppendUnique("List", "a");
  EXPECT_EQ(ini["List"].size(), 2u);
}

TEST(IniFile, ManyMembersAreAddedAtOnceAsOneByOne) {
  const std::set<std::string> values{"", "a", "a~", "b", "c"};
  IniFile atOnce = FromText("[List]\na=b\n0=c\n");
  IniFile oneByOne = FromText("[List]\na=b\n0=c\n");
  atOnce.ValueListAppendUnique("List", values);
  for (const std::string& value : values) oneByOne.ValueListAppendUnique("List", value);
  EXPECT_EQ(atOnce.GetGroups(), oneByOne.GetGroups());
  EXPECT_THAT(Members(atOnce, "List"), testing::UnorderedElementsAreArray(values));
}

TEST(IniFile, AddingNoMembersMakesNoList) {
  IniFile ini;
  ini.ValueListAppendUnique("List", std::set<std::string>());
  EXPECT_FALSE(ini.HasGroup("List"));
}

TEST(IniFile, MergingTwoListsLosesNoMember) {
  IniFile ini, other;
  for (const char* member : {"a", "b", "c"}) ini.ValueListAppendUnique("List", member);
  for (const char* member : {"c", "d", "e"}) other.ValueListAppendUnique("List", member);
  ini.MergeSettings(other);
  EXPECT_THAT(Members(ini, "List"), ElementsAre("a", "b", "c", "d", "e"));
}

TEST(IniFile, AListOfAnyMembersSurvivesSavingAndLoading) {
  RandomDocuments texts(2);
  std::set<std::string> members{""};
  for (int i = 0; i < 200; ++i) members.insert(texts.NextText(10));
  IniFile ini;
  for (const std::string& member : members) ini.ValueListAppendUnique("List", member);
  std::stringstream text;
  ini.SaveToStream(text);
  IniFile loaded;
  loaded.LoadFromStream(text);
  EXPECT_THAT(Members(loaded, "List"), testing::UnorderedElementsAreArray(members));
}

// Streams keep no reason of their own, and what failed before has nothing to do with it.
TEST(IniFile, StreamThatFailsIsNotReportedWithAnOldReason) {
  struct : std::streambuf {
    int_type underflow() override { throw std::runtime_error("broken"); }
  } broken;
  std::istream in(&broken);
  errno = ENOENT;
  try {
    IniFile().LoadFromStream(in, "reply");
    FAIL();
  } catch (const Exception& exception) {
    EXPECT_STREQ(exception.what(), "Failed to read reply: Input/output error");
  }
}

}  // namespace
