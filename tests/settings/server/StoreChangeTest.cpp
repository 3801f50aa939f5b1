#include "tavix/settings/server/StoreChange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/LockException.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/AmendmentPlan.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tests/support/BackgroundCall.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RecordingCallback.h"

namespace {

using tavix::core::IniFile;
using tavix::osa::Exception;
using tavix::osa::LockException;
using tavix::settings::Amendment;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::AmendmentPlan;
using tavix::settings::server::ChangeNotifier;
using tavix::settings::server::ChangeRecorder;
using tavix::settings::server::ChangeRequest;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ISettingsPersister;
using tavix::settings::server::RefusedChange;
using tavix::settings::server::SettingsCombiner;
using tavix::settings::server::StoreChange;
using tavix::settings::server::StoreDocuments;
using tavix::test::BackgroundCall;
using tavix::test::DocumentOf;
using tavix::test::Eventually;
using tavix::test::RecordingCallback;
using tavix::test::TextOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;

const std::string kRecord = "Record";

template <class Document>
constexpr bool kIsReadOnly = std::is_const_v<std::remove_reference_t<Document>>;

static_assert(kIsReadOnly<decltype(std::declval<StoreDocuments&>().GetAll())>, "StoreChange alone changes documents");
static_assert(kIsReadOnly<decltype(std::declval<StoreDocuments&>().GetUser())>, "StoreChange alone changes documents");

// Remembers what it is given, in order, and whether the store was locked then.
class RecordingPersister : public ISettingsPersister {
 public:
  explicit RecordingPersister(const StoreDocuments& documents) : _documents(documents) {}

  void LoadDefaultSettings(SettingsCombiner&) override {}
  void LoadUserSettings(SettingsCombiner&) override {}
  void SaveUserSettings(const IniFile&) override {}

  ChangeTicket SaveChangedGroups(const IniFile& userSettings, const Names& changedGroups) override {
    user = TextOf(userSettings);
    saves.push_back(changedGroups);
    isLockedToSave = IsLocked();
    return changedGroups.empty() ? 0 : ++lastTicket;
  }

  ChangeTicket SaveAddedSettings(const IniFile& userSettings, const Names& changedGroups,
                                 const IniFile& addedSettings) override {
    added += TextOf(addedSettings);
    return SaveChangedGroups(userSettings, changedGroups);
  }

  ChangeTicket FindLastTicket(const GroupNameMatcher& groups) override {
    unchanged.push_back(groups.GetNames());
    isLockedToNote = IsLocked();
    if (failsToNote) throw Exception("No memory");
    return kTicketOfOthers;
  }

  static constexpr ChangeTicket kTicketOfOthers = 100;

  std::string user;
  std::string added;
  std::vector<Names> saves;
  std::vector<Names> unchanged;
  ChangeTicket lastTicket = 0;
  bool isLockedToSave = false;
  bool isLockedToNote = false;
  bool failsToNote = false;

 private:
  bool IsLocked() const {
    try {
      _documents.GetLock().ReadLock(0);
    } catch (const LockException&) {
      return true;
    }
    _documents.GetLock().Release();
    return false;
  }

  const StoreDocuments& _documents;
};

// Of a size that is looked through before the lock is taken, with none of the store's groups.
IniFile LargeDocument() {
  IniFile document;
  for (int group = 0; group < 1000; ++group) document.SetValue("G" + std::to_string(group), "k", "1");
  return document;
}

// A store's documents with the groups A and B in both, and C among the defaults.
struct StoreChangeTest : testing::Test {
  StoreChangeTest() {
    const tavix::osa::WriteAutoLock lock(documents.GetLock());
    StoreChange::ReplaceAll(documents, DocumentOf("[A]\nx=1\n[B]\nx=2\n[C]\nx=3\n"),
                            DocumentOf("[A]\nx=1\n[B]\nx=2\n"));
  }

  // Removes the groups, and records their names.
  void Overwrite(const Names& groups, const IniFile& settings) {
    GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(groups);
    ChangeRequest request;
    request.RemoveVisible(matcher, groups);
    request.MergeUnrestricted(settings);
    EXPECT_TRUE(Make(request));
  }

  bool Make(ChangeRequest& request) {
    StoreChange change(documents, &persister, notifier, request);
    const bool isMade = change.Make();
    ticket = change.GetTicket();
    return isMade;
  }

