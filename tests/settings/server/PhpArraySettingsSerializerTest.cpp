#include "tavix/settings/server/PhpArraySettingsSerializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tests/support/DocumentText.h"
#include "tests/support/ForeignLocale.h"

namespace {

using namespace std::string_literals;

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::PhpArraySettingsSerializer;
using tavix::test::DocumentOf;
using tavix::test::TextOf;

constexpr char kExample[] = R"(a:1:{s:3:"Net";a:2:{s:4:"dhcp";s:1:"1";s:2:"ip";s:8:"10.0.0.2";}})";

std::string Serialized(const IniFile& document, const std::set<std::string>& groups = {"*"}) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  std::ostringstream text;
  PhpArraySettingsSerializer().OnSerialize(document, matcher, text);
  return text.str();
}

IniFile Deserialized(const std::string& text) {
  std::istringstream in(text);
  IniFile document;
  PhpArraySettingsSerializer().OnDeserialize(in, document);
  return document;
}

std::string ErrorOf(const std::string& text) {
  try {
    Deserialized(text);
    return "none";
  } catch (const Exception& exception) {
    return exception.what();
  }
}

std::string RestOf(std::istream& in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(PhpArraySettingsSerializer, WritesGroupsAndKeysInOrder) {
  EXPECT_EQ(Serialized(DocumentOf("[Net]\nip=10.0.0.2\ndhcp=1\n")), std::string(kExample) + "\n\n");
  EXPECT_EQ(Serialized(DocumentOf("[B]\nk=\n[A]\n")), "a:2:{s:1:\"A\";a:0:{}s:1:\"B\";a:1:{s:1:\"k\";s:0:\"\";}}\n\n");
}

TEST(PhpArraySettingsSerializer, WritesTheMatchingGroupsOnly) {
  const IniFile document = DocumentOf("[A]\n[Net]\n[Net/Eth0]\n[Other]\n");
  EXPECT_EQ(Serialized(document, {"Net*"}), "a:2:{s:3:\"Net\";a:0:{}s:8:\"Net/Eth0\";a:0:{}}\n\n");
  EXPECT_EQ(Serialized(document, {"Other", "None"}), "a:1:{s:5:\"Other\";a:0:{}}\n\n");
}

TEST(PhpArraySettingsSerializer, WritesAnEmptySelectionAsAnEmptyArray) {
  EXPECT_EQ(Serialized(IniFile()), "a:0:{}\n\n");
  EXPECT_EQ(Serialized(DocumentOf("[A]\n"), {"B"}), "a:0:{}\n\n");
  EXPECT_EQ(Serialized(DocumentOf("[A]\n"), {}), "a:0:{}\n\n");
}

TEST(PhpArraySettingsSerializer, WritesBytesUnescapedAndCountsThem) {
  IniFile document;
  document.SetValue("G\"", "k\n", "\";\0\xc3\xa4"s);
  EXPECT_EQ(Serialized(document), "a:1:{s:2:\"G\"\";a:1:{s:2:\"k\n\";s:5:\"\";\0\xc3\xa4\";}}\n\n"s);
}

TEST(PhpArraySettingsSerializer, FlushesAtTheEnd) {
  struct FlushCounter : std::stringbuf {
    int sync() override {
      flushed = str();
      return 0;
    }
    std::string flushed;
  } buffer;
  std::ostream out(&buffer);
  PhpArraySettingsSerializer().OnSerialize(IniFile(), GroupNameMatcher(), out);
  EXPECT_EQ(buffer.flushed, "a:0:{}\n\n");
}

TEST(PhpArraySettingsSerializer, NumbersFollowNoLocale) {
  const tavix::test::ForeignLocale locale;
  IniFile document;
  document.SetValue("A", "k", std::string(1234, 'v'));
  const std::string text = Serialized(document);
  EXPECT_EQ(text.substr(0, 42), R"(a:1:{s:1:"A";a:1:{s:1:"k";s:1234:"vvvvvvvv)");
  EXPECT_EQ(Deserialized(text).GetValue("A", "k").size(), 1234u);
}

TEST(PhpArraySettingsSerializer, NumbersFollowNoStateOfTheStream) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern("A");
  std::ostringstream text;
  text << std::hex << std::showbase << std::showpos;
  PhpArraySettingsSerializer().OnSerialize(DocumentOf("[A]\nk=123456789012\n"), matcher, text);
  EXPECT_EQ(text.str(), "a:1:{s:1:\"A\";a:1:{s:1:\"k\";s:12:\"123456789012\";}}\n\n");
}

