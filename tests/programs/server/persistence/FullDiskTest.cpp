#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"

// A disk that the daemon's own files have filled.

namespace tavix::test {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using Kind = MemoryFiles::Operation::Kind;

namespace {

constexpr size_t kRoom = 256 * 1024;
constexpr int kGroups = 400;
constexpr char kLast[] = "[Group0]\nx=last\n";
constexpr char kBackupIsRemoved[] =
    "WARNING UserSettings: 'user.ini.bak' is removed to make room: the disk is full, and the user settings come first";

class FullDisk : public Persister {
 protected:
  FullDisk() { _files.LimitRoom(kRoom); }

  // More than there is room for.
  static void Fill(PersistedStore& store) {
    for (int i = 0; i < kGroups; ++i)
      store.Merge("[Group" + std::to_string(i) + "]\nx=" + std::string(900, 'x') + "\n");
  }

  static void OverwriteAll(PersistedStore& store) {
    store.GetManager().OverwriteSettings(std::set<std::string>{"*"}, DocumentOf(kLast));
  }

  size_t CountOf(Kind kind, const std::string& path) const {
    const auto operations = _files.GetOperations();
    return static_cast<size_t>(std::count_if(operations.begin(), operations.end(), [&](const auto& operation) {
      return operation.kind == kind && operation.path == path;
    }));
  }
};

}  // namespace

TEST_F(FullDisk, OfOurOwnFilesHealsOnceTheSettingsFitAgain) {
  PersistedStore store(_files, kAlways);
  Fill(store);
  OverwriteAll(store);
  EXPECT_TRUE(Eventually([&] { return DocumentOf(Load(_files)).GetGroups().size() < 3 && !store.GetUnsavedSince(); }));
  EXPECT_THAT(Load(_files), HasSubstr(kLast));
  EXPECT_TRUE(store.Finish());
  EXPECT_THAT(Load(_files), HasSubstr(kLast));
  EXPECT_THAT(Load(_files), Not(HasSubstr("[Group1]")));
}

TEST_F(FullDisk, IsLeftInOrderByADaemonThatEnds) {
  PersistedStore store(_files, kAlways);
  Fill(store);
  OverwriteAll(store);
  EXPECT_TRUE(store.Finish());
  EXPECT_THAT(Load(_files), HasSubstr(kLast));
  EXPECT_THAT(Load(_files), Not(HasSubstr("[Group1]")));
}

TEST_F(FullDisk, TakesChangesAgainOnceItHasHealed) {
  PersistedStore store(_files, kAlways);
  Fill(store);
  OverwriteAll(store);
  for (int i = 0; i < 50; ++i) {
    store.Merge("[Group0]\nx=" + std::to_string(i) + "\n");
    store.AwaitDurable();
  }
  EXPECT_TRUE(Eventually([&] { return DocumentOf(Load(_files)).GetValueOrDefault("Group0", "x") == "49"; }));
}

TEST_F(FullDisk, GetsTheRoomBehindTheJournalsLastRecordFirst) {
  PersistedStore store(_files, kHourly);
  store.Merge("[B]\ny=1\n");  // begins a journal, which is filled ahead
  _files.Put("other", std::string(kRoom - 27 * 4096, 'x'));
  store.Merge("[B]\ny=" + std::string(40 * 1024, 'y') + "\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_GE(CountOf(Kind::kTruncate, "user.ini.journal.new"), 1u);
  EXPECT_EQ(CountOf(Kind::kRemove, "user.ini.bak"), 0u);
}

TEST_F(FullDisk, TakesTheBackupWhenNothingElseIsLeft) {
  const CapturedLog log;
  {
    PersistedStore store(_files, kAlways);
    store.Merge("[B]\ny=" + std::string(40 * 1024, 'y') + "\n");
    EXPECT_TRUE(store.Finish());
  }
  {
    PersistedStore store(_files, kAlways);
    store.Merge("[B]\ny=2\n");
    EXPECT_TRUE(store.Finish());  // the backup has the large group now
  }
  PersistedStore store(_files, kAlways);
  _files.Put("other", std::string(kRoom - 12 * 4096, 'x'));
  store.Merge("[B]\ny=3\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(Load(_files), "[A]\nx=1\n[B]\ny=3\n");
  EXPECT_THAT(log.GetMessages(), Contains(kBackupIsRemoved));
}

TEST_F(FullDisk, TakesTheOldHistoryBeforeTheBackup) {
  constexpr size_t kHistoryBytes = 128 * 1024;
  const CapturedLog log;
  _files.LimitRoom(16 * kRoom);  // no disk is full yet, whenever snapshots are made
  {
    PersistedStore store(_files, kAlways, "", std::chrono::hours(1), kHistoryBytes);
    for (int i = 0; i < 50; ++i) store.Merge("[B]\ny=" + std::to_string(i) + std::string(1000, 'y') + "\n");
    EXPECT_TRUE(store.Finish());
  }
  ASSERT_NE(_files.Get("user.ini.history.1"), "");
  ASSERT_NE(_files.Get("user.ini.bak"), "");
  size_t used = 0;
  for (const auto& file : _files.GetImage()) used += file.second.bytes.size() / 4096 * 4096 + 4096;
  _files.LimitRoom(used);
  PersistedStore store(_files, kAlways, "", std::chrono::hours(1), kHistoryBytes);
  store.Merge("[B]\ny=" + std::string(20 * 1000, 'z') + "\n");
  EXPECT_TRUE(store.Finish());
  EXPECT_EQ(Load(_files), "[A]\nx=1\n[B]\ny=" + std::string(20 * 1000, 'z') + "\n");
  EXPECT_EQ(_files.Get("user.ini.history.1"), "");
  EXPECT_EQ(CountOf(Kind::kRemove, "user.ini.bak"), 0u);
  EXPECT_THAT(log.GetMessages(),
              Contains("WARNING UserSettings: 'user.ini.history.1' is removed to make room: the disk is "
                       "full, and the user settings come first"));
}

// It is the only state that can be read.
TEST_F(FullDisk, KeepsTheBackupOfADamagedSnapshot) {
  {
    PersistedStore store(_files, kAlways);
    store.Merge("[B]\ny=2\n");
    EXPECT_TRUE(store.Finish());
  }
  std::string damaged = _files.Get(kUserFile);
  damaged[damaged.find("y=2")] = '\0';
  _files.Put(kUserFile, damaged);
  _files.Put("other", std::string(kRoom - 2 * 4096, 'x'));
  PersistedStore store(_files, kAlways);
  store.Merge("[B]\ny=3\n");
  EXPECT_FALSE(store.Finish());
  EXPECT_EQ(CountOf(Kind::kRemove, "user.ini.bak"), 0u);
  EXPECT_EQ(Load(_files), "[A]\nx=1\n");
}

// The journal that goes on fills nothing ahead: it would take what was just given back.
TEST_F(FullDisk, RoomThatAJournalGaveBackIsNotForRecords) {
  MemoryFiles files;
  const auto journal = daemon::Journal::Create(files, kUserFile, {1, 2}, {{"", "[A]\nx=1\n"}});
  journal->GiveRoomBack(true);
  EXPECT_EQ(files.Get("user.ini.journal.new").size(), journal->GetEnd());
  EXPECT_THROW(journal->Append({"", "[A]\nx=2\n"}), daemon::NoRoom);
  EXPECT_EQ(files.Get("user.ini.journal.new").size(), journal->GetEnd());
  journal->FillAgain();
  journal->Append({"", "[A]\nx=2\n"});
  EXPECT_GT(files.Get("user.ini.journal.new").size(), journal->GetEnd());
}

// The backup goes to make room for it, and must not go for a disk that fails in another way.
TEST_F(FullDisk, IsToldFromADiskThatFails) {
  for (const bool isFull : {false, true}) {
    MemoryFiles files;
    if (isFull) files.LimitRoom(4096);
    files.AddObserver([isFull](const MemoryFiles::Operation& operation) {
      if (!isFull && operation.kind == Kind::kReserve) throw osa::Exception("Input/output error");
    });
    const auto journal = daemon::Journal::Create(files, kUserFile, {1, 2}, {{"", "[A]\nx=1\n"}});
    EXPECT_EQ(journal->LacksSpareRoom(), isFull);
  }
}

// It is for a snapshot of few settings, when this one had no room for a journal behind it.
TEST_F(FullDisk, ALongSnapshotLeavesTheJournalItsSpareRoom) {
  MemoryFiles files;
  const auto journal = daemon::Journal::Create(files, kUserFile, {1, 2}, {{"", "[A]\nx=1\n"}});
  journal->GiveRoomBack(false);
  EXPECT_EQ(files.Get("user.ini.journal.new").size(), journal->GetEnd() + daemon::Journal::kSpare);
  EXPECT_THROW(journal->Append({"", "[A]\nx=2\n"}), daemon::NoRoom);
  journal->GiveRoomBack(true);
  EXPECT_EQ(files.Get("user.ini.journal.new").size(), journal->GetEnd());
}

}  // namespace tavix::test
