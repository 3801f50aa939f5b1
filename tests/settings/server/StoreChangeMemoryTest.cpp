#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/AmendmentPlan.h"
#include "tavix/settings/server/ChangeNotifier.h"
#include "tavix/settings/server/ChangeRequest.h"
#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreAmendment.h"
#include "tavix/settings/server/StoreChange.h"
#include "tavix/settings/server/StoreDocuments.h"
#include "tests/support/DocumentText.h"
#include "tests/support/RefusedAllocation.h"
#include "tests/support/SharedUserSettings.h"
#include "tests/support/StoreOutcome.h"

// Changes of a store whose memory runs out at any moment: they are made altogether, or not at all.

namespace tavix::test {

using core::IniFile;
using settings::common::GroupNameMatcher;
using settings::server::AmendmentPlan;
using settings::server::ChangeNotifier;
using settings::server::ChangeRequest;
using settings::server::ChangeTicket;
using settings::server::LayerView;
using settings::server::StoreAccount;
using settings::server::StoreAmendment;
using settings::server::StoreChange;
using settings::server::StoreDocuments;
using testing::IsEmpty;

namespace {

using Names = std::set<std::string>;

constexpr char kRecord[] = "Record";
const std::string kLong = "a value that is longer than a string holds in itself";

// A store of its own, for one change.
class SmallStore {
 public:
  using Fill = std::function<void(ChangeRequest&)>;

  // isShared: groups that readers see as the user settings have them are in memory once.
  explicit SmallStore(bool isShared, const std::string& value = kLong) {
    const IniFile all = DocumentOf("[A]\nx=1\ny=" + value + "\n[B]\nx=2\n[Default]\nx=3\n[Default 2]\nx=4\n");
    const IniFile user = DocumentOf("[A]\nx=1\ny=" + value + "\n[B]\nx=2\n[" + kRecord + "]\n1=D*\n2=" + kLong + "\n");
    SharedUserSettings shared;
    if (isShared) shared = ShareEqualGroups(all, user);
    const osa::WriteAutoLock lock(_documents.GetLock());
    StoreChange::ReplaceAll(
        _documents, all, isShared ? std::move(shared.settings) : user,
        {DocumentOf("[B]\nx=" + kLong + "\n[Default 3]\nx=" + kLong + "\n"), DocumentOf("[Default]\nx=\n"), {}},
        std::move(shared.shared));
    _notifier.GetDispatcher().AddCallback(&_callback, Names{"A", "B*", "*a*", "*New*"});
  }

