#include "tavix/settings/server/InfoText.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using tavix::settings::server::CutText;
using tavix::settings::server::EscapeText;
using tavix::settings::server::MakeFigureLines;
using tavix::settings::server::MakeInfoText;

TEST(InfoText, HasATitleARuleOfItsLengthTheLinesAndAnEmptyLine) {
  EXPECT_EQ(MakeInfoText("Whoami", "a=1\nb=2\n"), "Whoami\n------\na=1\nb=2\n\n");
  EXPECT_EQ(MakeInfoText("Features", ""), "Features\n--------\n\n");
}

TEST(InfoText, FiguresAscendAndAreSpelledAsSettingsText) {
  EXPECT_EQ(MakeFigureLines({{"b", " x"}, {"a=", "1\n2"}}), "a\\x3d=1\\n2\nb=\\sx\n");
  EXPECT_EQ(MakeFigureLines({}), "");
}

TEST(InfoText, TextIsSpelledAsAValue) {
  EXPECT_EQ(EscapeText("", 9), "");
  EXPECT_EQ(EscapeText("a=b [c]", 9), "a=b [c]");
  EXPECT_EQ(EscapeText("a\tb\\\n", 9), "a\\tb\\\\\\n");
}

TEST(InfoText, TextThatIsTooLongIsCutAndNoEscapeIsCutInTwo) {
  EXPECT_EQ(EscapeText("abcdef", 6), "abcdef");
  EXPECT_EQ(EscapeText("abcdef", 5), "abcde");
  EXPECT_EQ(EscapeText("a\nb\nc\n", 5), "a\\nb");
  EXPECT_EQ(EscapeText("\x01\x02\x03", 11), "\\x01\\x02");
  EXPECT_EQ(EscapeText("\x01", 3), "");
}

TEST(InfoText, WhateverIsCutIsAsLongAsAllowedAndNoLonger) {
  std::string bytes;
  for (int byte = 1; byte < 128; ++byte) bytes.append(1, static_cast<char>(byte)).append(1, ' ');
  for (size_t max = 0; max < 600; ++max) {
    const std::string line = EscapeText(bytes, max);
    EXPECT_LE(line.size(), max);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_EQ(bytes.substr(0, CutText(bytes, max).size()), CutText(bytes, max));
  }
  EXPECT_GT(EscapeText(bytes, 300).size(), 292U) << "no more is cut off than the next characters take";
}

TEST(InfoText, NoCharacterOfUtf8IsCutInTwo) {
  const std::string text = "n\xC3\xA4h";
  EXPECT_EQ(CutText(text, 4), text);
  EXPECT_EQ(CutText(text, 3), "n\xC3\xA4");
  EXPECT_EQ(CutText(text, 2), "n");
}

}  // namespace
