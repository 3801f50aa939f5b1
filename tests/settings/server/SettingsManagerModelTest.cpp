#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/RefusedChange.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tavix/settings/server/StoreAccount.h"
#include "tavix/settings/server/StoreAmendment.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/RecordingCallback.h"
#include "tests/support/Seeds.h"
#include "tests/support/StoreModel.h"

// The store against the plainest model of it, a map of maps for each layer, under thousands of random operations.

namespace {

using tavix::core::IniFile;
using tavix::settings::Amendment;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::ChangeOrigin;
using tavix::settings::server::ChangeTicket;
using tavix::settings::server::RefusedChange;
using tavix::settings::server::SettingsManager;
using tavix::settings::server::StoreAccount;
using tavix::settings::server::StoreAmendment;
using tavix::test::AllSettingsOf;
using tavix::test::Change;
using tavix::test::ChooseSeeds;
using tavix::test::MemoryPersister;
using tavix::test::MemoryRestrictedLoader;
using tavix::test::RandomDocuments;
using tavix::test::RecordingCallback;
using tavix::test::Seeds;
using tavix::test::StoreModel;
using tavix::test::TextOf;
using tavix::test::UserSettingsOf;

using Names = StoreModel::Names;
using Groups = StoreModel::Groups;

constexpr const char* kRecord = StoreModel::kRecord;

std::string Text(const Groups& groups) {
  return StoreModel::TextOf(groups);
}

size_t CountBytes(const Groups& groups) {
  return StoreAccount::Count(IniFile(groups));
}

size_t CountKeys(const Groups& groups) {
  size_t keys = 0;
  for (const auto& group : groups) keys += group.second.size();
  return keys;
}

Groups WithoutValues(Groups groups) {
  for (auto& group : groups) {
    for (auto& setting : group.second) setting.second.clear();
  }
  return groups;
}

std::string OneOf(RandomDocuments& random, const std::vector<std::string>& choice) {
  return choice[random.Below(choice.size())];
}

Names RandomNames(RandomDocuments& random) {
  Names names;
  for (size_t count = random.Below(4); count > 0; --count) {
    names.insert(OneOf(random, {"A", "Audio", "Net", "Net/Eth0", "Net/Wlan0", "Secure/K", "xTrusted", "None", "A*",
                                "Net*", "Net/*", "*0", "Secure*", "N*t", "*/*", "T*"}));
  }
  if (random.Below(40) == 0) names.insert("*");
  return names;
}

Groups RandomGroups(RandomDocuments& random) {
  Groups groups;
  for (size_t count = random.Below(4); count > 0; --count) {
    auto& keys = groups[OneOf(random, {"A", "Audio", "Net", "Net/Eth0", "Net/Wlan0", "Secure/K", "xTrusted"})];
    for (size_t left = random.Below(3); left > 0; --left)
      keys[OneOf(random, {"x", "y", "z"})] = OneOf(random, {"0", "1"});
  }
  if (random.Below(20) == 0) groups[kRecord][OneOf(random, {"A", "x"})] = OneOf(random, {"A", "Audio", "Net*"});
  return groups;
}

// What readers see or don't see, mostly, so that the conditions hold now and then.
StoreModel::Amendment RandomAmendment(RandomDocuments& random, const Groups& all) {
  StoreModel::Amendment amendment;
  if (random.Below(3) == 0) amendment.present = random.Below(4) == 0 ? RandomGroups(random) : all;
  if (random.Below(4) == 0) amendment.absent = RandomGroups(random);
  if (random.Below(2) == 0) amendment.set = RandomGroups(random);
  if (random.Below(2) == 0) amendment.unset = RandomGroups(random);
  if (random.Below(2) == 0) amendment.replace = RandomGroups(random);
  for (const auto& group : amendment.replace) {
    if (random.Below(20) == 0) continue;
    amendment.set.erase(group.first);
    amendment.unset.erase(group.first);
  }
  if (random.Below(4) == 0) amendment.drop = RandomGroups(random);
  if (random.Below(5) == 0) amendment.unset[OneOf(random, {"A*", "Net*", "*", "*0", "T*", "None"})];
  return amendment;
}

GroupNameMatcher MatcherOf(const Names& names) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(names);
  return matcher;
}

