#include "tavix/core/SettingsText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/DelimitedIstream.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/SettingsTextCheck.h"
#include "tavix/osa/Exception.h"
#include "tests/core/SettingsTextTest.h"
#include "tests/support/RandomDocument.h"

namespace {

using tavix::core::IniFile;
using tavix::core::PrintableText;
using tavix::core::SettingsTextCheck;
using tavix::osa::Exception;
using tavix::test::RandomDocuments;
using tavix::test::Read;
using tavix::test::Write;
using GroupMap = IniFile::GroupMap;

// The key and the value of a document's only setting, as text.
std::string WrittenSetting(const std::string& key, const std::string& value) {
  const std::string text = Write({{"g", {{key, value}}}});
  EXPECT_EQ(text.substr(0, 4), "[g]\n");
  EXPECT_EQ(text.back(), '\n');
  return text.substr(4, text.size() - 5);
}

std::pair<std::string, std::string> ReadSetting(const std::string& line) {
  const GroupMap groups = Read("[g]\n" + line + "\n");
  EXPECT_EQ(groups.at("g").size(), 1u) << line;
  return *groups.at("g").begin();
}

std::string ErrorOf(const std::string& text) {
  std::istringstream stream(text);
  try {
    IniFile().LoadFromStream(stream, "site.ini");
  } catch (const Exception& exception) {
    return exception.what();
  }
  return "no error";
}

// Line by line.
std::string ErrorOfCheck(const std::string& text) {
  const std::string source = "site.ini";
  SettingsTextCheck check(source);
  std::istringstream lines(text);
  try {
    for (std::string line; std::getline(lines, line);) check.ReadLines(lines.eof() ? line : line + "\n");
  } catch (const Exception& exception) {
    return exception.what();
  }
  return "no error";
}

using Setting = std::pair<std::string, std::string>;

TEST(SettingsText, GroupsAndSettingsAreRead) {
  EXPECT_EQ(Read("[Network]\nip=10.0.0.2\nmask=255.0.0.0\n[Audio]\nvolume=7\n"),
            (GroupMap{{"Audio", {{"volume", "7"}}}, {"Network", {{"ip", "10.0.0.2"}, {"mask", "255.0.0.0"}}}}));
}

TEST(SettingsText, NothingIsAnEmptyDocument) {
  for (const char* text : {"", "\n", "\n\n", " \t \n", "\r\n", "\xEF\xBB\xBF", "# only a comment"})
    EXPECT_EQ(Read(text), GroupMap()) << text;
}

TEST(SettingsText, TheLastLineNeedsNoLineFeed) {
  EXPECT_EQ(Read("[g]\nk=v"), (GroupMap{{"g", {{"k", "v"}}}}));
  EXPECT_EQ(Read("[g]"), (GroupMap{{"g", {}}}));
}

TEST(SettingsText, AnEmptyGroupIsAHeaderAlone) {
  EXPECT_EQ(Read("[a]\n[b]\n"), (GroupMap{{"a", {}}, {"b", {}}}));
  EXPECT_EQ(Write({{"a", {}}, {"b", {}}}), "[a]\n[b]\n");
}

TEST(SettingsText, EmptyNamesKeysAndValuesAreLegal) {
  const GroupMap empty{{"", {{"", ""}}}};
  EXPECT_EQ(Write(empty), "[]\n=\n");
  EXPECT_EQ(Read("[]\n=\n"), empty);
  EXPECT_EQ(Read("[]\n  =  \n"), empty);
}

TEST(SettingsText, AGroupThatOpensAgainGoesOn) {
  EXPECT_EQ(Read("[a]\nk=1\n[b]\nk=2\n[a]\nl=3\n"), (GroupMap{{"a", {{"k", "1"}, {"l", "3"}}}, {"b", {{"k", "2"}}}}));
}

TEST(SettingsText, TheLastValueOfAKeyWins) {
  EXPECT_EQ(Read("[a]\nk=1\nk=2\n[b]\n[a]\nk=3\n"), (GroupMap{{"a", {{"k", "3"}}}, {"b", {}}}));
}

TEST(SettingsText, CommentsAndBlankLinesAreSkipped) {
  EXPECT_EQ(Read("# c\n; c\n\n  # c\n\t;k=v\n[a]\n#k=1\n;k=2\n \t\nk=3\n#"), (GroupMap{{"a", {{"k", "3"}}}}));
}

TEST(SettingsText, CommentSignsInsideALineArePartOfIt) {
  EXPECT_EQ(ReadSetting("k#1;2=v # no comment ; either"), Setting("k#1;2", "v # no comment ; either"));
}

TEST(SettingsText, AByteOrderMarkAtTheStartIsSkipped) {
  EXPECT_EQ(Read("\xEF\xBB\xBF[a]\nk=v\n"), (GroupMap{{"a", {{"k", "v"}}}}));
}

TEST(SettingsText, AByteOrderMarkElsewhereIsText) {
  EXPECT_EQ(ReadSetting("\xEF\xBB\xBFk=v"), Setting("\xEF\xBB\xBFk", "v"));
  EXPECT_EQ(ReadSetting("k=\xEF\xBB\xBFv"), Setting("k", "\xEF\xBB\xBFv"));
}

TEST(SettingsText, ACarriageReturnBeforeTheLineFeedIsDropped) {
  EXPECT_EQ(Read("[a]\r\nk=v\r\n\r\n# c\r\n[b]\r\nl=\r\n"), (GroupMap{{"a", {{"k", "v"}}}, {"b", {{"l", ""}}}}));
  EXPECT_EQ(Read("[a]\r\nk=v\r"), (GroupMap{{"a", {{"k", "v"}}}}));
}

TEST(SettingsText, ACarriageReturnElsewhereIsText) {
  EXPECT_EQ(ReadSetting("k=a\rb"), Setting("k", "a\rb"));
  EXPECT_EQ(ReadSetting("k=v\r\r"), Setting("k", "v\r"));
}

TEST(SettingsText, BlanksAroundKeyAndValueAreDropped) {
  EXPECT_EQ(ReadSetting(" \t key of two \t = \t a value \t "), Setting("key of two", "a value"));
}

TEST(SettingsText, BlanksAroundAHeaderAreDroppedThoseInItKept) {
  EXPECT_EQ(Read("  [ a b ]  \n"), (GroupMap{{" a b ", {}}}));
}

TEST(SettingsText, TheLastBracketOfALineClosesTheHeader) {
  EXPECT_EQ(Read("[a]b]\n"), (GroupMap{{"a]b", {}}}));
  EXPECT_EQ(Read("[[a]]\n"), (GroupMap{{"[a]", {}}}));
  EXPECT_EQ(Read("[a=b]\n"), (GroupMap{{"a=b", {}}}));
  EXPECT_EQ(Read("[]]\n"), (GroupMap{{"]", {}}}));
}

TEST(SettingsText, ALineIsSplitAtTheFirstEqualsSign) {
  EXPECT_EQ(ReadSetting("a=b=c"), Setting("a", "b=c"));
  EXPECT_EQ(ReadSetting("==="), Setting("", "=="));
  EXPECT_EQ(ReadSetting("k=[v]"), Setting("k", "[v]"));
}

TEST(SettingsText, AnEscapedEqualsSignDoesNotSplit) {
  EXPECT_EQ(ReadSetting("a\\x3db=c"), Setting("a=b", "c"));
  EXPECT_EQ(ReadSetting("a\\=b=c"), Setting("a\\=b", "c"));
  EXPECT_EQ(ReadSetting("a\\\\=b=c"), Setting("a\\", "b=c"));
  EXPECT_EQ(ReadSetting("a=b\\=c"), Setting("a", "b\\=c"));
}

TEST(SettingsText, EscapesAreRead) {
  const std::vector<std::pair<std::string, std::string>> cases = {{"\\\\", "\\"},
                                                                  {"\\n", "\n"},
                                                                  {"\\r", "\r"},
                                                                  {"\\t", "\t"},
                                                                  {"\\s", " "},
                                                                  {"\\x00", std::string(1, '\0')},
                                                                  {"\\x41", "A"},
                                                                  {"\\xff", "\xff"},
                                                                  {"\\xAb", "\xab"},
                                                                  {"\\x0", "\\x0"},
                                                                  {"a\\nb\\\\n", "a\nb\\n"},
                                                                  {"\\s a \\s", "  a  "}};
  for (const auto& [text, bytes] : cases) {
    EXPECT_EQ(ReadSetting("k=" + text), Setting("k", bytes)) << text;
    EXPECT_EQ(ReadSetting(text + "=v"), Setting(bytes, "v")) << text;
    EXPECT_EQ(Read("[" + text + "]\n"), (GroupMap{{bytes, {}}})) << text;
  }
}

TEST(SettingsText, EveryByteCanBeEscaped) {
  for (int byte = 0; byte < 256; ++byte) {
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned int>(byte));
    const std::string bytes(1, static_cast<char>(byte));
    EXPECT_EQ(ReadSetting(std::string(escape) + "=" + escape), Setting(bytes, bytes));
  }
}

