#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryPersister.h"
#include "tests/support/RandomDocument.h"
#include "tests/support/RecordingCallback.h"

// The store against the plainest model of it, a map of maps for each layer, under thousands of random operations.

namespace {

using tavix::core::IniFile;
using tavix::settings::common::GroupNameMatcher;
using tavix::settings::server::SettingsManager;
using tavix::test::AllSettingsOf;
using tavix::test::Change;
using tavix::test::MemoryPersister;
using tavix::test::MemoryRestrictedLoader;
using tavix::test::RandomDocuments;
using tavix::test::RecordingCallback;
using tavix::test::TextOf;
using tavix::test::UserSettingsOf;

using Names = std::set<std::string>;
using Groups = std::map<std::string, std::map<std::string, std::string>>;

constexpr char kRecord[] = "TavixSettings/Data/DeletedGroups";

bool IsRestricted(const std::string& group) {
  return group.find("Secure") != std::string::npos || group.find("Trusted") != std::string::npos;
}

bool Matches(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '*') return Matches(pattern.substr(1), text) || (!text.empty() && Matches(pattern, text.substr(1)));
  return !text.empty() && pattern[0] == text[0] && Matches(pattern.substr(1), text.substr(1));
}

Names MatchingOf(const Names& wanted, const Groups& groups) {
  Names matching;
  for (const auto& group : groups) {
    for (const std::string& one : wanted) {
      if (Matches(one, group.first)) matching.insert(group.first);
    }
  }
  return matching;
}

void MergeInto(Groups& target, const Groups& source) {
  for (const auto& [group, keys] : source) {
    target[group];
    for (const auto& [key, value] : keys) target[group][key] = value;
  }
}

Groups UnrestrictedOf(const Groups& groups) {
  Groups unrestricted;
  for (const auto& [group, keys] : groups) {
    if (!IsRestricted(group)) unrestricted[group] = keys;
  }
  return unrestricted;
}

std::string Text(const Groups& groups) {
  return TextOf(IniFile(groups));
}

// Each operation returns what a subscriber to everything is told; no groups: it is not called.
class Model {
 public:
  Model(Groups ofDefaults, Groups ofLoader) : defaults(std::move(ofDefaults)), restricted(std::move(ofLoader)) {
    Load();
  }

  void Load() {
    user = UnrestrictedOf(user);
    all = defaults;
    Names deleted;
    if (user.count(kRecord)) {
      for (const auto& entry : user[kRecord]) deleted.insert(entry.second);
    }
    for (const std::string& group : MatchingOf(deleted, all)) all.erase(group);
    MergeInto(all, user);
    all = UnrestrictedOf(all);
    MergeInto(all, restricted);
    all.erase(kRecord);
  }

  Change Merge(const Groups& settings, bool persist) {
    const Groups filtered = UnrestrictedOf(settings);
    MergeInto(all, filtered);
    all.erase(kRecord);
    if (persist) MergeInto(user, filtered);
    return ChangeOf({}, filtered);
  }

  bool Holds(const Groups& test) const {
    Groups merged = all;
    for (const auto& [group, keys] : test) {
      for (const auto& [key, value] : keys) merged[group][key] = value;
    }
    return merged == all;
  }

  Change Overwrite(const Names& groups, const Groups& settings) {
    Names removed;
    for (const std::string& group : MatchingOf(groups, all)) {
      if (IsRestricted(group)) continue;
      all.erase(group);
      user.erase(group);
      removed.insert(group);
    }
    Merge(settings, true);
    for (const std::string& group : groups) Record(group);
    return ChangeOf(removed, UnrestrictedOf(settings));
  }

  Change Restore(const Names& groups) {
    const Names removed = MatchingOf(groups, user);
    for (const std::string& group : removed) {
      all.erase(group);
      user.erase(group);
    }
    Groups restored;
    for (const std::string& group : MatchingOf(groups, defaults)) restored[group] = defaults[group];
    MergeInto(all, restored);
    all.erase(kRecord);
    MergeInto(user, restored);
    return ChangeOf(removed, restored);
  }

  Groups defaults;
  Groups restricted;
  Groups user;
  Groups all;

 private:
  void Record(const std::string& group) {
    auto& record = user[kRecord];
    for (const auto& entry : record) {
      if (entry.second == group) return;
    }
    std::string key = group;
    while (record.count(key)) key += '~';
    record[key] = group;
  }

  static Change ChangeOf(Names groups, const Groups& settings) {
    for (const auto& group : settings) groups.insert(group.first);
    return Change{groups, Text(settings)};
  }
};

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

GroupNameMatcher MatcherOf(const Names& names) {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(names);
  return matcher;
}

// Does the same to a store and to its model, and compares everything that can be seen.
class Comparison {
 public:
  explicit Comparison(unsigned int seed)
      : _random(seed),
        _model(UnrestrictedOf(RandomGroups(_random)), {{"Secure/K", {{"key", "1"}}}}),
        _persister({Text(_model.defaults)}),
        _loader(Text(_model.restricted)) {
    Restart();
  }

  void Step() {
    const size_t what = _random.Below(100);
    if (what < 30) {
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
    _model.defaults = UnrestrictedOf(RandomGroups(_random));
    _persister.SetDefaults({Text(_model.defaults)});
  }

  void Expect(const Change& change) {
    if (!change.groups.empty()) _expected.push_back(change);
    const Names network = MatchingOf({"Net", "Net/*"}, GroupsNamed(change.groups));
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
    ASSERT_EQ(_everything.TakeChanges(), std::exchange(_expected, {}));
    ASSERT_EQ(_network.TakeChanges(), std::exchange(_expectedOfNetwork, {}));
    const Names groups = RandomNames(_random);
    IniFile read;
    _store->GetGroups(read, MatcherOf(groups));
    Groups expected;
    for (const std::string& group : MatchingOf(groups, _model.all)) expected[group] = _model.all[group];
    ASSERT_EQ(TextOf(read), Text(expected));
  }

  RandomDocuments _random;
  Model _model;
  MemoryPersister _persister;
  MemoryRestrictedLoader _loader;
  RecordingCallback _everything;
  RecordingCallback _network;
  std::vector<Change> _expected;
  std::vector<Change> _expectedOfNetwork;
  std::unique_ptr<SettingsManager> _store;
};

TEST(SettingsManagerModel, ThousandsOfOperationsAgreeWithTheModel) {
  for (const unsigned int seed : {3101u, 3102u, 3103u, 3104u}) {
    Comparison comparison(seed);
    for (int step = 0; step < 1500; ++step) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
      comparison.Step();
      if (testing::Test::HasFatalFailure()) return;
    }
  }
}

}  // namespace
