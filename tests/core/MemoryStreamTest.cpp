#include "tavix/core/MemoryStream.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tests/support/ForeignLocale.h"

namespace {

using tavix::core::IniFile;
using tavix::core::StringOstream;
using tavix::core::ViewIstream;

std::string ReadLine(std::istream& in) {
  std::string line;
  std::getline(in, line);
  return line;
}

TEST(StringOstream, KeepsWhatIsWritten) {
  StringOstream out;
  EXPECT_EQ(out.GetText(), "");
  out << "merge " << 0 << '\n';
  out.put('\0').write("\xff.", 2);
  EXPECT_EQ(out.GetText(), std::string("merge 0\n\0\xff.", 11));
}

TEST(StringOstream, ResetForgetsTextAndErrors) {
  StringOstream out;
  out << "old";
  out.setstate(std::ios::failbit);
  out.Reset(1024);
  EXPECT_TRUE(out.good());
  out << "new";
  EXPECT_EQ(out.GetText(), "new");
}

TEST(StringOstream, ResetKeepsMemoryUpToTheLimitGiven) {
  StringOstream out;
  out << std::string(1000, 'x');
  const size_t grown = out.GetText().capacity();
  out.Reset(grown);
  EXPECT_EQ(out.GetText().capacity(), grown);
  out.Reset(100);
  EXPECT_LE(out.GetText().capacity(), 100u);
}

TEST(StringOstream, DoesNotFollowTheProcesssLocale) {
  const tavix::test::ForeignLocale foreign;
  StringOstream out;
  out << 1234567;
  EXPECT_EQ(out.GetText(), "1234567");
}

// A string refuses to grow beyond max_size before it touches a byte: as good as memory that has run out.
TEST(StringOstream, ThrowsWhenMemoryRunsOut) {
  StringOstream out;
  out << "kept";
  const auto tooMany = static_cast<std::streamsize>(std::string().max_size());
  EXPECT_THROW(out.write(out.GetText().data(), tooMany), std::length_error);
  EXPECT_EQ(out.GetText(), "kept");
  out.Reset(1024);
  out << "works again";
  EXPECT_EQ(out.GetText(), "works again");
}

TEST(ViewIstream, IsAtItsEndUntilItGetsAText) {
  ViewIstream in;
  EXPECT_EQ(in.get(), std::char_traits<char>::eof());
}

TEST(ViewIstream, ReadsOneTextAfterTheOther) {
  ViewIstream in;
  const std::string first("a\nb\0c", 5);
  in.SetText(first);
  EXPECT_EQ(ReadLine(in), "a");
  EXPECT_EQ(ReadLine(in), std::string("b\0c", 3));
  EXPECT_TRUE(in.eof());
  in.SetText("second");
  EXPECT_TRUE(in.good());
  EXPECT_EQ(ReadLine(in), "second");
}

TEST(ViewIstream, ANewTextReplacesAnUnreadRest) {
  ViewIstream in;
  in.SetText("first line\nrest");
  EXPECT_EQ(ReadLine(in), "first line");
  in.SetText("");
  EXPECT_EQ(in.get(), std::char_traits<char>::eof());
}

// What one reader does with the stream, the other must do as well: same lines, same states.
TEST(ViewIstream, TakesLinesAsGetlineDoes) {
  const std::string ways[] = {"", "\n", "a", "a\n", "a\nb", "\n\n", std::string("a\0b\r\n.\n", 7)};
  for (const std::string& text : ways) {
    SCOPED_TRACE(testing::PrintToString(text));
    ViewIstream in;
    in.SetText(text);
    std::istringstream expected(text);
    for (int i = 0; i < 4; ++i) {
      std::string_view line;
      std::string expectedLine;
      const bool taken = in.TakeLine(line);
      ASSERT_EQ(taken, static_cast<bool>(std::getline(expected, expectedLine)));
      ASSERT_EQ(in.rdstate(), expected.rdstate());
      if (taken) {
        ASSERT_EQ(line, expectedLine);
      }
    }
  }
}

TEST(ViewIstream, ShowsAndSkipsWhatIsLeft) {
  ViewIstream in;
  in.SetText("word rest");
  in.Skip(5);
  EXPECT_EQ(in.GetRest(), "rest");
  EXPECT_EQ(ReadLine(in), "rest");
  EXPECT_EQ(in.GetRest(), "");
}

TEST(ViewIstream, IsReadByADocumentWhereItsBytesLie) {
  ViewIstream in;
  in.SetText("skipped\n[A]\nx=1\n");
  EXPECT_EQ(ReadLine(in), "skipped");
  IniFile document;
  document.LoadFromStream(in);
  EXPECT_EQ(document.GetValueOrDefault("A", "x"), "1");
  EXPECT_TRUE(in.eof());
  EXPECT_EQ(in.GetRest(), "");
}

TEST(ViewIstream, DoesNotFollowTheProcesssLocale) {
  const tavix::test::ForeignLocale foreign;
  ViewIstream in;
  in.SetText("1234567");
  int number = 0;
  in >> number;
  EXPECT_EQ(number, 1234567);
}

}  // namespace