TEST(SettingsText, AnUnknownEscapeReadsAsItsTwoCharacters) {
  for (const std::string text :
       {"\\", "a\\", "\\a", "\\N", "\\0", "\\x", "\\x1", "\\xg0", "\\x0g", "\\X41", "\\\"", "C:\\dir\\file", "\\q\\"})
    EXPECT_EQ(ReadSetting("k=" + text), Setting("k", text)) << text;
}

TEST(SettingsText, PlainTextStaysPlain) {
  const std::string plain[] = {
      "ip",   "10.0.0.2",   "a b", "caf\xC3\xA9",           "\xff\xfe", ".", "..", "a#b;c", "a[b",
      "100%", "\"quoted\"", "'",   "{}()<>|&^$!?*+,-/:@_`~"};
  for (const std::string& text : plain) {
    EXPECT_EQ(WrittenSetting(text, text), text + "=" + text);
    EXPECT_EQ(Write({{text, {}}}), "[" + text + "]\n");
  }
}

TEST(SettingsText, ValuesAreEscapedOnlyWhereNeeded) {
  const std::vector<std::pair<std::string, std::string>> cases = {{"\\", "\\\\"},
                                                                  {"a\\b", "a\\\\b"},
                                                                  {"a\nb", "a\\nb"},
                                                                  {"a\rb", "a\\rb"},
                                                                  {"v\r", "v\\r"},
                                                                  {" v", "\\sv"},
                                                                  {"v ", "v\\s"},
                                                                  {" ", "\\s"},
                                                                  {"  ", "\\s\\s"},
                                                                  {"   ", "\\s \\s"},
                                                                  {"a b", "a b"},
                                                                  {"\tv\t", "\\tv\\t"},
                                                                  {std::string(1, '\0'), "\\x00"},
                                                                  {"\x1b[31m", "\\x1b[31m"},
                                                                  {"\x7f", "\\x7f"},
                                                                  {"=", "="},
                                                                  {"[v]", "[v]"},
                                                                  {"#v", "#v"},
                                                                  {";v", ";v"},
                                                                  {"a=b=c", "a=b=c"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(WrittenSetting("k", value), "k=" + text);
}

TEST(SettingsText, KeysAreEscapedOnlyWhereNeeded) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"=", "\\x3d"}, {"a=b", "a\\x3db"}, {"[k", "\\x5bk"}, {"#k", "\\x23k"}, {";k", "\\x3bk"},
      {"k[", "k["},   {"k#", "k#"},       {"k;", "k;"},     {"k]", "k]"},     {" k", "\\sk"},
      {"k ", "k\\s"}, {"a b", "a b"},     {"\nk", "\\nk"},  {"k\\", "k\\\\"}, {"\x01", "\\x01"},
      {"", ""},       {".", "."},         {"\tk", "\\tk"},  {"k\r", "k\\r"},  {"[", "\\x5b"}};
  for (const auto& [key, text] : cases) EXPECT_EQ(WrittenSetting(key, "v"), text + "=v");
}