TEST(PhpArraySettingsSerializer, ReadsWhatItWrites) {
  EXPECT_EQ(TextOf(Deserialized(kExample)), "[Net]\ndhcp=1\nip=10.0.0.2\n");
  EXPECT_TRUE(Deserialized("a:0:{}").IsEmpty());
}

TEST(PhpArraySettingsSerializer, ReadsNothingBehindTheLastBrace) {
  std::istringstream in(std::string(kExample) + "\n\n.\n");
  IniFile document;
  PhpArraySettingsSerializer().OnDeserialize(in, document);
  EXPECT_TRUE(in.good());
  EXPECT_EQ(RestOf(in), "\n\n.\n");
}

TEST(PhpArraySettingsSerializer, ACompletePayloadLeavesTheStreamGoodThoughItEndsThere) {
  std::istringstream in(kExample);
  IniFile document;
  PhpArraySettingsSerializer().OnDeserialize(in, document);
  EXPECT_TRUE(in.good());
}

TEST(PhpArraySettingsSerializer, AnEmptyStringIsAString) {
  const IniFile document = Deserialized(R"(a:1:{s:0:"";a:1:{s:0:"";s:0:"";}})");
  EXPECT_TRUE(document.HasValue("", ""));
  EXPECT_EQ(document.GetValue("", ""), "");
}

TEST(PhpArraySettingsSerializer, ReadsLongStringsAndThoseThatLookLikeSyntax) {
  for (const std::string& value :
       {std::string(255, 'x'), std::string(256, 'x'), std::string(300, 'x'), std::string(510, 'x'),
        std::string(70000, 'x'), std::string("\";\n}s:1:\"a\";"), std::string(" \t\n "), std::string("\0\"\0", 3)}) {
    IniFile document;
    document.SetValue("A", value, value);
    EXPECT_EQ(Deserialized(Serialized(document)).GetValue("A", value), value);
  }
}

TEST(PhpArraySettingsSerializer, NumbersMayHaveASign) {
  EXPECT_EQ(TextOf(Deserialized("a:+1:{s:+01:\"A\";a: +1:{s:1:\"k\";s:-0:\"\";}}")), "[A]\nk=\n");
  EXPECT_EQ(TextOf(Deserialized("a:-4294967295:{s:1:\"A\";a:-0:{}}")), "[A]\n");
  EXPECT_EQ(ErrorOf("a:1:{s:-1:\"A"), "phparray failed to read 4294967295 characters for string");
}

TEST(PhpArraySettingsSerializer, WhiteSpaceMayStandBetweenTokensAndTheirParts) {
  EXPECT_EQ(TextOf(Deserialized("a:1:{ s:3:\"Net\"; a:0:{ } }")), "[Net]\n");
  EXPECT_EQ(TextOf(Deserialized("\n a : 1 :\t{ s : 1\n: \"A\" ; a : 1 : { s:1:\"k\";\r\ns:1:\"v\"; } }")),
            "[A]\nk=v\n");
}

TEST(PhpArraySettingsSerializer, WhiteSpaceInsideAStringBelongsToIt) {
  EXPECT_EQ(Deserialized("a:1:{s:1:\"A\";a:1:{s:2:\" k\";s:3:\"\nv \";}}").GetValue("A", " k"), "\nv ");
}