  // Returns whether the change was made.
  bool Change(const Fill& fill, long refused, bool areAllBehindIt) {
    const RefusedAllocation allocation(refused, areAllBehindIt);
    try {
      ChangeRequest request;
      fill(request);
      return StoreChange(_documents, &_persister, _notifier, request).Make();
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  bool Amend(const StoreAmendment& amendment, long refused, bool areAllBehindIt) {
    const RefusedAllocation allocation(refused, areAllBehindIt);
    try {
      ChangeTicket ticket = 0;
      AmendmentPlan plan(amendment, amendment.drop);
      return StoreChange::Amend(_documents, &_persister, _notifier, plan, {}, {}, ticket);
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  // The same under the lock, behind what others do once the change is planned. Only the change is refused memory.
  bool ChangeLate(const Fill& fill, const Fill& fillOther, long refused) {
    ChangeRequest request;
    fill(request);
    EXPECT_TRUE(request.Prepare(_documents));
    ChangeRequest other;
    fillOther(other);
    EXPECT_TRUE(StoreChange(_documents, nullptr, _notifier, other).Make());
    const osa::WriteAutoLock lock(_documents.GetLock());
    const RefusedAllocation allocation(refused, false);
    try {
      StoreChange(_documents, &_persister, _notifier, request).MakeLocked();
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  // How many bytes the amendment takes under the lock, of which it was planned before, until it is carried out.
  long CountBytesUnderLock(const StoreAmendment& amendment) {
    AmendmentPlan plan(amendment, amendment.drop);
    ChangeTicket ticket = 0;
    long before = 0;
    long after = 0;
    _persister.onPrepared = [&] { after = RefusedAllocation::CountLiveBytes(); };
    const auto choose = [&](const LayerView&) {
      before = RefusedAllocation::CountLiveBytes();
      return &plan;
    };
    EXPECT_TRUE(StoreChange::Amend(_documents, &_persister, _notifier, plan, choose, {}, ticket));
    return after - before;
  }

  // leavesMore: a change that is not made may do so.
  StoreOutcome GetOutcome(bool leavesMore = false) const {
    const osa::ReadAutoLock lock(_documents.GetLock());
    const auto& hidden = _documents.GetHidden();
    const size_t bytes = StoreAccount::Count(_documents.GetAll()) +
                         StoreAccount::Count(_documents.GetUser().GetGroups()) + StoreAccount::Count(hidden.defaults) +
                         StoreAccount::Count(hidden.unsaved);
    EXPECT_EQ(_documents.GetAccount().GetBytes(), bytes);
    StoreAccount counted;
    const IniFile user = LayerView(_documents.GetUser()).Copy();
    counted.CountAnew(_documents.GetAll(), user, hidden);
    EXPECT_EQ(_documents.GetAccount().GetUserTally().CountKeys() + _documents.GetUser().CountSharedKeys(),
              counted.GetUserTally().CountKeys());
    EXPECT_EQ(_documents.GetAccount().GetAllTally().CountNameBytes(), counted.GetAllTally().CountNameBytes());
    return {TextOf(_documents.GetAll()), TextOf(user), leavesMore ? 0 : bytes, _callback.Get(), _persister.saves};
  }

  unsigned long long GetVersion() const { return _documents.GetVersion(); }

 private:
  StoreDocuments _documents{kRecord};
  CallCountingPersister _persister;
  ChangeNotifier _notifier;
  SeenGroups _callback{{"A", "B", "Default", "Default 2", "New group of a name that is long"}};
};

struct Case {
  const char* name;
  SmallStore::Fill fill;
};

GroupNameMatcher MatcherOf(const Names& groups) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  return matcher;
}

const IniFile kSettings = DocumentOf("[A]\nx=1\ny=" + kLong + kLong + "\nz=" + kLong +
                                     "\n[B]\nx=2\n[New group of a name that is long]\nk=" + kLong + "\n");
const IniFile kLarge = DocumentOf("[A]\nz=" + std::string(20'000, 'v') + "\n[New group of a name that is long]\nk=1\n");
const IniFile kHeld = DocumentOf("[A]\nx=1\n[B]\nx=2\n");
const IniFile kWithRecord =
    DocumentOf(std::string("[A]\nx=9\n[") + kRecord + "]\n2=" + kLong + "*\n3=" + kLong + "\nA=A\n");
const Names kMembers{"A", "Default*", kLong, "1", "2"};
const Names kFewMembers{"A", "B", "1", kLong, "Default"};
const GroupNameMatcher kMatcher = MatcherOf(kMembers);
const GroupNameMatcher kFewMatcher = MatcherOf(kFewMembers);
const GroupNameMatcher kAll = MatcherOf({"*"});

void MergeSettings(ChangeRequest& request) {
  request.MergeUnrestricted(kSettings);
}

const std::vector<Case> kCases{
    {"Merge", MergeSettings},
    {"MergeIntoWhatReadersSeeAlone",
     [](ChangeRequest& request) {
       request.Merge(kSettings);
       request.KeepUserSettings();
     }},
    {"MergeOfALargeValue", [](ChangeRequest& request) { request.Merge(kLarge); }},
    {"MergeOfWhatIsThere", [](ChangeRequest& request) { request.Merge(kHeld); }},
    {"MergeIntoTheRecord", [](ChangeRequest& request) { request.Merge(kWithRecord); }},
    {"TestAndMerge",
     [](ChangeRequest& request) {
       request.SetTest(kHeld);
       request.Merge(kSettings);
     }},
    {"OverwriteOfNames",
     [](ChangeRequest& request) {
       request.RemoveVisible(kFewMatcher, kFewMembers);
       request.Merge(kSettings);
     }},
    {"OverwriteOfPatterns",
     [](ChangeRequest& request) {
       request.RemoveVisible(kMatcher, kMembers);
       request.Merge(kSettings);
     }},
    {"OverwriteWithARecord",
     [](ChangeRequest& request) {
       request.RemoveVisible(kFewMatcher, kFewMembers);
       request.Merge(kWithRecord);
     }},
    {"RestoreOfAll",
     [](ChangeRequest& request) {
       request.RemoveUser(kAll);
       request.Merge(kSettings);
     }},
};

class StoreWithoutMemory : public testing::TestWithParam<std::tuple<Case, bool>> {
 protected:
  static const SmallStore::Fill& GetFill() { return std::get<0>(GetParam()).fill; }
  static bool IsShared() { return std::get<1>(GetParam()); }

  // Refuses each allocation of the change in turn. What is left is all of the change, or nothing.
  static void ExpectAllOrNothing(bool areAllBehindIt) {
    const StoreOutcome before = SmallStore(IsShared()).GetOutcome(IsShared());
    SmallStore model(IsShared());
    ASSERT_TRUE(model.Change(GetFill(), -1, false));
    const StoreOutcome after = model.GetOutcome(IsShared());
    ASSERT_THAT(after.notified, testing::Not(IsEmpty()));
    bool isRefused = true;
    for (long refused = 0; isRefused; ++refused) {
      SCOPED_TRACE(refused);
      ASSERT_LT(refused, 10'000);
      SmallStore store(IsShared());
      const auto version = store.GetVersion();
      const bool isMade = store.Change(GetFill(), refused, areAllBehindIt);
      isRefused = RefusedAllocation::WasRefused();
      ASSERT_EQ(store.GetOutcome(IsShared()), isMade ? after : before);
      ASSERT_EQ(store.GetVersion() != version, isMade);
      ASSERT_TRUE(isMade || isRefused);
    }
  }
};

}  // namespace

TEST_P(StoreWithoutMemory, MakesAllOfAChangeAndNotifiesOfItOrDoesNothing) {
  ExpectAllOrNothing(false);
}

TEST_P(StoreWithoutMemory, MakesAllOfAChangeAndNotifiesOfItOrDoesNothingWhenNoMemoryComesBack) {
  ExpectAllOrNothing(true);
}

// Groups that others changed are done again, and survive an exchange of the whole document.
TEST_P(StoreWithoutMemory, MakesAllOrNothingOfAChangeThatOthersWereFasterThan) {
  const IniFile otherSettings = DocumentOf("[A]\nother=1\n[Default]\nx=other\n[Late]\nk=1\n");
  const auto fillOther = [&](ChangeRequest& request) { request.Merge(otherSettings); };
  SmallStore model(IsShared());
  ASSERT_TRUE(model.ChangeLate(GetFill(), fillOther, -1));
  SmallStore first(IsShared());
  ASSERT_FALSE(first.ChangeLate(GetFill(), fillOther, 0));
  bool isRefused = true;
  for (long refused = 0; isRefused; ++refused) {
    SCOPED_TRACE(refused);
    ASSERT_LT(refused, 10'000);
    SmallStore store(IsShared());
    const bool isMade = store.ChangeLate(GetFill(), fillOther, refused);
    isRefused = RefusedAllocation::WasRefused();
    ASSERT_EQ(store.GetOutcome(IsShared()), (isMade ? model : first).GetOutcome(IsShared()));
  }
}

struct AmendmentCase {
  const char* name;
  StoreAmendment amendment;
};

class AmendedStoreWithoutMemory : public testing::TestWithParam<std::tuple<AmendmentCase, bool>> {};

TEST_P(AmendedStoreWithoutMemory, MakesAllOfAnAmendmentAndNotifiesOfItOrDoesNothing) {
  const auto& [theCase, isShared] = GetParam();
  SmallStore model(isShared);
  ASSERT_TRUE(model.Amend(theCase.amendment, -1, false));
  const StoreOutcome before = SmallStore(isShared).GetOutcome();
  const StoreOutcome after = model.GetOutcome();
  ASSERT_THAT(after.notified, testing::IsSupersetOf({"A", "B"}));
  for (const bool areAllBehindIt : {false, true}) {
    bool isRefused = true;
    for (long refused = 0; isRefused; ++refused) {
      SmallStore store(isShared);
      const bool isMade = store.Amend(theCase.amendment, refused, areAllBehindIt);
      isRefused = RefusedAllocation::WasRefused();
      ASSERT_EQ(store.GetOutcome(), isMade ? after : before) << refused;
    }
  }
}

// What leaves is not copied before.
TEST(DroppedGroups, TakeNoMemoryUnderTheLock) {
  for (const bool isShared : {false, true}) {
    SmallStore store(isShared, std::string(1'000'000, 'v'));
    StoreAmendment amendment;
    amendment.drop = DocumentOf("[A]\n[B]\n");
    for (int i = 0; i < 100; ++i) amendment.drop["None/" + std::to_string(i)];  // long: it is planned before
    EXPECT_LT(store.CountBytesUnderLock(amendment), 100'000);
  }
}

namespace {

StoreAmendment AmendmentOf(const std::string& set, const std::string& unset, const std::string& replace = {},
                           const std::string& drop = {}) {
  return {{{}, {}, DocumentOf(set), DocumentOf(unset), DocumentOf(replace)}, DocumentOf(drop)};
}

const std::vector<AmendmentCase> kAmendments{
    {"OfEachLayerAndOfTheRecord",
     AmendmentOf("[Default 2]\nx=" + kLong + "\n[New group of a name that is long]\nk=" + kLong + "\n",
                 "[A]\ny=\n[B]\n[D*]\n[Default]\nx=\n", "[C]\nx=" + kLong + "\n")},
    {"OfBothLayersAlike", AmendmentOf("[A]\nz=" + kLong + "\n[B]\nx=" + kLong + "\n", "[A]\nx=\n")},
    {"ThatShowsADefault", AmendmentOf("[A]\nx=9\n[B]\nz=" + kLong + "\n", "[B]\nx=\n")},
    {"OfGroupsThatLeave", AmendmentOf({}, {}, {}, "[A]\n[B]\n")},
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Changes, StoreWithoutMemory, testing::Combine(testing::ValuesIn(kCases), testing::Bool()),
                         [](const auto& parameter) {
                           const bool isShared = std::get<1>(parameter.param);
                           return std::string(std::get<0>(parameter.param).name) + (isShared ? "IntoSharedGroups" : "");
                         });
INSTANTIATE_TEST_SUITE_P(Amendments, AmendedStoreWithoutMemory,
                         testing::Combine(testing::ValuesIn(kAmendments), testing::Bool()), [](const auto& parameter) {
                           const bool isShared = std::get<1>(parameter.param);
                           return std::string(std::get<0>(parameter.param).name) + (isShared ? "OfSharedGroups" : "");
                         });

}  // namespace tavix::test
