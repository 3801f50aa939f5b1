#include "tavix/settings/server/LoadPriorityIncludeFilter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"

namespace {

using tavix::core::IniFile;
using tavix::settings::server::LoadPriorityIncludeFilter;
using tavix::settings::server::SettingsCombiner;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::TextOf;

// What is left of a source once the filter has seen it.
std::string Filtered(LoadPriorityIncludeFilter& filter, const std::string& source) {
  IniFile document = DocumentOf(source);
  filter.FilterIni(document);
  return TextOf(document);
}

// What comes of loading the sources one after the other.
std::string Combined(const std::vector<std::string>& sources) {
  IniFile target;
  LoadPriorityIncludeFilter filter;
  SettingsCombiner combiner(target);
  combiner.AddFilter(&filter);
  for (const std::string& source : sources) combiner.LoadFromString(source);
  return TextOf(target);
}

// A source of the group Net: with a value that tells it from others, and a priority.
std::string NetOf(const std::string& value, const std::string& priority) {
  return "[Net]\nfrom=" + value + "\n[TavixSettings/LoadPriority]\nNet=" + priority + "\n";
}

TEST(LoadPriorityIncludeFilter, AGroupWithAPriorityIsKeptFromSourcesWithoutOne) {
  EXPECT_EQ(Combined({NetOf("1", "5"), "[Net]\nfrom=2\nmore=2\n[Other]\nx=2\n"}), "[Net]\nfrom=1\n[Other]\nx=2\n");
}

TEST(LoadPriorityIncludeFilter, TheSamePriorityOverrides) {
  EXPECT_EQ(Combined({NetOf("1", "5"), NetOf("2", "5")}), "[Net]\nfrom=2\n");
}

TEST(LoadPriorityIncludeFilter, ALowerPriorityDoesNotAndLowersNothing) {
  EXPECT_EQ(Combined({NetOf("1", "5"), NetOf("2", "3"), NetOf("3", "4")}), "[Net]\nfrom=1\n");
}

TEST(LoadPriorityIncludeFilter, AHigherPriorityOverridesAndIsTheNewMeasure) {
  EXPECT_EQ(Combined({NetOf("1", "5"), NetOf("2", "9"), NetOf("3", "8")}), "[Net]\nfrom=2\n");
  EXPECT_EQ(Combined({NetOf("1", "5"), NetOf("2", "9"), NetOf("3", "9")}), "[Net]\nfrom=3\n");
}

TEST(LoadPriorityIncludeFilter, PrioritiesAreSigned) {
  EXPECT_EQ(Combined({NetOf("1", "-2"), NetOf("2", "-1")}), "[Net]\nfrom=2\n");
  EXPECT_EQ(Combined({NetOf("1", "-2"), NetOf("2", "-3")}), "[Net]\nfrom=1\n");
  EXPECT_EQ(Combined({NetOf("1", "-2"), "[Net]\nfrom=2\n"}), "[Net]\nfrom=1\n") << "none is less than any";
  EXPECT_EQ(Combined({NetOf("1", "-2147483648"), NetOf("2", "2147483647"), NetOf("3", "0")}), "[Net]\nfrom=2\n");
}

TEST(LoadPriorityIncludeFilter, WhatIsNoNumberIsNoPriority) {
  for (const char* text : {"high", "", "5x", "2147483648", "0x5", "1.5"}) {
    EXPECT_EQ(Combined({NetOf("1", text), "[Net]\nfrom=2\n"}), "[Net]\nfrom=2\n") << text;
    EXPECT_EQ(Combined({NetOf("1", "5"), NetOf("2", text)}), "[Net]\nfrom=1\n") << text;
  }
}

TEST(LoadPriorityIncludeFilter, RestrictedGroupsCanBeGivenNone) {
  EXPECT_EQ(
      Combined({"[SecureKeys]\nfrom=1\n[TrustedX]\nfrom=1\n[TavixSettings/LoadPriority]\nSecureKeys=7\nTrustedX=7\n",
                "[SecureKeys]\nfrom=2\n[TrustedX]\nfrom=2\n"}),
      "[SecureKeys]\nfrom=2\n[TrustedX]\nfrom=2\n");
}

TEST(LoadPriorityIncludeFilter, AGroupWithoutAPriorityIsMergedAsEver) {
  EXPECT_EQ(Combined({"[A]\nx=1\ny=1\n" + NetOf("1", "5"), "[A]\ny=2\n"}), "[A]\nx=1\ny=2\n[Net]\nfrom=1\n");
}

TEST(LoadPriorityIncludeFilter, ThePrioritiesOfASourceDoNotApplyToItself) {
  EXPECT_EQ(Combined({"[Net]\nfrom=1\n", NetOf("2", "-5")}), "[Net]\nfrom=2\n");
}

TEST(LoadPriorityIncludeFilter, APriorityCountsForAGroupThatItsSourceLacks) {
  EXPECT_EQ(Combined({"[TavixSettings/LoadPriority]\nNet=5\n", "[Net]\nfrom=2\n"}), "");
  EXPECT_EQ(Combined({"[TavixSettings/LoadPriority]\nNet=5\n", NetOf("2", "5")}), "[Net]\nfrom=2\n");
}

TEST(LoadPriorityIncludeFilter, TheGroupOfPrioritiesNeverPasses) {
  EXPECT_EQ(Combined({"[TavixSettings/LoadPriority]\nNet=5\nbad=bad\n"}), "");
  EXPECT_EQ(Combined({"[TavixSettings/LoadPriority]\n"}), "");
  EXPECT_EQ(Combined({"[TavixSettings/LoadPriority]\nTavixSettings/LoadPriority=5\n",
                      "[TavixSettings/LoadPriority]\nTavixSettings/LoadPriority=9\nNet=5\n", "[Net]\nx=1\n"}),
            "")
      << "not even when it names itself";
}

TEST(LoadPriorityIncludeFilter, OnlyTheExactNameIsTheGroupOfPriorities) {
  EXPECT_EQ(Combined({"[LoadPriority]\nNet=5\n[TavixSettings/loadpriority]\nNet=5\n", "[Net]\nx=1\n"}),
            "[LoadPriority]\nNet=5\n[Net]\nx=1\n[TavixSettings/loadpriority]\nNet=5\n");
}

TEST(LoadPriorityIncludeFilter, AnOutrankedGroupGoesWithAllItsNeighboursLeft) {
  LoadPriorityIncludeFilter filter;
  filter.MergePriorities({{"B", 1}, {"C", 1}, {"E", 1}});
  EXPECT_EQ(Filtered(filter, "[A]\n[B]\n[C]\n[D]\n[E]\n"), "[A]\n[D]\n");
}

TEST(LoadPriorityIncludeFilter, MergingPrioritiesNeverLowersOne) {
  LoadPriorityIncludeFilter filter;
  filter.MergePriorities({{"Net", 5}});
  filter.MergePriorities({{"Net", 3}, {"Audio", -1}});
  EXPECT_EQ(Filtered(filter, NetOf("1", "4")), "");
  EXPECT_EQ(Filtered(filter, "[Audio]\n"), "");
  filter.MergePriorities({{"Net", 7}});
  EXPECT_EQ(Filtered(filter, NetOf("1", "6")), "");
  EXPECT_EQ(Filtered(filter, NetOf("1", "7")), "[Net]\nfrom=1\n");
}

TEST(LoadPriorityIncludeFilter, PrioritiesLastAsLongAsTheFilter) {
  LoadPriorityIncludeFilter filter;
  EXPECT_EQ(Filtered(filter, NetOf("1", "5")), "[Net]\nfrom=1\n");
  EXPECT_EQ(Filtered(filter, "[A]\n"), "[A]\n");
  EXPECT_EQ(Filtered(filter, "[Net]\nfrom=3\n"), "");
  LoadPriorityIncludeFilter other;
  EXPECT_EQ(Filtered(other, "[Net]\nfrom=3\n"), "[Net]\nfrom=3\n") << "and are its own";
}

TEST(LoadPriorityIncludeFilter, FiltersOnSeveralThreadsAtOnce) {
  LoadPriorityIncludeFilter filter;
  const auto load = [&filter](const std::string& group) {
    for (int priority = 0; priority < 200; ++priority) {
      const std::string source = "[" + group + "]\n[TavixSettings/LoadPriority]\nNet=" + std::to_string(priority);
      EXPECT_EQ(Filtered(filter, source), "[" + group + "]\n");
    }
  };
  {
    BackgroundCall first([&] { load("A"); });
    BackgroundCall second([&] { load("B"); });
  }
  EXPECT_EQ(Filtered(filter, NetOf("1", "198")), "");
  EXPECT_EQ(Filtered(filter, NetOf("1", "199")), "[Net]\nfrom=1\n");
}

}  // namespace
