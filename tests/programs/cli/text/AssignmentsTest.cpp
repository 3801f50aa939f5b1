#include "programs/cli/text/Assignments.h"

#include <gtest/gtest.h>

#include "programs/common/client/Failure.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

namespace {

using programs::Failure;
using programs::cli::AssignmentPlace;
using programs::cli::NextPlace;
using programs::cli::ParseAssignments;

using Words = std::vector<std::string>;

// The letters of the places in front of the words: start, key, pair, value; and of the one behind them.
std::string PlacesOf(const Words& words) {
  constexpr char kLetters[] = {'s', 'k', 'p', 'v'};
  AssignmentPlace place = AssignmentPlace::kStart;
  std::string places(1, kLetters[static_cast<size_t>(place)]);
  for (const std::string& word : words) {
    place = NextPlace(place, word);
    places += kLetters[static_cast<size_t>(place)];
  }
  return places;
}

// The reason and the hint.
std::string ErrorOf(const Words& words) {
  try {
    return TextOf(ParseAssignments(words));
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.GetCode(), programs::kExitUsage);
    return failure.what() + ("|" + failure.GetHint());
  }
}

}  // namespace

TEST(Assignments, ValueStandsBehindGroupAndKeyWhateverItLooksLike) {
  EXPECT_EQ(PlacesOf({"A", "x", "-h", "B"}), "skvsk");
  EXPECT_EQ(PlacesOf({"[A]x", "[B]y=1", "[C]"}), "svsk");
  EXPECT_EQ(PlacesOf({"[A]x=1", "[A]", "y=2", "z=3", "B", "k", "a=b"}), "sskppkvs");
}

TEST(Assignments, ReadInEverySpelling) {
  EXPECT_EQ(TextOf(ParseAssignments(
                {"[A]x=1", "[A]y", "2", "A", "z", "[q]", "[B]", "k=1", "l=a=b", "C", "m=", "D", "-", "x"})),
            "[A]\nx=1\ny=2\nz=[q]\n[B]\nk=1\nl=a=b\n[C]\nm=\n[D]\n-=x\n");
  EXPECT_EQ(TextOf(ParseAssignments({"[A]=1", "[a\\x5db]k\\x3dl", "v"})), "[A]\n=1\n[a\\x5db]\nk\\x3dl=v\n");
}

TEST(Assignments, MistakenOnesAreAnsweredWithTheRightForm) {
  EXPECT_EQ(ErrorOf({"Video/Main.fps", "30"}),
            "expected a value behind 'Video/Main.fps 30': one setting is '[Video/Main]fps'|try '[Video/Main]fps=30'");
  EXPECT_EQ(ErrorOf({"Video.Main.fps", "30"}),
            "expected a value behind 'Video.Main.fps 30': one setting is '[Video/Main]fps'|try '[Video/Main]fps=30'");
  EXPECT_EQ(ErrorOf({"fps=30"}), "'fps=30' names no group: one setting is '[group]fps'|try '[group]fps=30'");
  EXPECT_EQ(ErrorOf({"fps=30", "codec=h264"}),
            "'fps=30' names no group: one setting is '[group]fps'|try '[group]fps=30'");
  EXPECT_EQ(ErrorOf({"Video/Main/fps=30"}),
            "'Video/Main/fps=30' names no group: one setting is '[Video/Main]fps'|try '[Video/Main]fps=30'");
  EXPECT_EQ(ErrorOf({"Video/Main.fps"}),
            "expected KEY VALUE or KEY=VALUE behind the group 'Video/Main.fps': one setting is '[Video/Main]fps'|"
            "try '[Video/Main]fps=VALUE'");
}

TEST(Assignments, OfWhichAPartIsMissingAreRefused) {
  EXPECT_EQ(ErrorOf({"A"}), "expected KEY VALUE or KEY=VALUE behind the group 'A'|");
  EXPECT_EQ(ErrorOf({"[A.b]"}), "expected KEY VALUE or KEY=VALUE behind the group 'A.b'|");
  EXPECT_EQ(ErrorOf({"Video/Main", "fps"}), "expected a value behind 'Video/Main fps'|");
  EXPECT_EQ(ErrorOf({"[A.b]x"}), "expected a value behind '[A.b]x'|");
}

TEST(Assignments, GroupMayHoldAnEqualsSignInFrontOfKeyAndValue) {
  EXPECT_EQ(ErrorOf({"a=b", "k", "v"}), "[a=b]\nk=v\n");
}

}  // namespace tavix::test
