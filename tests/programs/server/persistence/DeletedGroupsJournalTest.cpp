#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/programs/server/persistence/PersisterTest.h"
#include "tests/programs/server/persistence/RefusedMemory.h"
#include "tests/support/BackgroundCall.h"

// What becomes of the record of deleted groups in the journal.

namespace tavix::test {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Kind = MemoryFiles::Operation::Kind;

namespace {

constexpr char kJournal[] = "user.ini.journal";
constexpr char kFirstVersion[] = "# tavix-settings journal 1, ";
constexpr char kSecondVersion[] = "# tavix-settings journal 2, ";

std::set<std::string> MakeNames(size_t count) {
  std::set<std::string> names;
  for (size_t i = 0; i < count; ++i) names.insert("Erased/" + std::to_string(i));
  return names;
}

MemoryFiles::Image MakeFilesWithRecord(size_t names) {
  MemoryFiles files;
  PersistedStore store(files, kAlways);
  store.GetManager().OverwriteSettings(MakeNames(names), core::IniFile());
  EXPECT_TRUE(store.Finish());
  return files.GetImage();
}

struct Cost {
  size_t bytes = 0;  // written
  size_t allocations = 0;
};

size_t CountBytesWritten(const std::vector<MemoryFiles::Operation>& operations, size_t from) {
  size_t bytes = 0;
  for (size_t i = from; i < operations.size(); ++i) bytes += operations[i].bytes.size();
  return bytes;
}

// The least of some erasures: now and then memory is taken ahead, or the file is filled ahead.
Cost FindCostOfAnErase(size_t names) {
  MemoryFiles files(MakeFilesWithRecord(names));
  PersistedStore store(files, kAlways);
  store.GetManager().OverwriteSettings("First", core::IniFile());
  Cost least{SIZE_MAX, SIZE_MAX};
  for (int i = 10; i < 30; ++i) {
    store.AwaitDurable();
    const size_t operations = files.CountOperations();
    const size_t allocations = CountAllocations();
    store.GetManager().OverwriteSettings("Another group " + std::to_string(i), core::IniFile());
    least.allocations = std::min(least.allocations, CountAllocations() - allocations);
    least.bytes = std::min(least.bytes, CountBytesWritten(files.GetOperations(), operations));
  }
  return least;
}

}  // namespace

TEST_F(Persister, EraseCostsTheSameHoweverManyNamesAreRecorded) {
  const Cost few = FindCostOfAnErase(100);
  const Cost many = FindCostOfAnErase(100'000);
  EXPECT_EQ(many.bytes, few.bytes);
  EXPECT_LT(many.bytes, 200u);
  EXPECT_EQ(many.allocations, few.allocations);
}

TEST_F(Persister, JournalOfAnEraseSaysThatItHoldsAPartAndIsAddedToTheRecord) {
  MemoryFiles files(MakeFilesWithRecord(3));
  PersistedStore store(files, kAlways);
  store.GetManager().OverwriteSettings("Net*", core::IniFile());
  store.AwaitDurable();
  EXPECT_THAT(files.Get(kJournal), StartsWith(kSecondVersion));
  EXPECT_THAT(files.Get(kJournal), Not(HasSubstr("Erased/")));
  EXPECT_EQ(Load(files),
            "[TavixSettings/Data/DeletedGroups]\nErased/0=Erased/0\nErased/1=Erased/1\nErased/2=Erased/2\nNet*=Net*\n");
}

TEST_F(Persister, JournalThatBeganWithoutAPartSaysItOnceItHoldsOne) {
  PersistedStore store(_files, kAlways);
  store.Merge("[B]\ny=2\n");
  store.AwaitDurable();
  EXPECT_THAT(_files.Get(kJournal), StartsWith(kFirstVersion));
  store.GetManager().OverwriteSettings("A", DocumentOf("[A]\nz=3\n"));
  store.AwaitDurable();
  EXPECT_THAT(_files.Get(kJournal), StartsWith(kSecondVersion));
  EXPECT_TRUE(PowerCutsLeave("[A]\nz=3\n[B]\ny=2\n[TavixSettings/Data/DeletedGroups]\nA=A\n"));
}

// An older daemon reads it.
TEST_F(Persister, JournalWithoutAPartIsOfTheFirstVersion) {
  PersistedStore store(_files, kAlways);
  store.GetManager().OverwriteSettings("A", core::IniFile());
  store.AwaitDurable();
  EXPECT_TRUE(store.Finish());
  PersistedStore next(_files, kAlways);
  next.Merge("[B]\ny=2\n");
  next.GetManager().OverwriteSettings("A", DocumentOf("[A]\nx=2\n"));
  next.AwaitDurable();
  EXPECT_THAT(_files.Get(kJournal), StartsWith(kFirstVersion));
  EXPECT_THAT(_files.Get(kJournal), Not(HasSubstr("# extend ")));
}

TEST_F(Persister, JournalGoesOnWithPartsAfterACrash) {
  MemoryFiles files(MakeFilesWithRecord(1));
  for (const char* name : {"B", "C"}) {
    PersistedStore store(files, kAlways);
    store.GetManager().OverwriteSettings(name, core::IniFile());
    store.AwaitDurable();
  }
  EXPECT_THAT(files.Get(kJournal), StartsWith(kSecondVersion));
  EXPECT_EQ(Load(files), "[TavixSettings/Data/DeletedGroups]\nB=B\nC=C\nErased/0=Erased/0\n");
}

// An older daemon reads everything then.
TEST_F(Persister, OrderedEndLeavesNothingOfParts) {
  PersistedStore store(_files, kAlways);
  store.GetManager().OverwriteSettings("A", core::IniFile());
  EXPECT_TRUE(store.Finish());
  EXPECT_THAT(_files.GetNames(), ElementsAre(kUserFile, "user.ini.bak"));
  EXPECT_THAT(_files.Get(kUserFile), HasSubstr("\n[TavixSettings/Data/DeletedGroups]\nA=A\n# End of user settings: "));
}

TEST_F(Persister, RecordThatARestoreTookAwayIsTakenAwayFromTheJournalToo) {
  PersistedStore store(_files, kAlways, "[D]\nx=1\n");
  settings::common::GroupNameMatcher all;
  all.AddNameOrPattern("*");
  store.GetManager().OverwriteSettings("D", core::IniFile());
  store.GetManager().RestoreToDefaults(all);
  EXPECT_EQ(Load(_files), "[D]\nx=1\n");
  store.GetManager().OverwriteSettings("E", core::IniFile());
  EXPECT_EQ(Load(_files), "[D]\nx=1\n[TavixSettings/Data/DeletedGroups]\nE=E\n");
}

TEST_F(Persister, NameThatIsErasedWhileASnapshotIsWrittenDoesNotTakeTheWholeRecordIntoTheNextJournal) {
  MemoryFiles files(MakeFilesWithRecord(1000));
  PersistedStore store(files, kAlways);
  Stop snapshot(files, Kind::kSync, "user.ini.new");
  store.Merge("[Large]\nx=" + std::string(70 * 1000, 'x') + "\n");
  snapshot.Await();
  store.GetManager().OverwriteSettings("B", core::IniFile());
  const size_t before = CountSnapshots(files);
  snapshot.GoOn();
  store.AwaitDurable();
  EXPECT_TRUE(Eventually([&] { return CountSnapshots(files) > before; }));
  EXPECT_TRUE(Eventually([&] {  // the next journal takes its place when it is synced
    store.Merge("[C]\nx=" + std::to_string(files.CountOperations()) + "\n");
    store.AwaitDurable();
    return files.Get(kJournal).find("Large") == std::string::npos;
  }));
  EXPECT_THAT(files.Get(kJournal), HasSubstr("B=B\n"));
  EXPECT_THAT(files.Get(kJournal), Not(HasSubstr("Erased/")));
  EXPECT_THAT(Load(files), HasSubstr("[TavixSettings/Data/DeletedGroups]\nB=B\nErased/0=Erased/0\n"));
}

}  // namespace tavix::test