// Does the same to a store and to its model, and compares everything that can be seen.
class Comparison {
 public:
  Comparison(unsigned int seed, bool isWhole)
      : _random(seed),
        _isWhole(isWhole),
        _model(StoreModel::UnrestrictedOf(RandomGroups(_random)),
               {{"Secure/K", {{"key", "1"}}}, {"Net/Eth0", {{"y", "loader"}}}}),
        _persister({Text(_model.defaults)}),
        _loader(Text(_model.restricted)) {
    _persister.SetNeedsWhole(isWhole);
    Restart();
  }

  size_t CountAmended() const { return _amended; }
  size_t CountRefused() const { return _refused; }

  // The bytes that were in memory once instead of twice, summed up over all steps.
  size_t CountSavedBytes() const { return _savedBytes; }

  void Step() {
    const size_t what = _random.Below(130);
    if (what >= 100) {
      Amend();
    } else if (what < 30) {
      Merge();
    } else if (what < 50) {
      TestAndMerge();
    } else if (what < 70) {
      Overwrite();
    } else if (what < 90) {
      Restore();
    } else if (what < 95) {
      ChangeDefaults();
    } else {
      _model.Load();
      Restart();
    }
    Compare();
  }

 private:
  void Restart() {
    _store = std::make_unique<SettingsManager>(&_persister, &_loader, nullptr, false);
    _store->Subscribe(&_everything, "*");
    _store->Subscribe(&_network, std::set<std::string>{"Net", "Net/*"});
  }

  void Merge() {
    const Groups settings = RandomGroups(_random);
    const bool persist = _random.Below(3) > 0;
    _store->MergeSettings(IniFile(settings), persist ? 0 : SettingsManager::kNoPersist);
    Expect(_model.Merge(settings, persist));
  }

  void TestAndMerge() {
    const Groups test = _random.Below(2) ? _model.all : RandomGroups(_random);
    const Groups settings = RandomGroups(_random);
    const bool holds = _model.Holds(test);
    ASSERT_EQ(_store->TestAndMerge(IniFile(test), IniFile(settings)), holds);
    if (holds) Expect(_model.Merge(settings, true));
  }

  void Amend() {
    const StoreModel::Amendment amendment = RandomAmendment(_random, _model.all);
    const Amendment request{IniFile(amendment.present), IniFile(amendment.absent), IniFile(amendment.set),
                            IniFile(amendment.unset), IniFile(amendment.replace)};
    ChangeTicket ignored = 0;
    bool isAmended = false;
    const bool hasRoom = TryChange([&] {
      isAmended = amendment.drop.empty()
                      ? _store->Amend(request)
                      : _store->Amend(StoreAmendment{request, IniFile(amendment.drop)}, ChangeOrigin(), ignored);
    });
    if (!hasRoom) return;
    Change change;
    const bool isMade = _model.Amend(amendment, change);
    ASSERT_EQ(isAmended, isMade);
    if (isMade) Expect(change);
    _amended += isMade ? 1 : 0;
  }

  // Now and then there is little room. Returns whether the change was not refused.
  template <class Change>
  bool TryChange(Change change) {
    const size_t bytes = _store->GetApproximateBytes();
    if (_random.Below(3) == 0) _store->SetMaxBytes(bytes + _random.Below(500));
    bool isRefused = false;
    try {
      change();
    } catch (const RefusedChange&) {
      isRefused = true;
      EXPECT_EQ(_store->GetApproximateBytes(), bytes);
    }
    _store->SetMaxBytes(0);
    _refused += isRefused ? 1 : 0;
    return !isRefused;
  }

  void Overwrite() {
    const Names groups = RandomNames(_random);
    const Groups settings = RandomGroups(_random);
    _store->OverwriteSettings(groups, IniFile(settings));
    Expect(_model.Overwrite(groups, settings));
  }