TEST(SettingsText, NamesAreEscapedOnlyWhereNeeded) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"]", "\\x5d"}, {"a]b", "a\\x5db"}, {"[a", "[a"},     {"#a", "#a"},      {" a ", " a "},
      {"a=b", "a=b"}, {"a\nb", "a\\nb"},  {"\\", "\\\\"},   {"a\rb", "a\\rb"}, {"\t", "\\t"},
      {"", ""},       {".", "."},         {"\x1f", "\\x1f"}};
  for (const auto& [name, text] : cases) EXPECT_EQ(Write({{name, {}}}), "[" + text + "]\n");
}

// Gives its text in pieces of one size.
class PieceBuf : public std::streambuf {
 public:
  PieceBuf(const std::string& text, size_t size) : _text(text), _size(size) {}

 protected:
  int_type underflow() override {
    const size_t size = std::min(_size, _text.size() - _at);
    if (size == 0) return traits_type::eof();
    setg(&_text[_at], &_text[_at], &_text[_at] + size);
    _at += size;
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string _text;
  const size_t _size;
  size_t _at = 0;
};

TEST(SettingsText, ThePiecesThatAStreamGivesDoNotMatter) {
  RandomDocuments documents(8);
  for (int round = 0; round < 300; ++round) {
    const IniFile ini(documents.Next());
    const std::string text = Write(ini.GetGroups());
    for (const size_t size : {1u, 2u, 3u, 7u, 100u, 1023u, 1024u, 1025u}) {
      PieceBuf pieces(text, size);
      std::istream stream(&pieces);
      IniFile read;
      read.LoadFromStream(stream);
      ASSERT_EQ(read.GetGroups(), ini.GetGroups()) << size << "\n" << text;
    }
  }
}

TEST(SettingsText, LinesOfEveryLengthAreRead) {
  for (size_t length = 0; length<4200; length += length> 990 && length < 1060 ? 1 : 13) {
    const std::string value(length, 'x');
    ASSERT_EQ(Read("[g]\nk=" + value + "\nl=last\n"), (GroupMap{{"g", {{"k", value}, {"l", "last"}}}})) << length;
  }
}

// Whoever reads a payload on may do so right behind the line that was none.
TEST(SettingsText, NothingBehindABadLineIsTakenFromAPayload) {
  for (const std::string& good : {std::string("v"), std::string(5000, 'v')}) {
    std::istringstream wire("[g]\nk=" + good + "\nbad line\nl=v\n.\nnext\n");
    tavix::stl::DelimitedIstream payload(&wire);
    EXPECT_THROW(IniFile().LoadFromStream(payload), Exception);
    std::string rest;
    ASSERT_TRUE(std::getline(wire, rest));
    EXPECT_EQ(rest, "l=v");
  }
}

TEST(SettingsText, AnErrorNamesSourceLineAndText) {
  EXPECT_EQ(ErrorOf("[a]\nk=v\nbad line\n"), "site.ini:3: expected \"[group]\" or \"key=value\", found \"bad line\"");
}

TEST(SettingsText, EveryLineCountsForTheLineNumber) {
  EXPECT_EQ(ErrorOf("\xEF\xBB\xBF# c\r\n\r\n; c\n[a]\nk=v\n\n  bad  "),
            "site.ini:7: expected \"[group]\" or \"key=value\", found \"bad\"");
  EXPECT_EQ(ErrorOf("."), "site.ini:1: expected \"[group]\" or \"key=value\", found \".\"");
}

TEST(SettingsText, LinesAreCountedThroughAllPiecesOfAStream) {
  std::string text = "[g]\n";
  for (int line = 2; line <= 999; ++line) text += "key" + std::to_string(line) + "=value\n";
  EXPECT_EQ(ErrorOf(text + "bad\n"), "site.ini:1000: expected \"[group]\" or \"key=value\", found \"bad\"");
}

TEST(SettingsText, AHeaderThatIsNotClosedIsAnError) {
  for (const std::string line : {"[", "[a", "[a] b", "[a]=b", "[a] # no comment"})
    EXPECT_EQ(ErrorOf(line + "\n"), "site.ini:1: expected \"[group]\" or \"key=value\", found \"" + line + "\"");
}

TEST(SettingsText, ASettingOutsideOfAnyGroupIsAnError) {
  EXPECT_EQ(ErrorOf("k=v\n[a]\n"), "site.ini:1: expected \"[group]\" before the first \"key=value\", found \"k=v\"");
}

TEST(SettingsText, AnEscapedEqualsSignAloneIsAnError) {
  EXPECT_EQ(ErrorOf("[a]\nk\\=v\n"), "site.ini:2: expected \"[group]\" or \"key=value\", found \"k\\=v\"");
}

TEST(SettingsText, AStringsErrorSaysSettingsText) {
  IniFile ini;
  EXPECT_THAT(
      [&] { ini.LoadFromString("bad"); },
      testing::ThrowsMessage<Exception>("settings text:1: expected \"[group]\" or \"key=value\", found \"bad\""));
}

TEST(SettingsText, WhatAnErrorQuotesIsPrintableAndShort) {
  EXPECT_EQ(ErrorOf(std::string("\x1b[2J\0%s\x7f", 8)),
            "site.ini:1: expected \"[group]\" or \"key=value\", found \"\\x1b[2J\\x00%s\\x7f\"");
  EXPECT_EQ(ErrorOf(std::string(1000, 'x')),
            "site.ini:1: expected \"[group]\" or \"key=value\", found \"" + std::string(80, 'x') + "...\"");
}

TEST(PrintableText, LeavesPrintableTextAsItIs) {
  for (const std::string text : {"", "plain", "caf\xC3\xA9", "back\\slash", "1234567890"})
    EXPECT_EQ(PrintableText(text, 10), text);
}

TEST(PrintableText, EscapesControlBytes) {
  EXPECT_EQ(PrintableText(std::string("a\n\t\r\0\x1b\x7f", 7), 100), "a\\x0a\\x09\\x0d\\x00\\x1b\\x7f");
}

TEST(PrintableText, SaysWhenTextWasCut) {
  EXPECT_EQ(PrintableText("123456789", 8), "12345678...");
  EXPECT_EQ(PrintableText("\n\n\n", 8), "\\x0a\\x0a...");
  EXPECT_EQ(PrintableText("\n\n", 8), "\\x0a\\x0a");
}

TEST(SettingsText, ACheckFindsWhatLoadingFinds) {
  for (const char* text : {"", "[g]\nk=v\n", "k=v\n", "[g\nk=v\n", "[g]\nnone\n", "[g]\nk\\=v\n", "[g]\nk\\==v\n",
                           "\xEF\xBB\xBF[g]\nx\n", "# c\n\n; c\n[a\\]\nb", "[]\n=\n", "[g]\r\nk=v\r\nbad\r\n"}) {
    EXPECT_EQ(ErrorOfCheck(text), ErrorOf(text)) << text;
  }
}

}  // namespace