TEST(PhpArraySettingsSerializer, AddsToTheDocument) {
  std::istringstream in(R"(a:2:{s:1:"A";a:1:{s:1:"x";s:1:"1";}s:1:"B";a:0:{}})");
  IniFile document = DocumentOf("[A]\nx=0\ny=0\n");
  PhpArraySettingsSerializer().OnDeserialize(in, document);
  EXPECT_EQ(TextOf(document), "[A]\nx=1\ny=0\n[B]\n");
}

TEST(PhpArraySettingsSerializer, TheLastOfTwoEqualKeysCounts) {
  EXPECT_EQ(TextOf(Deserialized(R"(a:1:{s:1:"A";a:2:{s:1:"k";s:1:"1";s:1:"k";s:1:"2";}})")), "[A]\nk=2\n");
}

TEST(PhpArraySettingsSerializer, AGroupThatComesTwiceIsOne) {
  EXPECT_EQ(TextOf(Deserialized(R"(a:2:{s:1:"A";a:1:{s:1:"k";s:1:"1";}s:1:"A";a:1:{s:1:"l";s:1:"2";}})")),
            "[A]\nk=1\nl=2\n");
}

TEST(PhpArraySettingsSerializer, AStreamThatEndsTooSoonIsToldWhatWasDue) {
  EXPECT_EQ(ErrorOf(""), "phparray missing data (expected 'a')");
  EXPECT_EQ(ErrorOf(" \n"), "phparray missing data (expected 'a')");
  EXPECT_EQ(ErrorOf("a"), "phparray missing data (expected ':')");
  EXPECT_EQ(ErrorOf("a:1"), "phparray missing data (expected ':')");
  EXPECT_EQ(ErrorOf("a:1:"), "phparray missing data (expected '{')");
  EXPECT_EQ(ErrorOf("a:1:{"), "phparray missing data (expected 's')");
  EXPECT_EQ(ErrorOf("a:0:{"), "phparray missing data (expected '}')");
  EXPECT_EQ(ErrorOf("a:1:{s"), "phparray missing data (expected ':')");
  EXPECT_EQ(ErrorOf("a:1:{s:1"), "phparray missing data (expected ':')");
  EXPECT_EQ(ErrorOf("a:1:{s:1:"), "phparray missing data (expected '\"')");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\"A"), "phparray missing data (expected '\"')");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\"A\""), "phparray missing data (expected ';')");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\"A\";"), "phparray missing data (expected 'a')");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\"A\";a:0:{"), "phparray missing data (expected '}')");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\"A\";a:0:{}"), "phparray missing data (expected '}')");
}

TEST(PhpArraySettingsSerializer, AWrongCharacterIsNamedWithTheOneExpected) {
  EXPECT_EQ(ErrorOf("s:1:{}"), "expected: 'a' but got: 's'");
  EXPECT_EQ(ErrorOf("a;1:{}"), "expected: ':' but got: ';'");
  EXPECT_EQ(ErrorOf("a:1;{}"), "expected: ':' but got: ';'");
  EXPECT_EQ(ErrorOf("a:1:(}"), "expected: '{' but got: '('");
  EXPECT_EQ(ErrorOf("a:1:{a:0:{}}"), "expected: 's' but got: 'a'");
  EXPECT_EQ(ErrorOf("a:1:{s:1:'A';"), "expected: '\"' but got: '''");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\"AB\";"), "expected: '\"' but got: 'B'");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\"A\":"), "expected: ';' but got: ':'");
  EXPECT_EQ(ErrorOf(R"(a:1:{s:3:"Net";a:1:{s:2:"ip";}})"), "expected: 's' but got: '}'") << "a key without its value";
  EXPECT_EQ(ErrorOf(R"(a:1:{s:1:"A";a:0:{s:1:"k";s:1:"v";}})"), "expected: '}' but got: 's'") << "more than announced";
  EXPECT_EQ(ErrorOf(R"(a:0:{s:1:"A";a:0:{}})"), "expected: '}' but got: 's'");
  EXPECT_EQ(ErrorOf(".\n"), "expected: 'a' but got: '.'") << "a terminator is no empty payload";
}

