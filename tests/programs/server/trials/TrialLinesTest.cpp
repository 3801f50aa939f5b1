#include "programs/server/trials/TrialLines.h"

#include <gtest/gtest.h>

// Which lines about trials which journal lacks.

namespace tavix::test {

using daemon::TrialLines;

TEST(TrialLines, AreForTheJournalUntilItHasThem) {
  TrialLines lines;
  lines.AddReserved("a\n");
  EXPECT_EQ(lines.GetUnjournaled(), "a\n");
  lines.AddReserved("b\n");
  EXPECT_EQ(lines.GetUnjournaled(), "a\nb\n");
  lines.OnJournaled();
  EXPECT_EQ(lines.GetUnjournaled(), "");
}

TEST(TrialLines, AreForTheNextJournalFromTheSnapshotsMomentOn) {
  TrialLines lines;
  lines.AddReserved("a\n");
  lines.BeginSnapshot();
  lines.AddReserved("b\n");
  lines.OnJournaled();
  EXPECT_EQ(lines.GetUnjournaledByNext(), "b\n");
  lines.OnNextJournaled();
  lines.AddReserved("c\n");
  EXPECT_EQ(lines.GetUnjournaled(), "c\n");
  EXPECT_EQ(lines.GetUnjournaledByNext(), "c\n");
  lines.Follow();
  EXPECT_EQ(lines.GetUnjournaled(), "c\n");
}

TEST(TrialLines, GoOnForTheJournalWhenTheSnapshotFails) {
  TrialLines lines;
  lines.AddReserved("a\n");
  lines.BeginSnapshot();
  lines.AddReserved("b\n");
  lines.FailSnapshot();
  EXPECT_EQ(lines.GetUnjournaled(), "a\nb\n");
  lines.OnJournaled();
  lines.AddReserved("c\n");
  lines.BeginSnapshot();
  EXPECT_EQ(lines.GetUnjournaledByNext(), "");
  EXPECT_EQ(lines.GetUnjournaled(), "c\n");
}

TEST(TrialLines, OfAJournalThatFailedAreInTheSnapshot) {
  TrialLines lines;
  lines.AddReserved("a\n");
  lines.BeginSnapshot();
  lines.Follow();
  EXPECT_EQ(lines.GetUnjournaled(), "");
}

TEST(TrialLines, ThatAreTakenBackLeaveRoomForOthers) {
  TrialLines lines;
  lines.AddReserved("a\n");
  lines.BeginSnapshot();
  lines.AddReserved("b\n");
  lines.OnJournaled();
  lines.DropLast(2);
  EXPECT_EQ(lines.GetUnjournaled(), "");
  EXPECT_EQ(lines.GetUnjournaledByNext(), "");
  lines.AddReserved("c\n");
  EXPECT_EQ(lines.GetUnjournaled(), "c\n");
  EXPECT_EQ(lines.GetUnjournaledByNext(), "c\n");
}

TEST(TrialLines, AreNoneOnceNoJournalWillTakeAny) {
  TrialLines lines;
  lines.AddReserved("a\n");
  lines.BeginSnapshot();
  lines.AddReserved("b\n");
  lines.FailSnapshot();
  lines.DropAll();
  EXPECT_EQ(lines.GetUnjournaled(), "");
  lines.AddReserved("c\n");
  EXPECT_EQ(lines.GetUnjournaled(), "c\n");
}

}  // namespace tavix::test
