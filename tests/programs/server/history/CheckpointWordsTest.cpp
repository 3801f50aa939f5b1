#include "programs/server/history/CheckpointWords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "tests/programs/server/history/HistoryServer.h"

// The requests `checkpoint` and `forget`, as a client sends them.

namespace tavix::test {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

struct CheckpointRequest : testing::Test {
  HistoryServer server;

  void Merge(const std::string& settings) { server.Serve("merge\n" + settings + ".\n"); }
};

}  // namespace

TEST_F(CheckpointRequest, KeepsTheUserSettingsAndShowsWhatItKeeps) {
  Merge("[A]\nx=1\n");
  Merge("[A]\nx=2\n");
  EXPECT_THAT(server.Serve("checkpoint before-update\n"),
              MatchesRegex("data\n\\[before-update\\]\nbytes=[0-9]+\nrevision=2\n\\.\n"));
  Merge("[A]\nx=3\n");
  EXPECT_EQ(TextOf(server.checkpoints.Load("before-update").settings), "[A]\nx=2\n");
}

TEST_F(CheckpointRequest, HasTheRecordOfDeletedGroups) {
  server.Serve("overwrite\nVideo\n.\n.\n");
  server.Serve("checkpoint one\n");
  EXPECT_THAT(TextOf(server.checkpoints.Load("one").settings), HasSubstr("Video=Video\n"));
}

TEST_F(CheckpointRequest, WithoutANameListsThemAll) {
  EXPECT_EQ(server.Serve("checkpoint\n"), "data\n.\n");
  server.Serve("checkpoint b\ncheckpoint a\n");
  EXPECT_THAT(server.Serve("checkpoint\n"),
              MatchesRegex("data\n\\[a\\]\nbytes=[0-9]+\nrevision=0\n\\[b\\]\nbytes=[0-9]+\nrevision=0\n\\.\n"));
  EXPECT_THAT(server.Serve("serialize phparray\ncheckpoint\n"), HasSubstr("\"revision\";s:1:\"0\""));
}

TEST_F(CheckpointRequest, ListsADamagedOneWithTheReasonInstead) {
  server.Serve("checkpoint one\n");
  server.files.Put("user.ini.checkpoint.one", "");
  EXPECT_EQ(server.Serve("checkpoint\n"),
            "data\n[one]\nbytes=0\ndamaged='user.ini.checkpoint.one' is not as it was written\n.\n");
}

TEST_F(CheckpointRequest, ForgetsOne) {
  server.Serve("checkpoint one\n");
  EXPECT_EQ(server.Serve("forget one\n"), "data\n.\n");
  EXPECT_EQ(server.Serve("forget one\n"), "refused\nno checkpoint is named 'one'\n");
  EXPECT_EQ(server.Serve("checkpoint\n"), "data\n.\n");
}

TEST_F(CheckpointRequest, IsRefusedWithAReason) {
  EXPECT_EQ(server.Serve("checkpoint a b\n"),
            "refused\n'a b' is no name of a checkpoint: 1 to 64 of A-Z a-z 0-9 . _ -\n");
  EXPECT_EQ(server.Serve("forget\n"), "refused\n'' is no name of a checkpoint: 1 to 64 of A-Z a-z 0-9 . _ -\n");
  server.Serve("checkpoint 1\ncheckpoint 2\ncheckpoint 3\n");
  EXPECT_EQ(server.Serve("checkpoint 4\n"), "refused\n3 checkpoints are kept already: forget one of them\n");
}

TEST_F(CheckpointRequest, UsesNoNoteUp) {
  server.Serve("note site 4\ncheckpoint one\nforget one\nmerge\n[A]\nx=1\n.\n");
  EXPECT_THAT(server.Serve("history - 1\n"), HasSubstr("note=site 4\n"));
}

TEST_F(CheckpointRequest, IsCarriedOutThoughItsClientHasLeft) {
  for (const char* word : {"checkpoint", "forget"}) {
    const auto* const command = server.checkpointWords.Find(word);
    ASSERT_NE(command, nullptr);
    EXPECT_TRUE(command->isLong);
    EXPECT_FALSE(command->isForClientOnly);
    EXPECT_FALSE(command->isChange);
  }
}

// Each change sets both groups to the number of its revision.
TEST_F(CheckpointRequest, HoldsOneStateAndItsRevisionBesideChanges) {
  std::atomic<bool> isEnough{false};
  std::atomic<uint64_t> last{0};
  std::thread writer([&] {
    while (!isEnough) {
      const std::string value = std::to_string(++last);
      server.store.Merge("[A]\nx=" + value + "\n[Z]\nx=" + value + "\n");
    }
  });
  while (last < 2) std::this_thread::yield();  // the first one is made
  for (int i = 0; i < 50; ++i) {
    EXPECT_THAT(server.Serve("checkpoint one\n"), HasSubstr("\nrevision="));
    const auto checkpoint = server.checkpoints.Load("one");
    const std::string value = std::to_string(checkpoint.revision);
    EXPECT_EQ(TextOf(checkpoint.settings), "[A]\nx=" + value + "\n[Z]\nx=" + value + "\n");
  }
  isEnough = true;
  writer.join();
}

}  // namespace tavix::test
