#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tests/programs/server/trials/TrialModel.h"
#include "tests/programs/server/trials/TriedStore.h"
#include "tests/support/RandomDocument.h"

// Trials of random changes against the plainest model: a revert leaves exactly the user settings that the model has,
// the record of deleted groups included.

namespace tavix::test {

namespace {

using Groups = TrialModel::Groups;
using Names = TrialModel::Names;
using settings::server::SettingsManager;

const std::string kRecord = StoreModel::kRecord;
const std::vector<std::string> kGroups{"A", "A*", "B", "C/1", "C/2"};
const std::vector<std::string> kKeys{"", "x", "y"};
const std::vector<std::string> kAsked{"A", "A*", "B", "C/1", "C/*", "*", "None", "TavixSettings/*"};

constexpr char kDefaults[] = "[A]\nx=d\n[B]\nd=d\n[C/1]\n";
constexpr char kUser[] = "[A]\nx=1\n[B]\n[C/2]\ny=1\n[TavixSettings/Data/DeletedGroups]\nC/*=C/*\nx=B\n";

// Each setting that a change below may write.
std::set<TrialModel::Name> AllNames() {
  std::set<TrialModel::Name> names;
  for (const std::string& group : kGroups) {
    names.emplace(group, std::nullopt);
    for (const char* key : {"", "d", "x", "y"}) names.emplace(group, key);
  }
  for (const std::vector<std::string>& keys : {kGroups, kAsked, kKeys}) {
    for (const std::string& key : keys) {
      for (const char* suffix : {"", "~", "~~"}) names.emplace(kRecord, key + suffix);
    }
  }
  return names;
}

// A record without members is none.
Groups WithoutEmptyRecord(Groups user) {
  const auto record = user.find(kRecord);
  if (record != user.end() && record->second.empty()) user.erase(record);
  return user;
}

class Comparison {
 public:
  explicit Comparison(unsigned int seed) : _random(seed) {}

  size_t CountReverted() const { return _reverted; }

  void Step() {
    const std::string trial = "t" + std::to_string(_random.Below(TriedStore::kMaxTrials));
    const size_t what = _random.Below(20);
    if (what < 3) return Revert(trial);
    if (what < 4) return Confirm(trial);
    _before = GetUser();
    _request = {};
    const bool isMade = Change(_random.Below(2) == 0 ? trial : "");
    if (isMade) _model.Change(_request, _trial, _before, GetUser());
    if (_random.Below(25) == 0) {
      ASSERT_EQ(_store.Restart().Spell(), _store.book.Spell());
    }
  }

 private:
  // Returns whether it was made.
  bool Change(const std::string& trial) {
    _trial = trial;
    switch (_random.Below(8)) {
      case 0:
        return Overwrite();
      case 1:
        return Restore();
      case 2:
      case 3:
      case 4:
        return Amend();
      case 5:
        _store.manager.MergeSettings(core::IniFile(NextGroups()), SettingsManager::kNoPersist);
        return false;
      default:
        return Merge();
    }
  }

  bool Merge() {
    _request.set = NextGroups();
    _store.manager.MergeSettings(core::IniFile(_request.set), 0, NextOrigin(), _store.ticket);
    return true;
  }

  bool Overwrite() {
    for (size_t count = 1 + _random.Below(2); count > 0; --count) _request.asked.insert(OneOf(kAsked));
    _request.isRecorded = true;
    _request.set = NextGroups();
    _store.manager.OverwriteSettings(_request.asked, core::IniFile(_request.set), NextOrigin(), _store.ticket);
    return true;
  }

  bool Restore() {
    _request.asked.insert(OneOf(kAsked));
    settings::common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(_request.asked);
    const core::IniFile defaults = DocumentOf(kDefaults);
    for (const std::string& group : StoreModel::MatchingOf(_request.asked, GroupsOf(defaults)))
      _request.set[group] = GroupsOf(defaults)[group];
    _store.manager.RestoreToDefaults(matcher, NextOrigin(), _store.ticket);
    return true;
  }

  bool Amend() {
    settings::Amendment amendment;
    if (_random.Below(2) == 0) _request.set = NextGroups();
    if (_random.Below(2) == 0) _request.unset = NextGroups();
    if (_random.Below(6) == 0) _request.unset[OneOf(kAsked)];
    amendment.set = core::IniFile(_request.set);
    amendment.unset = core::IniFile(_request.unset);
    if (_random.Below(3) == 0) amendment.replace = core::IniFile(NextGroups());
    for (const auto& [group, keys] : amendment.replace) {
      _request.replaced.insert(group);
      _request.set[group].insert(keys.begin(), keys.end());
    }
    return _store.manager.Amend(amendment, NextOrigin(), _store.ticket);
  }

  void Confirm(const std::string& trial) {
    if (_store.GetState(trial) != "pending") return;
    _store.Confirm(trial);
    _model.Confirm(trial);
  }

  void Revert(const std::string& trial) {
    if (_store.GetState(trial) != "pending") return;
    const Groups expected = _model.Revert(trial, GetUser());
    _store.Revert(trial);
    ASSERT_EQ(StoreModel::TextOf(GetUser()), StoreModel::TextOf(WithoutEmptyRecord(expected)));
    ASSERT_EQ(_store.GetState(trial), "reverted");
    ++_reverted;
  }

  settings::server::ChangeOrigin NextOrigin() { return _store.Origin(_trial.empty() ? "" : "60 " + _trial); }

  Groups NextGroups() {
    Groups groups;
    for (size_t count = _random.Below(3); count > 0; --count) {
      auto& keys = groups[OneOf(kGroups)];
      for (size_t left = _random.Below(3); left > 0; --left) keys[OneOf(kKeys)] = std::to_string(_random.Below(3));
    }
    if (_random.Below(6) == 0) groups[kRecord][OneOf(kGroups)] = OneOf(kAsked);
    return groups;
  }

  std::string OneOf(const std::vector<std::string>& choice) { return choice[_random.Below(choice.size())]; }

  static Groups GroupsOf(const core::IniFile& document) {
    Groups groups;
    for (const auto& [group, keys] : document) groups[group].insert(keys.begin(), keys.end());
    return groups;
  }

  Groups GetUser() const {
    Groups groups;
    _store.manager.ReadUserSettings([&](const settings::server::LayerView& user) { groups = GroupsOf(user.Copy()); });
    return WithoutEmptyRecord(groups);
  }

  RandomDocuments _random;
  TriedStore _store{kUser, kDefaults};
  TrialModel _model{AllNames()};
  std::string _trial;
  Groups _before;
  TrialModel::Request _request;
  size_t _reverted = 0;
};

TEST(TrialModel, RevertsOfRandomChangesLeaveWhatTheModelHas) {
  for (unsigned int seed = 1; seed <= 20; ++seed) {
    Comparison comparison(seed);
    for (int step = 0; step < 500; ++step) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
      comparison.Step();
      if (testing::Test::HasFailure()) return;
    }
    EXPECT_GT(comparison.CountReverted(), 10U);
  }
}

}  // namespace

}  // namespace tavix::test