  bool Amend(const Amendment& amendment) {
    ticket = 0;
    AmendmentPlan plan(amendment);
    return StoreChange::Amend(documents, &persister, notifier, plan, {}, {}, ticket);
  }

  StoreDocuments documents{kRecord};
  RecordingPersister persister{documents};
  ChangeNotifier notifier;
  ChangeTicket ticket = 0;  // of the last change
};

TEST_F(StoreChangeTest, SavesTheGroupsThatDifferUnderTheLock) {
  const IniFile settings = DocumentOf("[A]\nx=1\n[B]\nx=9\n[Trusted]\nx=9\n");
  ChangeRequest request;
  request.MergeUnrestricted(settings);
  ASSERT_TRUE(Make(request));
  EXPECT_THAT(persister.saves, ElementsAre(Names{"B"}));
  EXPECT_TRUE(persister.isLockedToSave);
  EXPECT_EQ(persister.user, "[A]\nx=1\n[B]\nx=9\n");
  EXPECT_EQ(TextOf(documents.GetAll()), "[A]\nx=1\n[B]\nx=9\n[C]\nx=3\n");
}

TEST_F(StoreChangeTest, ReportsWhatItFoundDoneAlreadyBehindTheLock) {
  const IniFile settings = DocumentOf("[A]\nx=1\n");
  ChangeRequest request;
  request.MergeUnrestricted(settings);
  ASSERT_TRUE(Make(request));
  EXPECT_THAT(persister.saves, ElementsAre(Names{})) << "each change is saved";
  EXPECT_THAT(persister.unchanged, ElementsAre(Names{"A"}));
  EXPECT_FALSE(persister.isLockedToNote);
}

TEST_F(StoreChangeTest, NotifiesAlthoughThePersisterFailedBehindTheLock) {
  RecordingCallback callback;
  notifier.GetDispatcher().AddCallback(&callback, Names{"A"});
  persister.failsToNote = true;
  const IniFile settings = DocumentOf("[A]\nx=1\n");
  ChangeRequest request;
  request.MergeUnrestricted(settings);
  EXPECT_THROW(static_cast<void>(Make(request)), Exception);
  EXPECT_EQ(callback.GetChanges().size(), 1u);
}

TEST_F(StoreChangeTest, HasTheTicketOfItsSaveOrOfTheOthersThatItReliesOn) {
  Overwrite({"B"}, DocumentOf("[B]\nx=7\n"));
  EXPECT_EQ(ticket, 1u);
  Overwrite({"A"}, DocumentOf("[A]\nx=7\n"));
  EXPECT_EQ(ticket, 2u);
  Overwrite({"A"}, DocumentOf("[A]\nx=7\n"));
  EXPECT_EQ(ticket, RecordingPersister::kTicketOfOthers);
}

TEST_F(StoreChangeTest, HasNoTicketWhenItIsNotSaved) {
  const IniFile settings = DocumentOf("[A]\nx=7\n");
  ChangeRequest request;
  request.Merge(settings);
  request.KeepUserSettings();
  ASSERT_TRUE(Make(request));
  EXPECT_EQ(ticket, 0u);
}

TEST_F(StoreChangeTest, SavesGroupsOfTheDefaultsThatGoByTheRecordAlone) {
  Overwrite({"B", "C"}, DocumentOf("[B]\nx=2\n"));
  EXPECT_THAT(persister.saves, ElementsAre(Names{"B", "C"}));
  EXPECT_EQ(persister.added, "[" + kRecord + "]\nB=B\nC=C\n");
  EXPECT_EQ(TextOf(documents.GetAll()), "[A]\nx=1\n[B]\nx=2\n");
}

TEST_F(StoreChangeTest, ReportsAnOverwriteThatWasMadeBeforeWithItsRecord) {
  Overwrite({"B"}, DocumentOf("[B]\nx=7\n"));
  Overwrite({"B"}, DocumentOf("[B]\nx=7\n"));
  EXPECT_THAT(persister.saves, ElementsAre(Names{"B"}, Names{}));
  EXPECT_THAT(persister.unchanged, ElementsAre(Names{"B", kRecord}));
}

TEST_F(StoreChangeTest, KeepsUserSettingsWhenAsked) {
  const IniFile settings = DocumentOf("[A]\nx=7\n");
  ChangeRequest request;
  request.Merge(settings);
  request.KeepUserSettings();
  ASSERT_TRUE(Make(request));
  EXPECT_EQ(documents.GetAll().GetValueOrDefault("A", "x"), "7");
  EXPECT_EQ(documents.GetUser().GetGroups().GetValueOrDefault("A", "x"), "1");
  EXPECT_THAT(persister.saves, IsEmpty());
  EXPECT_THAT(persister.unchanged, IsEmpty());
}

TEST_F(StoreChangeTest, GivesTheStoreANewVersionAndReadersInPartsTheNames) {
  ChangeRecorder recorder(documents.GetRecorders());
  const auto before = documents.GetVersion();
  Overwrite({"B"}, DocumentOf("[New]\n"));
  EXPECT_NE(documents.GetVersion(), before);
  EXPECT_THAT(recorder.Take(), ElementsAre("B", "New", kRecord));
}

TEST_F(StoreChangeTest, ThatIsRefusedOrWhoseTestFailsLeavesTheVersionAndSavesNothing) {
  const auto before = documents.GetVersion();
  documents.SetMaxBytes(1);
  const IniFile settings = DocumentOf("[New]\nx=1\n");
  ChangeRequest refused;
  refused.Merge(settings);
  EXPECT_THROW(static_cast<void>(Make(refused)), RefusedChange);
  const IniFile test = DocumentOf("[A]\nx=9\n");
  ChangeRequest failing;
  failing.SetTest(test);
  failing.Merge(settings);
  EXPECT_FALSE(Make(failing));
  EXPECT_EQ(documents.GetVersion(), before);
  EXPECT_THAT(persister.saves, IsEmpty());
}

// However little the documents held before, they would hold it all.
TEST_F(StoreChangeTest, IsRefusedBeforeItIsPlannedWhenItIsLargerThanTheStoreMayBe) {
  const IniFile settings = DocumentOf("[A]\nx=" + std::string(20'000, 'v') + "\n");
  documents.SetMaxBytes(2 * 20'000);
  ChangeRequest request;
  request.Merge(settings);
  EXPECT_THROW(static_cast<void>(request.Prepare(documents)), RefusedChange);
  ChangeRequest forReaders;
  forReaders.Merge(settings);
  forReaders.KeepUserSettings();
  EXPECT_TRUE(forReaders.Prepare(documents));
}

TEST_F(StoreChangeTest, NotifiesOfRemovedAndOfSetGroupsWithoutTheLock) {
  bool isLocked = true;
  RecordingCallback callback([&] {
    documents.GetLock().WriteLock(0);
    documents.GetLock().Release();
    isLocked = false;
  });
  notifier.GetDispatcher().AddCallback(&callback, Names{"*"});
  Overwrite({"B"}, DocumentOf("[New]\nx=1\n"));
  EXPECT_FALSE(isLocked);
  ASSERT_EQ(callback.GetChanges().size(), 1u);
  EXPECT_THAT(callback.GetChanges()[0].groups, ElementsAre("B", "New"));
}

TEST_F(StoreChangeTest, IsRefusedInACallbackBeforeAnythingIsLockedOrChanged) {
  const IniFile settings = DocumentOf("[A]\nx=9\n");
  RecordingCallback callback([&] {
    ChangeRequest request;
    request.Merge(settings);
    static_cast<void>(Make(request));
  });
  notifier.GetDispatcher().AddCallback(&callback, Names{"B"});
  EXPECT_THROW(Overwrite({"B"}, IniFile()), Exception);
  EXPECT_EQ(documents.GetAll().GetValueOrDefault("A", "x"), "1");
}

TEST_F(StoreChangeTest, OfAnAmendmentSavesTheGroupsThatDifferOrAreSeenDifferently) {
  Amendment amendment;
  amendment.set = DocumentOf("[A]\nx=1\n[D]\nx=5\n");
  amendment.replace = DocumentOf("[C]\n");
  ASSERT_TRUE(Amend(amendment));
  EXPECT_THAT(persister.saves, ElementsAre(Names{"C", "D"}));
  EXPECT_EQ(persister.added, "[" + kRecord + "]\nC=C\n");
  EXPECT_TRUE(persister.isLockedToSave);
  EXPECT_EQ(ticket, 1u);
}

TEST_F(StoreChangeTest, OfAnAmendmentSavesTheWholeRecordWhenAMemberLeaves) {
  Overwrite({"A", "C"}, IniFile());
  persister.saves.clear();
  persister.added.clear();
  Amendment amendment;
  amendment.unset = DocumentOf("[C]\n");
  ASSERT_TRUE(Amend(amendment));
  EXPECT_THAT(persister.saves, ElementsAre(Names{"C", kRecord}));
  EXPECT_EQ(persister.added, "");
  EXPECT_EQ(TextOf(documents.GetAll()), "[B]\nx=2\n[C]\nx=3\n");
}

TEST_F(StoreChangeTest, OfAnAmendmentThatWasMadeBeforeHasTheTicketOfOthers) {
  Amendment amendment;
  amendment.set = DocumentOf("[A]\nx=1\n");
  amendment.unset = DocumentOf("[B]\ny=\n");
  ASSERT_TRUE(Amend(amendment));
  EXPECT_THAT(persister.saves, ElementsAre(Names{})) << "each change is saved";
  EXPECT_THAT(persister.unchanged, ElementsAre(Names{"A", "B", kRecord}));
  EXPECT_FALSE(persister.isLockedToNote);
  EXPECT_EQ(ticket, RecordingPersister::kTicketOfOthers);
}

TEST_F(StoreChangeTest, OfAnAmendmentGivesTheStoreANewVersionAndReadersInPartsTheNames) {
  ChangeRecorder recorder(documents.GetRecorders());
  const auto before = documents.GetVersion();
  Amendment amendment;
  amendment.unset = DocumentOf("[B]\nx=\n");
  ASSERT_TRUE(Amend(amendment));
  EXPECT_NE(documents.GetVersion(), before);
  EXPECT_THAT(recorder.Take(), ElementsAre("B", kRecord));
}

TEST_F(StoreChangeTest, OfAnAmendmentThatFailsHasNoTicketAndSavesNothing) {
  const auto before = documents.GetVersion();
  Amendment amendment;
  amendment.present = DocumentOf("[A]\nx=9\n");
  amendment.set = DocumentOf("[A]\nx=5\n");
  EXPECT_FALSE(Amend(amendment));
  EXPECT_EQ(ticket, 0u);
  EXPECT_EQ(documents.GetVersion(), before);
  EXPECT_THAT(persister.saves, IsEmpty());
}

// Nobody waits for the long comparison: the write lock is not taken for a condition that does not hold.
TEST_F(StoreChangeTest, OfAnAmendmentWithALargeConditionIsGivenUpWhileOthersRead) {
  Amendment present;
  present.present = LargeDocument();
  Amendment absent;
  absent.absent = LargeDocument();
  absent.absent["A"];
  for (const Amendment* amendment : {&present, &absent}) {
    std::optional<BackgroundCall> amend;
    const tavix::osa::ReadAutoLock lock(documents.GetLock());
    amend.emplace([&] { EXPECT_FALSE(Amend(*amendment)); });
    EXPECT_TRUE(Eventually([&] { return amend->HasEnded(); }));
  }
}

TEST_F(StoreChangeTest, OfAnAmendmentTestsLargeConditionsAgainWhereOthersChangedSomething) {
  for (const bool isKept : {true, false}) {
    Amendment amendment;
    amendment.absent = LargeDocument();
    AmendmentPlan plan(amendment);
    ASSERT_TRUE(plan.MakeEarly(documents));
    Overwrite({"Z"}, DocumentOf(isKept ? "[Z]\nx=1\n" : "[G1]\nk=1\n"));
    const tavix::osa::WriteAutoLock lock(documents.GetLock());
    EXPECT_EQ(plan.Make(documents), isKept);
  }
}

TEST_F(StoreChangeTest, OfACallerWithTheLockNotifiesNobody) {
  RecordingCallback callback;
  notifier.GetDispatcher().AddCallback(&callback, Names{"*"});
  const IniFile settings = DocumentOf("[A]\nx=9\n");
  ChangeRequest request;
  request.Merge(settings);
  {
    const tavix::osa::WriteAutoLock lock(documents.GetLock());
    StoreChange(documents, &persister, notifier, request).MakeLocked();
  }
  EXPECT_THAT(persister.saves, ElementsAre(Names{"A"}));
  EXPECT_THAT(callback.GetChanges(), IsEmpty());
}

}  // namespace
