#include <csignal>

#include "tests/programs/server/process/DamagedFiles.h"

// The changes since the last snapshot, where the daemon was killed and the disk then did the rest.

namespace tavix::test {

namespace fs = std::filesystem;

using testing::HasSubstr;

namespace {

// A journal of a daemon that was killed, cut or flipped anywhere: what counts is what came before.
class DamagedJournal : public DamagedFiles {
 protected:
  DamagedJournal() {
    Daemon daemon(_directory, kArguments);
    ProtocolClient client(daemon.GetPort());
    for (int i = 1; i <= kChanges; ++i) {
      client.Send("merge\n" + Change(i) + ".\n");
      client.AwaitHandled();
    }
    EXPECT_EQ(daemon.Stop(SIGKILL), 128 + SIGKILL);
    _journal = _directory.Read("user.ini.journal");
    _journal.erase(_journal.find_last_not_of('\0') + 1);
  }

  static std::string Change(int number) { return "[J]\nn=" + std::to_string(number) + "\n"; }

  // Whether it is the state after some change, or after none.
  static bool IsAState(const std::string& served) {
    for (int i = 1; i <= kChanges; ++i) {
      if (served == kSaved + Change(i)) return true;
    }
    return served == kSaved;
  }

  void ExpectAState(const std::string& journal) {
    fs::remove(_directory.Path("user.ini.lock"));
    WriteAsSaved(_snapshot);
    _directory.Write("user.ini.journal", journal);
    const std::string served = Serve();
    EXPECT_TRUE(IsAState(served)) << served;
    EXPECT_EQ(Serve(), served);
    EXPECT_EQ(_errors, "");
  }

  static constexpr int kChanges = 5;
  std::string _journal;
};

}  // namespace

TEST_F(DamagedJournal, TornAnywhereLosesNothingBeforeThat) {
  std::mt19937 random(6);
  for (int i = 0; i < (IsLongRun() ? 100 : 15) && !HasFailure(); ++i) {
    const size_t size = Pick(_journal.size() + 1, random);
    SCOPED_TRACE("size " + std::to_string(size));
    ExpectAState(_journal.substr(0, size));
  }
}

TEST_F(DamagedJournal, FlippedAnywhereLosesNothingBeforeThat) {
  std::mt19937 random(7);
  for (int i = 0; i < (IsLongRun() ? 100 : 15) && !HasFailure(); ++i) {
    const size_t bit = Pick(8 * _journal.size(), random);
    SCOPED_TRACE("bit " + std::to_string(bit));
    ExpectAState(Flip(_journal, bit));
  }
}

TEST_F(DamagedJournal, WhatIsNoJournalIsPutAside) {
  fs::remove(_directory.Path("user.ini.lock"));
  _directory.Write("user.ini.journal", "something else\n");
  EXPECT_EQ(Serve(), kSaved);
  EXPECT_THAT(_errors,
              HasSubstr("ERROR UserSettings: The changes in 'user.ini.journal' belong to no user settings that "
                        "are there; it is kept as 'user.ini.journal.bad-"));
  ASSERT_EQ(FindBad().size(), 1u);
  EXPECT_EQ(_directory.Read(FindBad()[0]), "something else\n");
}

TEST_F(DamagedJournal, BehindTheDamageIsKeptAsItWas) {
  const size_t bit = 8 * _journal.find("n=2");
  fs::remove(_directory.Path("user.ini.lock"));
  const std::string flipped = Flip(_journal, bit);
  _directory.Write("user.ini.journal", flipped);
  EXPECT_EQ(Serve(), kSaved + Change(1));
  EXPECT_THAT(_errors, HasSubstr("ERROR UserSettings: 'user.ini.journal' is damaged behind byte "));
  ASSERT_EQ(FindBad().size(), 1u);
  EXPECT_EQ(_directory.Read(FindBad()[0]), flipped);
}

TEST_F(DamagedJournal, ThatCanNotBeReadIsPutAsideAndTheReasonTold) {
  fs::remove(_directory.Path("user.ini.lock"));
  fs::remove(_directory.Path("user.ini.journal"));
  ASSERT_EQ(mkfifo(_directory.Path("user.ini.journal").c_str(), 0600), 0);
  EXPECT_EQ(Serve(), kSaved);
  EXPECT_THAT(_errors, HasSubstr("ERROR UserSettings: The changes in 'user.ini.journal' can't be read: it is a pipe, "
                                 "not a regular file; it is kept as 'user.ini.journal.bad-"));
}

TEST_F(DamagedJournal, ThatIsADirectoryIsPutAside) {
  fs::remove(_directory.Path("user.ini.lock"));
  fs::remove(_directory.Path("user.ini.journal"));
  fs::create_directory(_directory.Path("user.ini.journal"));
  EXPECT_EQ(Serve(), kSaved);
  EXPECT_THAT(_errors, HasSubstr("; it is kept as 'user.ini.journal.bad-"));
  Save("[C]\nlast=2\n");
  EXPECT_THAT(Serve(), HasSubstr("[C]\nlast=2\n"));
}

}  // namespace tavix::test
