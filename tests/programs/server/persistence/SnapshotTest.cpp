#include "programs/server/persistence/Snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DocumentText.h"

namespace tavix::test {

using daemon::FileContent;
using daemon::Snapshot;

namespace {

constexpr char kSettings[] = "[A]\nx=1\n[B]\n# End of user settings: =generation 9\n";
constexpr int64_t kWritten = 1234567890;

std::string MakeText(const std::string& settings = kSettings) {
  core::StringOstream text;
  daemon::BeginSnapshot(text);
  text << settings;
  daemon::EndSnapshot(text, {7, 6, 500, kWritten});
  return text.GetText();
}

Snapshot ReadText(const std::string& text, int64_t modified = kWritten) {
  return daemon::ReadSnapshot("user.ini", {true, "", text, modified});
}

}  // namespace

TEST(Snapshot, ReadsBackAsItWasWritten) {
  const Snapshot snapshot = ReadText(MakeText());
  EXPECT_EQ(snapshot.state, Snapshot::State::kIntact);
  EXPECT_EQ(TextOf(snapshot.settings), TextOf(DocumentOf(kSettings)));
  EXPECT_EQ(snapshot.end.generation, 7u);
  EXPECT_EQ(snapshot.end.journalFollows, 6u);
  EXPECT_EQ(snapshot.end.journalEnd, 500u);
  EXPECT_EQ(snapshot.end.written, kWritten);
}

TEST(Snapshot, IsOneSettingsTextForEverybodyElse) {
  EXPECT_EQ(TextOf(DocumentOf(MakeText("[A]\nx=1\n"))), "[A]\nx=1\n");
}

TEST(Snapshot, IntactOneIsKnownWhateverItsTimeIs) {
  EXPECT_EQ(ReadText(MakeText(), 0).state, Snapshot::State::kIntact);
}

TEST(Snapshot, HalfATextIsNotAWholeOne) {
  const std::string text = MakeText();
  EXPECT_TRUE(daemon::IsWholeSnapshot(text));
  for (size_t size = 0; size < text.size(); ++size) EXPECT_FALSE(daemon::IsWholeSnapshot(text.substr(0, size))) << size;
}

// Some keep every second one alone: then rot would look like an edit.
TEST(Snapshot, TimeIsOneThatAllFileSystemsKeep) {
  EXPECT_EQ(daemon::GetTimeOfSnapshot() % 2'000'000'000, 0);
}

TEST(Snapshot, AbsentOneIsEmpty) {
  const Snapshot snapshot = daemon::ReadSnapshot("user.ini", {});
  EXPECT_EQ(snapshot.state, Snapshot::State::kAbsent);
  EXPECT_TRUE(snapshot.settings.IsEmpty());
}

TEST(Snapshot, EditedOneIsUsedAndKeepsItsGeneration) {
  std::string text = MakeText();
  text.replace(text.find("x=1"), 3, "x=2");
  const Snapshot snapshot = ReadText(text, kWritten + 1);
  EXPECT_EQ(snapshot.state, Snapshot::State::kEdited);
  EXPECT_EQ(snapshot.settings.GetValue("A", "x"), "2");
  EXPECT_EQ(snapshot.end.generation, 7u);
}

TEST(Snapshot, WhatWasAppendedByHandIsUsed) {
  const Snapshot snapshot = ReadText(MakeText() + "[C]\nz=3\n", kWritten + 1);
  EXPECT_EQ(snapshot.state, Snapshot::State::kEdited);
  EXPECT_EQ(snapshot.settings.GetValue("C", "z"), "3");
}

TEST(Snapshot, OtherBytesAtTheSameTimeAreRot) {
  std::string text = MakeText();
  text.replace(text.find("x=1"), 3, "x=2");
  const Snapshot snapshot = ReadText(text);
  EXPECT_EQ(snapshot.state, Snapshot::State::kDamaged);
  EXPECT_EQ(snapshot.problem, "'user.ini': its checksum is wrong");
}

TEST(Snapshot, ForeignTextIsRead) {
  const Snapshot snapshot = ReadText("[A]\nx=1\n");
  EXPECT_EQ(snapshot.state, Snapshot::State::kForeign);
  EXPECT_EQ(snapshot.end.generation, 0u);
  EXPECT_EQ(TextOf(snapshot.settings), "[A]\nx=1\n");
}

TEST(Snapshot, ForeignTextThatIsNoneIsDamagedAndTheLineIsNamed) {
  const Snapshot snapshot = ReadText("[A]\nx=1\nwhat\n");
  EXPECT_EQ(snapshot.state, Snapshot::State::kDamaged);
  EXPECT_THAT(snapshot.problem, testing::HasSubstr("user.ini:3: "));
}

TEST(Snapshot, ReasonWhyThereAreNoBytesIsTheProblem) {
  const Snapshot snapshot = daemon::ReadSnapshot("user.ini", {true, "not a regular file", "", 0});
  EXPECT_EQ(snapshot.state, Snapshot::State::kDamaged);
  EXPECT_EQ(snapshot.problem, "'user.ini': not a regular file");
}

TEST(Snapshot, OneThatEndsEarlierIsDamagedWhereverItEnds) {
  const std::string text = MakeText();
  for (size_t size = 1; size < text.size(); ++size)
    EXPECT_EQ(ReadText(text.substr(0, size)).state, Snapshot::State::kDamaged) << size;
}

TEST(Snapshot, OneThatEndsInZerosIsDamagedWhatItsTimeMaySay) {
  std::string text = MakeText();
  for (size_t i = text.size(); i-- > 1;) {
    text[i] = '\0';
    EXPECT_EQ(ReadText(text, kWritten + 1).state, Snapshot::State::kDamaged) << i;
  }
}

TEST(Snapshot, FlippedBitIsFoundOrChangesNothing) {
  const std::string text = MakeText();
  for (size_t bit = 0; bit < 8 * text.size(); ++bit) {
    std::string flipped = text;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << (bit % 8)));
    const Snapshot snapshot = ReadText(flipped);
    const bool isFound = snapshot.state == Snapshot::State::kDamaged;
    EXPECT_TRUE(isFound || TextOf(snapshot.settings) == TextOf(DocumentOf(kSettings))) << bit;
  }
}

}  // namespace tavix::test
