#include "tavix/settings/server/IniFileSettingsSerializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tests/support/DocumentText.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::IniFileSettingsSerializer;
using tavix::test::DocumentOf;
using tavix::test::TextOf;

std::string Serialized(const IniFile& document, const std::set<std::string>& groups) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  std::ostringstream text;
  IniFileSettingsSerializer().OnSerialize(document, matcher, text);
  return text.str();
}

std::string RestOf(std::istream& in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Counts the flushes of a stream.
class FlushCounter : public std::stringbuf {
 public:
  int count = 0;

 protected:
  int sync() override {
    ++count;
    return 0;
  }
};

TEST(IniFileSettingsSerializer, WritesTheMatchingGroupsInOrderAndNothingElse) {
  const IniFile document = DocumentOf("[Net/Wlan0]\nssid=x\n[Audio]\nvolume=5\n[Net/Eth0]\nip=10.0.0.2\ndhcp=1\n");
  EXPECT_EQ(Serialized(document, {"Net/*"}), "[Net/Eth0]\ndhcp=1\nip=10.0.0.2\n[Net/Wlan0]\nssid=x\n");
  EXPECT_EQ(Serialized(document, {"Audio", "None"}), "[Audio]\nvolume=5\n");
  EXPECT_EQ(Serialized(document, {"None"}), "");
  EXPECT_EQ(Serialized(document, {}), "");
}

TEST(IniFileSettingsSerializer, FindsNamesThatStandBehindOtherGroups) {
  EXPECT_EQ(Serialized(DocumentOf("[a]\n[b]\n"), {"b"}), "[b]\n");
}

TEST(IniFileSettingsSerializer, DoesNotFlush) {
  FlushCounter buffer;
  std::ostream out(&buffer);
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern("*");
  IniFileSettingsSerializer().OnSerialize(DocumentOf("[A]\nx=1\n"), matcher, out);
  EXPECT_EQ(buffer.str(), "[A]\nx=1\n");
  EXPECT_EQ(buffer.count, 0);
}

TEST(IniFileSettingsSerializer, ReadsThroughTheTerminatorsLineAndNoFurther) {
  std::istringstream in("[A]\nx=1\n.\nnext\n");
  IniFile document;
  IniFileSettingsSerializer().OnDeserialize(in, document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\n");
  EXPECT_TRUE(in.good());
  EXPECT_EQ(RestOf(in), "next\n");
}

TEST(IniFileSettingsSerializer, ATerminatorAloneIsAnEmptyDocument) {
  std::istringstream in(".\n[A]\n.\n");
  IniFile document;
  IniFileSettingsSerializer().OnDeserialize(in, document);
  EXPECT_TRUE(document.IsEmpty());
  IniFileSettingsSerializer().OnDeserialize(in, document);
  EXPECT_EQ(TextOf(document), "[A]\n");
}

TEST(IniFileSettingsSerializer, AddsToTheDocument) {
  std::istringstream in("[A]\nx=1\n[B]\nz=1\n.\n");
  IniFile document = DocumentOf("[A]\nx=0\ny=0\n");
  IniFileSettingsSerializer().OnDeserialize(in, document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\ny=0\n[B]\nz=1\n");
}

TEST(IniFileSettingsSerializer, APayloadThatTheEndCutsOffLeavesTheStreamNotGood) {
  for (const char* text : {"", "[A]\n", "[A]\nx=1\n", "[A]\nx=1\n."}) {
    std::istringstream in(text);
    IniFile document;
    IniFileSettingsSerializer().OnDeserialize(in, document);
    EXPECT_FALSE(in.good()) << text;
  }
}

TEST(IniFileSettingsSerializer, WhatIsNoSettingsTextThrowsAndNamesTheLine) {
  std::istringstream in("[A]\nx=1\nbogus\n.\n");
  IniFile document;
  EXPECT_THAT(
      [&] { IniFileSettingsSerializer().OnDeserialize(in, document); },
      testing::ThrowsMessage<Exception>("settings payload:3: expected \"[group]\" or \"key=value\", found \"bogus\""));
}

}  // namespace
