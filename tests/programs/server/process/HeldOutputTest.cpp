#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <list>
#include <sstream>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/server/UserFiles.h"
#include "tests/programs/server/process/HeldOutput.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/FileFaults.h"

// Who hears of a change, and when, while the disk is slow: its syncs stand still until the test lets them go.

namespace tavix::test {

namespace {

constexpr int kWriters = 8;

class OutputOfAnInterval : public HeldOutput {
 protected:
  OutputOfAnInterval() : HeldOutput(std::to_string(kInterval) + "ms") {}

  static constexpr long kInterval = 250;
};

class OutputWithoutDurability : public HeldOutput {
 protected:
  OutputWithoutDurability() : HeldOutput("none") {}
};

}  // namespace

TEST_F(HeldOutput, ReplyOfTheWriterWaitsForItsChange) {
  ChangeAOnASlowDisk();
  _writer->Send(Question("B\n"));  // it proves that the change was taken
  ExpectHeldUntilTheDiskGoesOn(*_writer, "data\n" + Document("B", 0));
}

// It saves nothing, and what it asked for may still be taken back.
TEST_F(HeldOutput, ReplyOfAWriterThatRepeatsTheChangeOfAnotherWaits) {
  for (const std::string& request : {Merge("A", 1), "overwrite\nA\n.\n" + Document("A", 1)}) {
    ProtocolClient other(_daemon->GetPort());
    _faults.HoldSyncs();
    _writer->Send(request);
    _faults.AwaitHeldSync();
    other.Send(request + Question("B\n"));
    ExpectHeldUntilTheDiskGoesOn(other, "data\n" + Document("B", 0));
  }
}

TEST_F(HeldOutput, ReplyOfAClientThatRepeatsTheRestoreOfAnotherWaits) {
  ProtocolClient other(_daemon->GetPort());
  _faults.HoldSyncs();
  _writer->Send("restore\nA*\n.\n");
  _faults.AwaitHeldSync();
  other.Send("restore\nA\n.\n" + Question("B\n"));
  ExpectHeldUntilTheDiskGoesOn(other, "data\n" + Document("B", 0));
}

TEST_F(HeldOutput, ReplyOfAWriterThatRepeatsWhatIsDurableDoesNotWait) {
  ProtocolClient other(_daemon->GetPort());
  ChangeAOnASlowDisk();
  other.Send(Merge("B", 0));
  EXPECT_EQ(other.Get("C\n"), "data\n" + Document("C", 0));
  EXPECT_TRUE(_faults.IsSyncHeld());
}

TEST_F(HeldOutput, ReplyThatShowsTheChangeWaits) {
  ProtocolClient reader(_daemon->GetPort());
  ChangeAOnASlowDisk();
  reader.Send(Question("A\n"));
  ExpectHeldUntilTheDiskGoesOn(reader, "data\n" + Document("A", 1));
}

TEST_F(HeldOutput, ReplyThatTheChangeIsOneOfManyGroupsOfWaits) {
  ProtocolClient reader(_daemon->GetPort());
  ChangeAOnASlowDisk();
  reader.Send(Question("*\n"));
  ExpectHeldUntilTheDiskGoesOn(reader, "data\n[A]\nx=1\n[B]\nx=0\n[C]\nx=0\n.\n");
}

TEST_F(HeldOutput, ReplyThatShowsNothingOfTheChangeDoesNotWait) {
  ProtocolClient reader(_daemon->GetPort());
  ChangeAOnASlowDisk();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(reader.Get("B\n"), "data\n" + Document("B", 0));
  EXPECT_TRUE(_faults.IsSyncHeld());
}

TEST_F(HeldOutput, RepliesBehindAHeldOneComeBehindIt) {
  ProtocolClient reader(_daemon->GetPort());
  ChangeAOnASlowDisk();
  reader.Send(Question("B\n") + Question("A\n") + Question("C\n"));
  EXPECT_EQ(reader.ReadUntil("\n.\n"), "data\n" + Document("B", 0));
  ExpectHeldUntilTheDiskGoesOn(reader, "data\n" + Document("A", 1) + "data\n" + Document("C", 0));
}

TEST_F(HeldOutput, NoticeWaits) {
  ProtocolClient subscriber(_daemon->GetPort());
  subscriber.Send("subscribe\nA\n.\n");
  subscriber.AwaitHandled();
  ChangeAOnASlowDisk();
  ExpectHeldUntilTheDiskGoesOn(subscriber, "async change\nA\n.\n" + Document("A", 1));
}

TEST_F(HeldOutput, ResultOfATestAndMergeWaits) {
  _faults.HoldSyncs();
  _writer->Send("test-and-merge\n" + Document("A", 0) + Document("A", 1));
  _faults.AwaitHeldSync();
  ExpectHeldUntilTheDiskGoesOn(*_writer, "result\nok\n");
}

// It tells that somebody else's change was made.
TEST_F(HeldOutput, FailureOfATestAndMergeWaitsForTheChangeThatItShows) {
  ProtocolClient other(_daemon->GetPort());
  ChangeAOnASlowDisk();
  other.Send("test-and-merge\n" + Document("A", 0) + Document("A", 2));
  ExpectHeldUntilTheDiskGoesOn(other, "result\nfailure\n");
}

TEST_F(HeldOutput, ChangeThatIsNotToBeSavedIsShownAtOnce) {
  ProtocolClient other(_daemon->GetPort());
  ChangeAOnASlowDisk();
  other.Send("merge nopersist\n[B]\nx=5\n.\n" + Question("B\n"));
  EXPECT_EQ(other.ReadUntil("\n.\n"), "data\n" + Document("B", 5));
  EXPECT_TRUE(_faults.IsSyncHeld());
}

TEST_F(HeldOutput, WriterWithoutAQuestionDoesNotWait) {
  ChangeAOnASlowDisk();
  for (int i = 1; i <= 100; ++i) _writer->Send(Merge("B", i));
  EXPECT_TRUE(Eventually([&] { return FindSavedText(_directory).find("[B]\nx=100\n") != std::string::npos; }))
      << "written, although not synced";
  EXPECT_TRUE(_faults.IsSyncHeld());
}

TEST_F(HeldOutput, ManyWritersShareOneSync) {
  ChangeAOnASlowDisk();
  std::list<ProtocolClient> writers;
  for (int i = 0; i < kWriters; ++i) {
    writers.emplace_back(_daemon->GetPort());
    writers.back().Send(Merge("Of" + std::to_string(i), i) + Question("Of" + std::to_string(i) + "\n"));
  }
  EXPECT_TRUE(Eventually([&] { return CountOf("[Of", FindSavedText(_directory)) == kWriters; }));
  const uint64_t before = _faults.CountSyncs();
  _faults.LetSyncsGo();
  int i = 0;
  for (ProtocolClient& writer : writers) {
    EXPECT_EQ(writer.ReadUntil("\n.\n"), "data\n" + Document("Of" + std::to_string(i), i));
    ++i;
  }
  EXPECT_EQ(_faults.CountSyncs(), before + 1) << "the first was for A alone";
}

TEST_F(HeldOutput, WhatWaitsForADiskThatThenFailsIsLetGo) {
  ChangeAOnASlowDisk();
  _writer->Send(Question("A\n"));
  EXPECT_EQ(_writer->ReadFor(kALittle), "");
  _faults.Fail(EIO);
  _faults.LetSyncsGo();
  EXPECT_EQ(_writer->ReadUntil("\n.\n"), "data\n" + Document("A", 1));
  _daemon->AwaitErrors("': Input/output error; changes are kept in memory");
  _faults.Succeed();
  _daemon->AwaitErrors("is saved again");
  EXPECT_EQ(FindSavedText(_directory), "[A]\nx=1\n[B]\nx=0\n[C]\nx=0\n");
}

TEST_F(HeldOutput, WaitsAgainOnceTheDiskIsWell) {
  _faults.Fail(EIO);
  _writer->Send(Merge("A", 7));
  _writer->AwaitHandled();
  _faults.Succeed();
  _daemon->AwaitErrors("is saved again");
  _writer->Send(Merge("A", 0));
  _writer->AwaitHandled();  // begins a new journal
  ChangeAOnASlowDisk();
  _writer->Send(Question("A\n"));
  ExpectHeldUntilTheDiskGoesOn(*_writer, "data\n" + Document("A", 1));
}

TEST_F(HeldOutput, ClientsThatLeaveWhileTheyWaitAreForgotten) {
  ProtocolClient subscriber(_daemon->GetPort());
  subscriber.Send("subscribe\n*\n.\n");
  subscriber.AwaitHandled();
  ProtocolClient reader(_daemon->GetPort());
  ChangeAOnASlowDisk();
  reader.Send(Question("A\n"));
  EXPECT_EQ(reader.ReadFor(kALittle), "");
  reader.Reset();
  subscriber.Reset();
  ProtocolClient other(_daemon->GetPort());
  EXPECT_EQ(other.Get("B\n"), "data\n" + Document("B", 0));
  _faults.LetSyncsGo();
  EXPECT_EQ(other.Get("A\n"), "data\n" + Document("A", 1));
}

TEST_F(HeldOutput, LastReplyOfAClientThatSaysNoMoreComesAllTheSame) {
  ChangeAOnASlowDisk();
  _writer->Send(Question("A\n"));
  _writer->HalfClose();
  EXPECT_EQ(_writer->ReadFor(kALittle), "");
  _faults.LetSyncsGo();
  EXPECT_EQ(_writer->ReadToEnd(), "data\n" + Document("A", 1));
}

TEST_F(HeldOutput, LastReplyBeforeAQuitComesAllTheSame) {
  ChangeAOnASlowDisk();
  _writer->Send(Question("A\n") + "quit\n");
  EXPECT_EQ(_writer->ReadFor(kALittle), "");
  _faults.LetSyncsGo();
  EXPECT_EQ(_writer->ReadToEnd(), "data\n" + Document("A", 1));
}

// Nothing else would say why replies do not come.
TEST_F(HeldOutput, DiskThatHangsIsTold) {
  ChangeAOnASlowDisk();
  _daemon->AwaitErrors(": the disk takes long to sync the last changes\n");
  _faults.LetSyncsGo();
  _daemon->AwaitErrors(": the disk syncs changes again\n");
}

// The service manager would kill it for that later, and say less.
TEST_F(HeldOutput, DiskThatHangsDoesNotKeepTheDaemonFromEnding) {
  EXPECT_EQ(_daemon->Stop(), 0);
  Start({"--stop-timeout", "1"});
  ChangeAOnASlowDisk();
  EXPECT_EQ(_daemon->Stop(), 74);
  EXPECT_THAT(_daemon->GetErrors(), testing::HasSubstr("ERROR UserSettings: The disk does not answer; the daemon ends "
                                                       "without a snapshot, and the last changes are lost\n"));
}

// A write hangs with the locks of the store and the persister held, so that nothing that takes them ends.
TEST_F(HeldOutput, DiskThatHangsInAWriteDoesNotKeepTheDaemonFromEnding) {
  EXPECT_EQ(_daemon->Stop(), 0);
  Start({"--stop-timeout", "1"});
  _faults.HoldWrites("user.ini.journal");
  _writer->Send(Merge("A", 1));
  _faults.AwaitHeldWrite();
  EXPECT_EQ(_daemon->Stop(), 74);
  EXPECT_THAT(_daemon->GetErrors(), testing::HasSubstr("and the last changes are lost\n"));
}

TEST_F(HeldOutput, OverwrittenGroupHoldsUpNoOther) {
  ProtocolClient reader(_daemon->GetPort());
  _faults.HoldSyncs();
  _writer->Send("overwrite\nC\n.\n.\n");
  _faults.AwaitHeldSync();
  EXPECT_EQ(reader.Get("A\n"), "data\n" + Document("A", 0));
  reader.Send(Question("C\n"));
  ExpectHeldUntilTheDiskGoesOn(reader, "data\n.\n");
}

// More waits than a connection may have unread: nothing more is read from it until the disk goes on.
TEST_F(HeldOutput, ConnectionThatPausedForWhatWaitsGoesOnAfterwards) {
  constexpr int kReplies = 20;
  ProtocolClient reader(_daemon->GetPort());
  const std::string large = "[Large]\nk=" + std::string(300'000, 'v') + "\n.\n";
  _faults.HoldSyncs();
  _writer->Send("merge\n" + large);
  _faults.AwaitHeldSync();
  for (int i = 0; i < kReplies; ++i) reader.Send(Question("Large\n"));
  EXPECT_EQ(reader.ReadFor(kALittle), "");
  _faults.LetSyncsGo();
  for (int i = 0; i < kReplies; ++i) EXPECT_EQ(reader.Read(large.size() + 5), "data\n" + large);
  EXPECT_EQ(reader.Get("B\n"), "data\n" + Document("B", 0));
}

// Healthy clients must not be taken for clients that do not read, and the daemon's memory is bounded all the same.
TEST_F(HeldOutput, ThatIsMoreThanIsKeptForTheDiskEndsItsConnectionAndSaysSo) {
  EXPECT_EQ(_daemon->Stop(), 0);
  Start({"--held-backlog", "100"});
  ProtocolClient subscriber(_daemon->GetPort());
  subscriber.Send("subscribe\nA\n.\n");
  subscriber.AwaitHandled();
  ChangeAOnASlowDisk();
  for (int i = 0; i < 10; ++i) _writer->Send(Merge("A", i));
  EXPECT_EQ(subscriber.ReadToEnd(), "");
  _daemon->AwaitErrors("connection cut: more waits for the disk than is kept 100\n");
  _faults.LetSyncsGo();
  EXPECT_EQ(_writer->Get("A\n"), "data\n" + Document("A", 9));
}

// A journal that takes its place late must not take that of the next one.
TEST_F(HeldOutput, SnapshotThatOvertakesTheFirstSyncOfAJournalHarmsNothing) {
  EXPECT_EQ(_daemon->Stop(), 0);
  Start();  // without a journal
  _faults.HoldSyncs(".journal.new");
  const std::string large(300'000, 'v');
  _writer->Send(Merge("B", 1));
  _faults.AwaitHeldSync();
  _writer->Send("merge\n[Large]\nk=" + large + "\n.\n");  // outgrows the snapshot there is
  EXPECT_TRUE(Eventually([&] { return _directory.Read("user.ini").find("[Large]\n") != std::string::npos; }));
  for (int i = 1; i <= 3; ++i) _writer->Send(Merge("A", i));
  _writer->Send(Question("A\n"));
  ExpectHeldUntilTheDiskGoesOn(*_writer, "data\n" + Document("A", 3));
  _daemon->AwaitIdle();
  ExpectNoErrors();
  KillAndRestart();
  EXPECT_EQ(_writer->Get("A\nLarge\n"), "data\n[A]\nx=3\n[Large]\nk=" + large + "\n.\n");
}

TEST_F(OutputOfAnInterval, LeavesAtOnceAndACrashLosesNothingOfIt) {
  ProtocolClient subscriber(_daemon->GetPort());
  subscriber.Send("subscribe\nA\n.\n");
  subscriber.AwaitHandled();
  ChangeAOnASlowDisk();
  EXPECT_EQ(subscriber.ReadUntil("x=1\n.\n"), "async change\nA\n.\n" + Document("A", 1));
  EXPECT_EQ(_writer->Get("A\n"), "data\n" + Document("A", 1));
  EXPECT_TRUE(_faults.IsSyncHeld());
  KillAndRestart();
  EXPECT_EQ(_writer->Get("*\n"), "data\n[A]\nx=1\n[B]\nx=0\n[C]\nx=0\n.\n");
}

TEST_F(OutputOfAnInterval, OneSyncIsForAllThatChangesWithinIt) {
  ChangeAOnASlowDisk();
  _faults.LetSyncsGo();
  EXPECT_TRUE(Eventually([&] { return !_faults.IsSyncHeld(); }));
  const uint64_t before = _faults.CountSyncs();
  uint64_t after = 0;
  const long took = MillisecondsOf([&] {
    for (int i = 1; i <= 20; ++i) {
      _writer->Send(Merge("A", i));
      _writer->AwaitHandled();
    }
    EXPECT_TRUE(Eventually([&] { return (after = _faults.CountSyncs()) > before; }));
  });
  EXPECT_LE(after, before + 2 + static_cast<uint64_t>(took / kInterval));
}

// A journal follows a snapshot: the first change is not saved before there is one.
TEST_F(OutputWithoutDurability, FirstChangeOfAllIsShownOnceACrashCanNotTakeItBack) {
  EXPECT_EQ(_daemon->Stop(), 0);
  std::filesystem::remove(_directory.Path("user.ini"));
  Start();
  ChangeAOnASlowDisk();
  _writer->Send(Question("A\n"));
  ExpectHeldUntilTheDiskGoesOn(*_writer, "data\n" + Document("A", 1));
  KillAndRestart();
  EXPECT_EQ(_writer->Get("*\n"), "data\n" + Document("A", 1));
}

TEST_F(OutputWithoutDurability, LeavesAtOnceAndACrashLosesNothingOfIt) {
  _faults.HoldSyncs();
  const uint64_t before = _faults.CountSyncs();
  _writer->Send(Merge("A", 1));
  EXPECT_EQ(_writer->Get("A\n"), "data\n" + Document("A", 1));
  EXPECT_EQ(_faults.CountSyncs(), before);
  KillAndRestart();
  EXPECT_EQ(_writer->Get("*\n"), "data\n[A]\nx=1\n[B]\nx=0\n[C]\nx=0\n.\n");
}

}  // namespace tavix::test