TEST(PhpArraySettingsSerializer, ACountOrLengthIsAnUnsignedNumber) {
  for (const char* text : {"a:x:{", "a::{", "a:", "a:- 1:{}", "a:+-1:{}", "a:+:{}", "a:-4294967296:{}",
                           "a:4294967296:{}", "a:99999999999999999999:{}", "a:1:{s:x:\"\";", "a:1:{s::\"\";",
                           "a:1:{s:-:\"\";", "a:1:{s:", "a:1:{s:1:\"A\";a:x:{"}) {
    EXPECT_EQ(ErrorOf(text), "failed to read size specification") << text;
  }
}

TEST(PhpArraySettingsSerializer, AStringThatRunsOutSaysHowMuchIsMissing) {
  EXPECT_EQ(ErrorOf("a:1:{s:5:\"ab"), "phparray failed to read 5 characters for string");
  EXPECT_EQ(ErrorOf("a:1:{s:1:\""), "phparray failed to read 1 characters for string");
  EXPECT_EQ(ErrorOf("a:1:{s:300:\"" + std::string(100, 'x')), "phparray failed to read 300 characters for string");
}

// Deliberate: strings are read in chunks of 255 bytes, and what counts is the chunk that failed.
TEST(PhpArraySettingsSerializer, ALongStringThatRunsOutCountsFromItsLastChunk) {
  EXPECT_EQ(ErrorOf("a:1:{s:300:\"" + std::string(260, 'x')), "phparray failed to read 45 characters for string");
  EXPECT_EQ(ErrorOf("a:1:{s:300:\"" + std::string(255, 'x')), "phparray failed to read 45 characters for string");
  EXPECT_EQ(ErrorOf("a:1:{s:300:\"" + std::string(254, 'x')), "phparray failed to read 300 characters for string");
  EXPECT_EQ(ErrorOf("a:1:{s:600:\"" + std::string(300, 'x')), "phparray failed to read 345 characters for string");
}

TEST(PhpArraySettingsSerializer, AFalseLengthReservesNothing) {
  EXPECT_EQ(ErrorOf("a:1:{s:4294967295:\"ab"), "phparray failed to read 4294967295 characters for string");
  EXPECT_EQ(ErrorOf("a:4294967295:{"), "phparray missing data (expected 's')");
}

TEST(PhpArraySettingsSerializer, WhatCameBeforeAnErrorStays) {
  std::istringstream in(R"(a:2:{s:1:"A";a:2:{s:1:"k";s:1:"v";s:1:"l";x)");
  IniFile document = DocumentOf("[Z]\n");
  EXPECT_THROW(PhpArraySettingsSerializer().OnDeserialize(in, document), Exception);
  EXPECT_EQ(document.GetValueOrDefault("A", "k"), "v");
  EXPECT_TRUE(document.HasGroup("Z"));
}

TEST(PhpArraySettingsSerializer, BetweenTwoPayloadsATerminatorMayStand) {
  for (const char* between : {"", "\n", "\n\n", ".\n", "\n.\n", "\n\n.\n", " . ", "\r\n.\r\n"}) {
    std::istringstream in(std::string("a:0:{}") + between + kExample);
    IniFile document;
    const PhpArraySettingsSerializer serializer;
    serializer.OnDeserialize(in, document);
    serializer.SkipPayloadEnd(in);
    serializer.OnDeserialize(in, document);
    EXPECT_EQ(TextOf(document), "[Net]\ndhcp=1\nip=10.0.0.2\n");
  }
}

TEST(PhpArraySettingsSerializer, BetweenTwoPayloadsNoSecondTerminatorMayStand) {
  std::istringstream in("..a:0:{}");
  PhpArraySettingsSerializer().SkipPayloadEnd(in);
  EXPECT_EQ(RestOf(in), ".a:0:{}");
}

}  // namespace
