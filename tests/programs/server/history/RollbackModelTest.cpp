#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/programs/server/history/HistoryServer.h"
#include "tests/programs/server/persistence/RandomChanges.h"
#include "tests/support/RunLength.h"
#include "tests/support/StoreModel.h"

// Random changes of all kinds by three users, and rollbacks among them: each leads to the user settings as they were
// recorded behind the change, the record of deleted groups included.

namespace tavix::test {

namespace {

using Groups = StoreModel::Groups;
using settings::server::ChangeOrigin;
using settings::server::ChangeTicket;
using settings::server::ClientIdentity;
using settings::server::SettingsManager;

constexpr size_t kLongHistory = 64 * 1024 * 1024;
constexpr uint64_t kReach = 150;  // how far back most of them go
constexpr char kDefaults[] = "[A/settings]\nkey0=d\n[B/settings]\n[C/settings]\nkey1=d\nkey9=d\n";
const std::string kRecord = StoreModel::kRecord;

Groups GroupsOf(const core::IniFile& document) {
  Groups groups;
  for (const auto& [group, keys] : document) groups[group].insert(keys.begin(), keys.end());
  return groups;
}

class RandomLife {
 public:
  explicit RandomLife(unsigned int seed) : _changes(seed), _server(kDefaults, kLongHistory) { Record(); }

  void Step() {
    const size_t what = _changes.Below(20);
    if (what < 14) {
      _changes.MakeOne(GetStore(), NextOrigin());
    } else if (what < 15) {
      ChangeTheRecord();
    } else if (what < 16) {
      _server.Serve("merge nopersist\n[A/settings]\nkey1=unsaved\n[N]\nx=1\n.\n");
    } else if (what < 17) {
      MakeCheckpoint();
    } else {
      RollBackSomewhere();
    }
    Record();
  }

  uint64_t GetLast() const { return _server.store.GetHistory()->GetRange().last; }

  void RollBackTo(uint64_t revision) {
    ASSERT_EQ(_server.Serve("rollback " + std::to_string(revision) + "\n").substr(0, 5), "data\n");
    ASSERT_EQ(StoreModel::TextOf(GetUser()), StoreModel::TextOf(_recorded[revision]));
    Record();
  }

 private:
  SettingsManager& GetStore() { return _server.store.GetManager(); }

  ChangeOrigin NextOrigin() {
    const auto user = static_cast<uid_t>(1000 + _changes.Below(3));
    return {{ClientIdentity::Connection::kUnix, user, 100, 812}, "test", {}};
  }

  void ChangeTheRecord() {
    settings::Amendment amendment;
    const std::string key = std::to_string(_changes.Below(4));
    if (_changes.Below(2) == 0) {
      amendment.set.SetValue(kRecord, key, NextPattern());
    } else {
      amendment.unset.SetValue(kRecord, key, "");
    }
    static_cast<void>(GetStore().Amend(amendment));
  }

  std::string NextPattern() {
    static const std::vector<std::string> patterns{"A/settings", "B*", "*", "C/settings", "None"};
    return patterns[_changes.Below(patterns.size())];
  }

  void MakeCheckpoint() {
    const std::string name = std::to_string(_changes.Below(HistoryServer::kMaxCheckpoints));
    _server.Serve("checkpoint " + name + "\n");
    _checkpoints[name] = GetUser();
  }

  void RollBackSomewhere() {
    const std::string pattern = _changes.Below(2) == 0 ? NextPattern() : "";
    const bool isCheckpoint = !_checkpoints.empty() && _changes.Below(3) == 0;
    const uint64_t last = GetLast();
    const uint64_t revision = last - _changes.Below(std::min(last, kReach) + 1);
    const std::string name = isCheckpoint ? "@" + _checkpoints.begin()->first : std::to_string(revision);
    const Groups expected = Mix(GetUser(), isCheckpoint ? _checkpoints.begin()->second : _recorded[revision], pattern);
    const std::string request = "rollback " + name + " " + pattern + "\n";
    const std::string test = _server.Serve("test-" + request);
    ASSERT_EQ(StoreModel::TextOf(GetUser()), StoreModel::TextOf(_recorded[last]));
    ASSERT_EQ(_server.Serve(request), test);
    ASSERT_EQ(StoreModel::TextOf(GetUser()), StoreModel::TextOf(expected)) << request;
  }

  // What matches is as it was then.
  static Groups Mix(const Groups& now, const Groups& then, const std::string& pattern) {
    if (pattern.empty()) return then;
    Groups mixed;
    for (const auto& [group, keys] : now) {
      if (!Matches(pattern, group)) mixed[group] = keys;
    }
    for (const auto& [group, keys] : then) {
      if (Matches(pattern, group)) mixed[group] = keys;
    }
    if (!Matches(pattern, kRecord)) mixed[kRecord] = MixRecords(RecordOf(now), RecordOf(then), pattern);
    if (mixed[kRecord].empty()) mixed.erase(kRecord);
    return mixed;
  }

  using Members = std::map<std::string, std::string>;

  static Members RecordOf(const Groups& groups) {
    const auto record = groups.find(kRecord);
    return record == groups.end() ? Members() : record->second;
  }

  static Members MixRecords(const Members& now, const Members& then, const std::string& pattern) {
    Members mixed = now;
    const auto isMeant = [&](const std::string& key) {
      const auto ours = now.find(key);
      const auto theirs = then.find(key);
      return Matches(pattern, key) || (ours != now.end() && Matches(pattern, ours->second)) ||
             (theirs != then.end() && Matches(pattern, theirs->second));
    };
    for (const auto& member : now) {
      if (isMeant(member.first)) mixed.erase(member.first);
    }
    for (const auto& member : then) {
      if (isMeant(member.first)) mixed.insert(member);
    }
    return mixed;
  }

  static bool Matches(const std::string& pattern, const std::string& name) {
    return !StoreModel::MatchingOf({pattern}, {{name, {}}}).empty();
  }

  Groups GetUser() {
    Groups groups;
    GetStore().ReadUserSettings([&](const settings::server::LayerView& user) { groups = GroupsOf(user.Copy()); });
    return groups;
  }

  void Record() { _recorded[GetLast()] = GetUser(); }

  RandomChanges _changes;
  HistoryServer _server;
  std::map<uint64_t, Groups> _recorded;  // by their revisions
  std::map<std::string, Groups> _checkpoints;
};

TEST(RollbackModel, EachRollbackLeadsToWhatWasRecorded) {
  const unsigned int seed = std::random_device()();
  std::cout << "seed " << seed << std::endl;
  RandomLife life(seed);
  const int steps = IsLongRun() ? 10'000 : 300;
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    life.Step();
    if (testing::Test::HasFailure()) return;
  }
  const uint64_t last = life.GetLast();
  const uint64_t stride = IsLongRun() ? 50 : 1;
  for (uint64_t revision = last; revision > stride; revision -= stride) {
    SCOPED_TRACE("revision " + std::to_string(revision));
    life.RollBackTo(revision);
    if (testing::Test::HasFailure()) return;
  }
  life.RollBackTo(0);
}

}  // namespace

}  // namespace tavix::test
