#include "tavix/settings/server/SettingsCombiner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tests/support/DocumentText.h"
#include "tests/support/EditingFilter.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::server::SettingsCombiner;
using tavix::test::DocumentOf;
using tavix::test::EditingFilter;
using tavix::test::TemporaryDirectory;
using tavix::test::TextOf;
using testing::ElementsAre;

TEST(SettingsCombiner, LoadsAFile) {
  const TemporaryDirectory directory;
  IniFile target = DocumentOf("[A]\nx=0\ny=0\n");
  SettingsCombiner(target).LoadFromFile(directory.Write("site.ini", "[A]\nx=1\n[B]\nz=1\n"));
  EXPECT_EQ(TextOf(target), "[A]\nx=1\ny=0\n[B]\nz=1\n");
}

TEST(SettingsCombiner, LoadsAString) {
  IniFile target = DocumentOf("[A]\nx=0\ny=0\n");
  SettingsCombiner(target).LoadFromString("[A]\nx=1\n[B]\nz=1\n");
  EXPECT_EQ(TextOf(target), "[A]\nx=1\ny=0\n[B]\nz=1\n");
}

TEST(SettingsCombiner, LoadsADocument) {
  IniFile target = DocumentOf("[A]\nx=0\ny=0\n");
  SettingsCombiner combiner(target);
  combiner.LoadFromIni(DocumentOf("[A]\nx=1\n[B]\nz=1\n"));
  EXPECT_EQ(TextOf(target), "[A]\nx=1\ny=0\n[B]\nz=1\n");
}

TEST(SettingsCombiner, LaterSourcesOverrideEarlierOnesKeyByKey) {
  IniFile target;
  SettingsCombiner combiner(target);
  combiner.LoadFromString("[A]\nx=1\ny=1\n");
  combiner.LoadFromString("[A]\ny=2\nz=2\n");
  combiner.LoadFromString("");
  EXPECT_EQ(TextOf(target), "[A]\nx=1\ny=2\nz=2\n");
}

TEST(SettingsCombiner, WithoutFiltersEverySourceIsMergedWhole) {
  IniFile target;
  SettingsCombiner(target).LoadFromString("[A]\nx=1\n[Secure/B]\ny=2\n[TavixSettings/LoadPriority]\nA=5\n");
  EXPECT_EQ(TextOf(target), "[A]\nx=1\n[Secure/B]\ny=2\n[TavixSettings/LoadPriority]\nA=5\n");
}

TEST(SettingsCombiner, FiltersRunInTheOrderOfTheirAddition) {
  IniFile target;
  SettingsCombiner combiner(target);
  EditingFilter first([](IniFile& ini) { ini.SetValue("A", "x", ini.GetValue("A", "x") + "1"); });
  EditingFilter second([](IniFile& ini) { ini.SetValue("A", "x", ini.GetValue("A", "x") + "2"); });
  for (EditingFilter* filter : {&second, &first, &second}) combiner.AddFilter(filter);
  combiner.LoadFromString("[A]\nx=0\n");
  EXPECT_EQ(TextOf(target), "[A]\nx=0212\n") << "also more than once";
}

TEST(SettingsCombiner, FiltersSeeEachSourceAloneBeforeItIsMerged) {
  const TemporaryDirectory directory;
  IniFile target = DocumentOf("[Before]\n");
  SettingsCombiner combiner(target);
  std::vector<std::string> seen;
  EditingFilter filter([&](IniFile& ini) {
    seen.push_back(TextOf(ini));
    ini.RemoveGroup("Unwanted");
  });
  combiner.AddFilter(&filter);
  combiner.LoadFromString("[A]\n[Unwanted]\n");
  combiner.LoadFromFile(directory.Write("b.ini", "[B]\n[Unwanted]\n"));
  combiner.LoadFromIni(DocumentOf("[C]\n[Unwanted]\n"));
  EXPECT_THAT(seen, ElementsAre("[A]\n[Unwanted]\n", "[B]\n[Unwanted]\n", "[C]\n[Unwanted]\n"));
  EXPECT_EQ(TextOf(target), "[A]\n[B]\n[Before]\n[C]\n");
}

TEST(SettingsCombiner, TheCallersDocumentIsNotEdited) {
  IniFile target;
  SettingsCombiner combiner(target);
  EditingFilter filter([](IniFile& ini) { ini.Clear(); });
  combiner.AddFilter(&filter);
  const IniFile source = DocumentOf("[A]\nx=1\n");
  combiner.LoadFromIni(source);
  EXPECT_EQ(TextOf(source), "[A]\nx=1\n");
  EXPECT_TRUE(target.IsEmpty());
}

TEST(SettingsCombiner, RunFiltersEditsAndMergesNothing) {
  IniFile target;
  SettingsCombiner combiner(target);
  EditingFilter filter([](IniFile& ini) { ini.SetValue("A", "x", "1"); });
  combiner.AddFilter(&filter);
  IniFile source;
  combiner.RunFilters(source);
  EXPECT_EQ(TextOf(source), "[A]\nx=1\n");
  EXPECT_TRUE(target.IsEmpty());
}

TEST(SettingsCombiner, MergeRunsNoFilters) {
  IniFile target;
  SettingsCombiner combiner(target);
  EditingFilter filter([](IniFile& ini) { ini.Clear(); });
  combiner.AddFilter(&filter);
  const IniFile source = DocumentOf("[A]\nx=1\n");
  combiner.Merge(source);
  combiner.Merge(DocumentOf("[A]\nx=2\n[B]\n"));
  EXPECT_EQ(TextOf(target), "[A]\nx=2\n[B]\n");
  EXPECT_EQ(TextOf(source), "[A]\nx=1\n");
}

TEST(SettingsCombiner, ASourceThatCanNotBeParsedLeavesTheTarget) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("bad.ini", "[A]\nx=1\nno setting\n");
  IniFile target = DocumentOf("[A]\nx=0\n");
  SettingsCombiner combiner(target);
  EXPECT_THAT([&] { combiner.LoadFromFile(path); },
              testing::ThrowsMessage<Exception>(testing::StartsWith(path + ":3: ")));
  EXPECT_THROW(combiner.LoadFromString("[A]\nx=1\nno setting\n"), Exception);
  EXPECT_EQ(TextOf(target), "[A]\nx=0\n");
}

TEST(SettingsCombiner, AMissingFileIsNamedAndLeavesTheTarget) {
  const TemporaryDirectory directory;
  IniFile target = DocumentOf("[A]\nx=0\n");
  SettingsCombiner combiner(target);
  EXPECT_THAT([&] { combiner.LoadFromFile(directory.Path("none.ini")); },
              testing::ThrowsMessage<Exception>(testing::HasSubstr(directory.Path("none.ini"))));
  EXPECT_EQ(TextOf(target), "[A]\nx=0\n");
}

TEST(SettingsCombiner, AFilterThatThrowsLeavesTheTarget) {
  IniFile target = DocumentOf("[A]\nx=0\n");
  SettingsCombiner combiner(target);
  EditingFilter filter([](IniFile&) { throw Exception("not this one"); });
  combiner.AddFilter(&filter);
  EXPECT_THAT([&] { combiner.LoadFromString("[A]\nx=1\n"); }, testing::ThrowsMessage<Exception>("not this one"));
  EXPECT_EQ(TextOf(target), "[A]\nx=0\n");
}

}  // namespace