  void Restore() {
    const Names groups = RandomNames(_random);
    _store->RestoreToDefaults(MatcherOf(groups));
    Expect(_model.Restore(groups));
  }

  void ChangeDefaults() {
    _model.defaults = StoreModel::UnrestrictedOf(RandomGroups(_random));
    _persister.SetDefaults({Text(_model.defaults)});
  }

  void Expect(const Change& change) {
    if (!change.groups.empty()) _expected.push_back(change);
    const Names network = StoreModel::MatchingOf({"Net", "Net/*"}, GroupsNamed(change.groups));
    if (!network.empty()) _expectedOfNetwork.push_back(Change{network, change.settings});
  }

  static Groups GroupsNamed(const Names& names) {
    Groups groups;
    for (const std::string& name : names) groups[name];
    return groups;
  }

  void Compare() {
    ASSERT_EQ(AllSettingsOf(*_store), Text(_model.all));
    ASSERT_EQ(UserSettingsOf(*_store), Text(_model.user));
    ASSERT_EQ(_persister.GetSaved(), Text(_model.user));
    CompareSizes();
    ASSERT_EQ(_everything.TakeChanges(), std::exchange(_expected, {}));
    ASSERT_EQ(_network.TakeChanges(), std::exchange(_expectedOfNetwork, {}));
    const Names groups = RandomNames(_random);
    IniFile read;
    _store->GetGroups(read, MatcherOf(groups));
    Groups expected;
    for (const std::string& group : StoreModel::MatchingOf(groups, _model.all)) expected[group] = _model.all[group];
    ASSERT_EQ(TextOf(read), Text(expected));
  }

  void CompareSizes() {
    const size_t bytes = CountBytes(_model.all) + CountBytes(_model.user) + CountBytes(_model.FindHiddenDefaults()) +
                         CountBytes(WithoutValues(_model.GetUnsaved())) + CountBytes(_model.FindUnrestricted());
    ASSERT_LE(_store->GetApproximateBytes(), bytes);
    _savedBytes += bytes - _store->GetApproximateBytes();
    ASSERT_TRUE(!_isWhole || _savedBytes == 0);
    Groups user = _model.user;
    user.erase(kRecord);
    ASSERT_EQ(_store->GetSizes().userGroups, user.size());
    ASSERT_EQ(_store->GetSizes().userKeys, CountKeys(user));
    ASSERT_EQ(_store->GetSizes().allKeys, CountKeys(_model.all));
  }

  RandomDocuments _random;
  const bool _isWhole;
  size_t _savedBytes = 0;
  StoreModel _model;
  MemoryPersister _persister;
  MemoryRestrictedLoader _loader;
  RecordingCallback _everything;
  RecordingCallback _network;
  std::vector<Change> _expected;
  std::vector<Change> _expectedOfNetwork;
  std::unique_ptr<SettingsManager> _store;
  size_t _amended = 0;
  size_t _refused = 0;
};

class SettingsManagerModel : public testing::TestWithParam<bool> {};

TEST_P(SettingsManagerModel, ThousandsOfOperationsAgreeWithTheModel) {
  const bool isWhole = GetParam();
  const Seeds seeds = ChooseSeeds(4);
  for (unsigned int seed = seeds.first; seed <= seeds.last; ++seed) {
    Comparison comparison(seed, isWhole);
    for (int step = 0; step < 1500; ++step) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
      comparison.Step();
      if (testing::Test::HasFatalFailure()) return;
    }
    EXPECT_GT(comparison.CountAmended(), 50u);
    EXPECT_GT(comparison.CountRefused(), 0u);
    EXPECT_EQ(comparison.CountSavedBytes() == 0, isWhole);
  }
}

INSTANTIATE_TEST_SUITE_P(WithUserSettings, SettingsManagerModel, testing::Bool(),
                         [](const auto& parameter) { return parameter.param ? "Whole" : "Shared"; });

}  // namespace
