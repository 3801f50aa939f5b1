#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tavix/settings/Amendment.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RecordingCallback.h"

// What a store does not carry out that was given bounds.

namespace tavix::test {

using core::IniFile;
using settings::common::GroupNameMatcher;
using settings::server::RefusedChange;
using settings::server::SettingsManager;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Names = std::set<std::string>;

constexpr char kRecord[] = "TavixSettings/Data/DeletedGroups";
const std::string kLarge(10'000, 'v');

class BoundedStore : public testing::Test {
 protected:
  BoundedStore() { _store.Subscribe(&_callback, "*"); }

  // No change that makes the store larger has room.
  void Fill() { _store.SetMaxBytes(1); }

  // The change is refused, and nobody is told of it.
  template <class Change>
  void ExpectRefused(RefusedChange::Reason reason, Change change) {
    static_cast<void>(_callback.TakeChanges());
    const std::string all = AllSettingsOf(_store);
    const std::string user = UserSettingsOf(_store);
    const int saves = _persister.CountSaves();
    try {
      change();
      ADD_FAILURE() << "carried out";
    } catch (const RefusedChange& refusal) {
      EXPECT_EQ(refusal.GetReason(), reason);
    }
    EXPECT_EQ(AllSettingsOf(_store), all);
    EXPECT_EQ(UserSettingsOf(_store), user);
    EXPECT_EQ(_persister.CountSaves(), saves);
    EXPECT_THAT(_callback.TakeChanges(), IsEmpty());
  }

  template <class Change>
  void ExpectRefusedAsFull(Change change) {
    ExpectRefused(RefusedChange::Reason::kStoreFull, change);
  }

  template <class Change>
  void ExpectRefusedForPatterns(Change change) {
    ExpectRefused(RefusedChange::Reason::kDeletedPatterns, change);
  }

  MemoryPersister _persister{{"[A]\nx=1\ny=2\n[D]\nx=1\n"}, "[A]\nx=5\n[B]\nx=1234567890123456789\n"};
  SettingsManager _store{&_persister, nullptr, nullptr, false};
  RecordingCallback _callback;
};

GroupNameMatcher MatcherOf(const std::string& nameOrPattern) {
  GroupNameMatcher matcher;
  matcher.AddNameOrPattern(nameOrPattern);
  return matcher;
}

}  // namespace

TEST_F(BoundedStore, RefusesWhatHasNoRoom) {
  _store.SetMaxBytes(_store.GetApproximateBytes() + kLarge.size());
  const IniFile large = DocumentOf("[C]\nk=" + kLarge + "\n");
  ExpectRefusedAsFull([&] { _store.MergeSettings(large, 0); });
  ExpectRefusedAsFull([&] { static_cast<void>(_store.TestAndMerge(IniFile(), large)); });
  ExpectRefusedAsFull([&] { _store.OverwriteSettings("C", large); });
}

// It is in what readers see alone, so that there is room for it.
TEST_F(BoundedStore, CountsWhatIsNotSavedOnce) {
  _store.SetMaxBytes(_store.GetApproximateBytes() + 2 * kLarge.size() - 1);
  _store.MergeSettings(DocumentOf("[C]\nk=" + kLarge + "\n"), SettingsManager::kNoPersist);
  EXPECT_THAT(AllSettingsOf(_store), HasSubstr("[C]\n"));
}

TEST_F(BoundedStore, RefusesARestoreThatHasNoRoom) {
  _persister.SetDefaults({"[A]\nx=1\n[D]\nx=" + kLarge + "\n"});
  _store.SetMaxBytes(_store.GetApproximateBytes() + kLarge.size());
  ExpectRefusedAsFull([&] { _store.RestoreToDefaults(MatcherOf("D")); });
}

TEST_F(BoundedStore, CarriesOutBeyondItsBoundWhatDoesNotMakeItLarger) {
  _store.MergeSettings(DocumentOf("[C]\nk=" + kLarge + "\n"), 0);
  Fill();
  _store.MergeSettings(DocumentOf("[A]\nx=6\n"), 0);
  EXPECT_TRUE(_store.TestAndMerge(DocumentOf("[A]\nx=6\n"), DocumentOf("[A]\nx=7\n")));
  _store.OverwriteSettings("C", DocumentOf("[C]\nk=1\n"));
  EXPECT_EQ(AllSettingsOf(_store), "[A]\nx=7\ny=2\n[B]\nx=1234567890123456789\n[C]\nk=1\n[D]\nx=1\n");
}

TEST_F(BoundedStore, ErasesAGroupOfTheDefaultsBeyondItsBound) {
  MemoryPersister persister({"[A]\nx=" + kLarge + "\n"});
  SettingsManager store(&persister, nullptr, nullptr, false);
  store.SetMaxBytes(1);
  store.OverwriteSettings("A", IniFile());
  EXPECT_EQ(AllSettingsOf(store), "");
}

TEST_F(BoundedStore, CountsTheDefaultsThatAChangeHides) {
  MemoryPersister persister({"[A]\nx=" + kLarge + "\n"});
  SettingsManager store(&persister, nullptr, nullptr, false);
  const size_t before = store.GetApproximateBytes();
  store.OverwriteSettings("A", DocumentOf("[A]\nx=1\n"));
  EXPECT_GT(store.GetApproximateBytes(), before);
  EXPECT_TRUE(store.Amend({{}, {}, {}, DocumentOf("[A]\n"), {}}));
  EXPECT_EQ(store.GetApproximateBytes(), before);
}

TEST_F(BoundedStore, IsLoadedWholeBeyondItsBound) {
  Fill();
  EXPECT_GT(_store.GetApproximateBytes(), 1u);
  EXPECT_EQ(AllSettingsOf(_store), "[A]\nx=5\ny=2\n[B]\nx=1234567890123456789\n[D]\nx=1\n");
}

TEST_F(BoundedStore, FailedConditionIsNoRefusal) {
  Fill();
  EXPECT_FALSE(_store.TestAndMerge(DocumentOf("[A]\nx=9\n"), DocumentOf("[C]\nk=" + kLarge + "\n")));
}

TEST_F(BoundedStore, HasRoomAgainOnceGroupsAreErased) {
  _store.MergeSettings(DocumentOf("[C]\nk=" + kLarge + "\n"), 0);
  _store.SetMaxBytes(_store.GetApproximateBytes());
  ExpectRefusedAsFull([&] { _store.MergeSettings(DocumentOf("[E]\nk=1\n"), 0); });
  _store.OverwriteSettings("C", IniFile());
  _store.MergeSettings(DocumentOf("[E]\nk=1\n"), 0);
  EXPECT_THAT(AllSettingsOf(_store), HasSubstr("[E]\n"));
}

// Others may make their changes while the callbacks of a change run.
TEST_F(BoundedStore, HasRoomForOthersBeforeTheCallbacksOfTheChangeThatMadeItAreCalled) {
  struct Callback : settings::IChangeCallback {
    explicit Callback(const SettingsManager& owner) : store(owner) {}
    void OnChange(const Names&, const IniFile&) override { bytes = store.GetApproximateBytes(); }
    const SettingsManager& store;
    size_t bytes = 0;
  };
  Callback callback(_store);
  _store.MergeSettings(DocumentOf("[A]\nx=" + kLarge + "\n"), 0);
  _store.Subscribe(&callback, "A");
  _store.OverwriteSettings("A", DocumentOf("[A]\nx=1\n"));
  EXPECT_EQ(callback.bytes, _store.GetApproximateBytes());
  EXPECT_LT(callback.bytes, kLarge.size());
  _store.Unsubscribe(&callback);
}

TEST_F(BoundedStore, RefusesAnOverwriteOfTooManyPatterns) {
  _store.SetMaxDeletedPatterns(2);
  _store.OverwriteSettings(Names{"P1*", "P2*"}, IniFile());
  ExpectRefusedForPatterns([&] { _store.OverwriteSettings(Names{"P3*", "name"}, DocumentOf("[A]\nx=9\n")); });
  ExpectRefusedForPatterns([&] { _store.MergeSettings(DocumentOf("[" + std::string(kRecord) + "]\nk=P3*\n"), 0); });
}

TEST_F(BoundedStore, RecordsAnyNumberOfNamesAndKnownPatternsAgain) {
  _store.SetMaxDeletedPatterns(1);
  _store.OverwriteSettings("P*", IniFile());
  for (int i = 0; i < 100; ++i) _store.OverwriteSettings(Names{"P*", "name " + std::to_string(i)}, IniFile());
  EXPECT_THAT(UserSettingsOf(_store), HasSubstr("\nname 99=name 99\n"));
}

TEST_F(BoundedStore, LoadsMorePatternsThanMayBeRecorded) {
  MemoryPersister persister({"[P1]\n[P2]\n[P3]\n[Q]\n"}, "[" + std::string(kRecord) + "]\n1=P1*\n2=P2*\n3=P3*\n");
  SettingsManager store(&persister, nullptr, nullptr, false);
  store.SetMaxDeletedPatterns(1);
  EXPECT_EQ(AllSettingsOf(store), "[Q]\n");
  store.OverwriteSettings(Names{"P3*", "name"}, IniFile());
  EXPECT_THROW(store.OverwriteSettings("P4*", IniFile()), RefusedChange);
}

TEST_F(BoundedStore, RecordsPatternsAgainOnceARestoreHasTakenTheRecordAway) {
  _store.SetMaxDeletedPatterns(1);
  _store.OverwriteSettings("P1*", IniFile());
  _store.RestoreToDefaults(MatcherOf(kRecord));
  _store.OverwriteSettings("P2*", IniFile());
  EXPECT_THROW(_store.OverwriteSettings("P3*", IniFile()), RefusedChange);
}

// In a file that was edited by hand, or by a client's merge.
TEST_F(BoundedStore, MemberUnderAnotherKeyIsNotRecordedTwice) {
  const std::string record = "[" + std::string(kRecord) + "]\n";
  MemoryPersister persister({}, record + "1=A\nB=C\n");
  SettingsManager store(&persister, nullptr, nullptr, false);
  store.OverwriteSettings(Names{"A", "C"}, IniFile());
  EXPECT_EQ(UserSettingsOf(store), record + "1=A\nB=C\n");
  store.MergeSettings(DocumentOf(record + "1=D\n2=E\n"), 0);
  store.OverwriteSettings(Names{"A", "B", "D", "E"}, IniFile());
  EXPECT_EQ(UserSettingsOf(store), record + "1=D\n2=E\nA=A\nB=C\nB~=B\n");
}

}  // namespace tavix::test
