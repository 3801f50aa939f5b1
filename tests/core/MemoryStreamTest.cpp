#include "tavix/core/MemoryStream.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/ForeignLocale.h"

namespace {

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
  out.setstate(std::ios::badbit);
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

TEST(ViewIstream, DoesNotFollowTheProcesssLocale) {
  const tavix::test::ForeignLocale foreign;
  ViewIstream in;
  in.SetText("1234567");
  int number = 0;
  in >> number;
  EXPECT_EQ(number, 1234567);
}

}  // namespace
