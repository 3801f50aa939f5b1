#include "programs/server/history/HistoryWords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tavix/settings/Amendment.h"
#include "tests/programs/server/history/HistoryServer.h"
#include "tests/support/BackgroundCall.h"

// The request `history`, as a client sends it.

namespace tavix::test {

using testing::HasSubstr;
using testing::Not;

namespace {

struct HistoryRequest : testing::Test {
  HistoryServer server;

  void Merge(const std::string& settings) { server.Serve("merge\n" + settings + ".\n"); }
};

constexpr char kNone[] = "data\n[scanned]\nmore=false\nnext=0\n.\n";

}  // namespace

TEST_F(HistoryRequest, ShowsNothingAtFirst) {
  EXPECT_EQ(server.Serve("history - 10\n"), kNone);
  EXPECT_EQ(server.Serve("info features\n"), "Features\n--------\namend\nhistory 0 0\nrollback\n\n");
}

TEST(HistoryRequestWord, MayBeSkippedOnceItsClientHasLeft) {
  HistoryServer server;
  const auto* const command = server.words.Find("history");
  ASSERT_NE(command, nullptr);
  EXPECT_TRUE(command->isLong);
  EXPECT_TRUE(command->isForClientOnly);
}

TEST_F(HistoryRequest, ShowsWhatWasAndWhatIs) {
  Merge("[A]\nx=1\ny=1\n");
  server.Serve("note site 4\namend\n.\n.\n[A]\nx=2\n.\n[A]\ny=\n.\n.\n");
  EXPECT_EQ(server.Serve("history - 1\n"),
            "data\n[0000000002]\nby=local - - -\ncommand=amend\nis [A]x=2\nnote=site 4\nwas [A]x=1\nwas [A]y=1\n"
            "[scanned]\nmore=true\nnext=2\n.\n");
  EXPECT_EQ(
      server.Serve("history 2 1\n"),
      "data\n[0000000001]\nby=local - - -\ncommand=merge\nis [A]x=1\nis [A]y=1\n[scanned]\nmore=true\nnext=1\n.\n");
  EXPECT_EQ(server.Serve("history 1 1\n"), "data\n[scanned]\nmore=false\nnext=1\n.\n");
  EXPECT_THAT(server.Serve("info features\n"), HasSubstr("\nhistory 0 2\n"));
}

TEST_F(HistoryRequest, NamesTheTrialOnWhichAChangeWasPutAndWhichOneWasReverted) {
  settings::server::ChangeOrigin origin{{}, "merge", {}, "90 t-3f9a"};
  settings::server::ChangeTicket ticket = 0;
  server.store.GetManager().MergeSettings(DocumentOf("[A]\nx=1\n"), 0, origin, ticket);
  origin.command = "revert";
  origin.trial = "t-3f9a";
  origin.isRevert = true;
  settings::Amendment revert;
  revert.unset = DocumentOf("[A]\nx=\n");
  EXPECT_TRUE(server.store.GetManager().Amend(revert, origin, ticket));
  EXPECT_EQ(server.Serve("history - 2\n"),
            "data\n[0000000001]\nby=local - - -\ncommand=merge\nis [A]x=1\ntrial=t-3f9a\n"
            "[0000000002]\nby=local - - -\ncommand=revert\ntrial=t-3f9a\nwas [A]x=1\n"
            "[scanned]\nmore=true\nnext=1\n.\n");
}

TEST_F(HistoryRequest, SpellsNamesSoThatTheyCanBeToldApart) {
  Merge("[A\\]B]\nx\\=y=1\n=2\n[Empty]\n");
  const std::string answer = server.Serve("history - 1\nserialize phparray\nhistory - 1\n");
  EXPECT_THAT(answer, HasSubstr("\"is [Empty]\";s:0:\"\""));
  EXPECT_THAT(answer, HasSubstr("]=\";s:1:\"2\""));
  EXPECT_THAT(answer, Not(HasSubstr("\"is [A]B]")));
}

TEST_F(HistoryRequest, WithAPatternShowsWhatMatchesAlone) {
  Merge("[Network/A]\nx=1\n[Video]\nx=1\n");
  Merge("[Video]\nx=2\n");
  EXPECT_EQ(server.Serve("history - 9  Network/* \n"),
            "data\n[0000000001]\nby=local - - -\ncommand=merge\nis [Network/A]x=1\n[scanned]\nmore=false\nnext=1\n.\n");
  EXPECT_EQ(server.Serve("history - 9 Video\n").find("[Network"), std::string::npos);
}

TEST_F(HistoryRequest, WithAPatternShowsThatAGroupWasDeleted) {
  server.Serve("overwrite\nNetwork/A\n.\n.\noverwrite\nVideo\n.\n.\n");
  EXPECT_EQ(server.Serve("history - 9 Network/*\n"),
            "data\n[0000000001]\nby=local - - -\ncommand=overwrite\n"
            "is [TavixSettings/Data/DeletedGroups]Network/A=Network/A\n[scanned]\nmore=false\nnext=1\n.\n");
}

TEST_F(HistoryRequest, LooksAtSoManyBytesAtATime) {
  for (int value = 1; value <= 12; ++value)
    Merge("[A]\nx=" + std::string(40 * 1000, static_cast<char>('a' + value)) + "\n");
  const std::string answer = server.Serve("history - 256 B\n");
  EXPECT_EQ(answer, "data\n[scanned]\nmore=true\nnext=10\n.\n");
  EXPECT_EQ(server.Serve("history 10 256 B\n"), "data\n[scanned]\nmore=true\nnext=7\n.\n");
}

TEST_F(HistoryRequest, ShowsOfAnEntryThatIsTooLongWhoMadeIt) {
  Merge("[A]\nx=" + std::string(300 * 1000, 'x') + "\n");
  EXPECT_THAT(server.Serve("history - 1 B\n"),
              testing::MatchesRegex("data\n\\[0000000001\\]\nby=local - - -\ncommand=merge\nomitted=300[0-9]*\n"
                                    "\\[scanned\\]\nmore=true\nnext=1\n\\.\n"));
}

TEST_F(HistoryRequest, IsRefusedWithAReason) {
  EXPECT_EQ(server.Serve("history x 1\n"), "refused\n'x' is neither a revision nor \"-\"\n");
  EXPECT_EQ(server.Serve("history\n"), "refused\n'' is neither a revision nor \"-\"\n");
  EXPECT_EQ(server.Serve("history 99999999999999999999 1\n"),
            "refused\n'99999999999999999999' is neither a revision nor \"-\"\n");
  for (const std::string count : {"0", "257", "-1", ""})
    EXPECT_EQ(server.Serve("history - " + count + "\n"), "refused\n'" + count + "' is no number from 1 to 256\n");
}

TEST_F(HistoryRequest, IsRefusedWhenTheDiskFails) {
  Merge("[A]\nx=" + std::string(kLargeChange, 'x') + "\n");
  const auto isRefused = [&] {  // once the entry is in the file
    server.files.FailReads(daemon::HistoryFile::PathOf(kUserFile), EIO, 1);
    return server.Serve("history - 1\n").find("refused\nthe history can't be read: Failed to read") == 0;
  };
  EXPECT_TRUE(Eventually(isRefused));
}

}  // namespace tavix::test
