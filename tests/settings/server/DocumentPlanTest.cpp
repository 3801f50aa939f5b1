#include "tavix/settings/server/DocumentPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/ISettingsPersister.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreChange.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/SharedUserSettings.h"

// Plans that are carried out, by StoreChange, on documents that others changed after they were made.

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ChangeNotifier;
using tavix::settings::server::ChangeRequest;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::ISettingsPersister;
using tavix::settings::server::SettingsCombiner;
using tavix::settings::server::StoreAccount;
using tavix::settings::server::StoreChange;
using tavix::settings::server::StoreDocuments;
using tavix::test::DocumentOf;
using tavix::test::RandomDocuments;
using tavix::test::SharedUserSettings;
using tavix::test::ShareEqualGroups;
using tavix::test::TextOf;

using Names = std::set<std::string>;

const std::string kRecord = "Record";

class LastSave : public ISettingsPersister {
 public:
  void LoadDefaultSettings(SettingsCombiner&) override {}
  void LoadUserSettings(SettingsCombiner&) override {}
  void SaveUserSettings(const IniFile&) override {}
  ChangeTicket SaveChangedGroups(const IniFile&, const Names& changedGroups) override {
    groups = changedGroups;
    return 0;
  }

  Names groups;
};

// Groups "0" to "399", each with some of three keys, and many more keys in some.
IniFile RandomGroups(RandomDocuments& random, size_t count) {
  IniFile document;
  for (size_t left = count; left > 0; --left) {
    IniFile::KeyMap& keys = document[std::to_string(random.Below(400))];
    for (size_t key = random.Below(3); key > 0; --key)
      keys["k" + std::to_string(random.Below(3))] = "01"[random.Below(2)];
    for (size_t key = random.Below(20) == 0 ? 30 : 0; key > 0; --key) keys["many " + std::to_string(key)] = "value";
  }
  return document;
}

// A store's documents, and plain ones that are changed alike.
struct DocumentPlanTest : testing::Test {
  // The user settings are a part of all.
  void Fill(RandomDocuments& random) {
    user = RandomGroups(random, random.Below(500));
    all = RandomGroups(random, random.Below(500));
    all.MergeSettings(user);
    const tavix::osa::WriteAutoLock lock(documents.GetLock());
    SharedUserSettings shared{user, {}};
    if (random.Below(2) == 0) shared = ShareEqualGroups(all, user);
    StoreChange::ReplaceAll(documents, all, std::move(shared.settings), {}, std::move(shared.shared));
  }

  void Change(IniFile& document, const Names& removed, const IniFile& settings) {
    for (const std::string& group : removed) document.RemoveGroup(group);
    document.MergeSettings(settings);
  }

  // What another client changes in one go.
  void ChangeByOther(const IniFile& settings, const GroupNameMatcher& removedMatcher) {
    static const Names noMembers;
    Names removed;
    removedMatcher.GetMatchingGroups(all, removed);
    Change(all, removed, settings);
    Change(user, removed, settings);
    ChangeRequest request;
    request.RemoveVisible(removedMatcher, noMembers);
    request.Merge(settings);
    ASSERT_TRUE(StoreChange(documents, nullptr, notifier, request).Make());
  }

  void ExpectTheDocuments() {
    const tavix::osa::ReadAutoLock lock(documents.GetLock());
    EXPECT_EQ(TextOf(documents.GetAll()), TextOf(all));
    EXPECT_EQ(TextOf(documents.GetUser()), TextOf(user));
    EXPECT_EQ(documents.GetAccount().GetBytes(), StoreAccount::Count(all) +
                                                     StoreAccount::Count(documents.GetUser().GetGroups()) +
                                                     StoreAccount::Count(documents.GetHidden().defaults));
    StoreAccount counted;
    counted.CountAnew(all, user);
    EXPECT_EQ(documents.GetAccount().GetAllTally().CountKeys(), counted.GetAllTally().CountKeys());
    EXPECT_EQ(documents.GetAccount().GetUserTally().CountKeys() + documents.GetUser().CountSharedKeys(),
              counted.GetUserTally().CountKeys());
    EXPECT_EQ(documents.GetAccount().GetAllTally().CountNameBytes(), counted.GetAllTally().CountNameBytes());
  }

  StoreDocuments documents{kRecord};
  LastSave save;
  ChangeNotifier notifier;
  IniFile all;
  IniFile user;
};

Names DifferenceOf(const IniFile& one, const IniFile& other) {
  Names names;
  for (const auto& [name, keys] : one) {
    const auto group = other.GetGroups().find(name);
    if (group == other.GetGroups().end() || group->second != keys) names.insert(name);
  }
  for (const auto& group : other) {
    if (!one.HasGroup(group.first)) names.insert(group.first);
  }
  return names;
}

TEST_F(DocumentPlanTest, IsCarriedOutAsIfAllWereDoneAtOnceWhateverOthersChangeInBetween) {
  RandomDocuments random(11);
  for (int step = 0; step < 200; ++step) {
    Fill(random);
    const IniFile settings = RandomGroups(random, random.Below(3) == 0 ? 2 : 200);
    GroupNameMatcher matcher;
    if (random.Below(4) != 0) matcher.AddNameOrPattern(random.Below(3) ? std::to_string(random.Below(40)) + "*" : "*");
    GroupNameMatcher others;
    if (random.Below(2)) others.AddNameOrPattern(random.Below(3) ? std::to_string(random.Below(40)) + "*" : "*3*");

    ChangeRequest request;
    request.RemoveUser(matcher);
    request.Merge(settings);
    ASSERT_TRUE(request.Prepare(documents));
    for (size_t changes = random.Below(3); changes > 0; --changes)
      ChangeByOther(RandomGroups(random, random.Below(3) ? random.Below(10) : 150), others);

    const IniFile before = user;
    Names removed;
    matcher.GetMatchingGroups(user, removed);
    Change(all, removed, settings);
    Change(user, removed, settings);
    {
      const tavix::osa::WriteAutoLock lock(documents.GetLock());
      StoreChange(documents, &save, notifier, request).MakeLocked();
    }
    ExpectTheDocuments();
    EXPECT_EQ(save.groups, DifferenceOf(before, user));
    ASSERT_FALSE(HasFailure()) << "step " << step;
  }
}

TEST_F(DocumentPlanTest, SavesEachRemovedGroupWithTheRecordButNoneWhenNothingDiffers) {
  IniFile groups;
  for (int group = 0; group < 200; ++group) groups.SetInt(std::to_string(group), "key", group);
  all = groups;
  user = groups;
  user.RemoveGroup("7");
  {
    const tavix::osa::WriteAutoLock lock(documents.GetLock());
    StoreChange::ReplaceAll(documents, all, user);
  }
  const Names members{"*"};
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(members);
  IniFile settings = groups;
  settings.RemoveGroup("7");
  for (const bool isFirst : {true, false}) {
    ChangeRequest request;
    request.RemoveVisible(matcher, members);
    request.Merge(settings);
    ASSERT_TRUE(StoreChange(documents, &save, notifier, request).Make());
    Names expected;
    for (const auto& group : groups) expected.insert(group.first);
    expected.insert(kRecord);
    EXPECT_EQ(save.groups, isFirst ? expected : Names{});
  }
}

}  // namespace
