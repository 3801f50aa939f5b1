#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "tests/support/StoreModel.h"

namespace tavix::test {

// The plainest model of trials: for each setting that there may be it is asked whether a change wrote it. The store's
// own user settings before and behind each change are what it works with.
class TrialModel {
 public:
  using Groups = StoreModel::Groups;
  using Names = StoreModel::Names;

  // Without a key: whether the group is there without keys.
  using Name = std::pair<std::string, std::optional<std::string>>;

  // What a request names.
  struct Request {
    Names asked;      // names and patterns of groups that go
    bool isRecorded;  // whether what is asked joins the record of deleted groups; else the record may go as well
    Groups set;       // and replace
    Groups unset;     // also of groups without keys: all
    Names replaced;   // exact names of groups that go and are recorded
  };

  explicit TrialModel(std::set<Name> all) : _all(std::move(all)) {}

  // trial: that made the change; empty: another client did.
  void Change(const Request& request, const std::string& trial, const Groups& before, const Groups& after) {
    for (const Name& name : _all) {
      const auto old = ValueOf(before, name);
      const bool isWritten = old != ValueOf(after, name) || IsNamed(request, name);
      if (!isWritten) continue;
      const auto first = TakeFromOthers(trial, name).value_or(old);
      if (!trial.empty()) _trials[trial].emplace(name, first);
    }
  }

  void Confirm(const std::string& trial) { _trials.erase(trial); }

  // What becomes of the user settings.
  Groups Revert(const std::string& trial, const Groups& user) {
    const std::map<Name, Value> settings = std::move(_trials[trial]);
    _trials.erase(trial);
    Groups reverted = user;
    for (const auto& [name, old] : settings) {
      if (!name.second) continue;
      reverted[name.first].erase(*name.second);
      if (old) reverted[name.first][*name.second] = *old;
    }
    for (const auto& [name, unused] : settings) {
      const auto mark = settings.find({name.first, std::nullopt});
      const bool isThere =
          mark == settings.end() ? ValueOf(user, {name.first, std::nullopt}).has_value() : mark->second.has_value();
      if (!reverted[name.first].empty() || isThere) continue;
      reverted.erase(name.first);
    }
    return reverted;
  }

 private:
  using Value = std::optional<std::string>;

  static Value ValueOf(const Groups& user, const Name& name) {
    const auto group = user.find(name.first);
    if (group == user.end()) return std::nullopt;
    if (!name.second) return group->second.empty() ? Value("") : std::nullopt;
    const auto key = group->second.find(*name.second);
    return key == group->second.end() ? std::nullopt : Value(key->second);
  }

  static bool IsNamed(const Request& request, const Name& name) {
    const auto& [group, key] = name;
    const bool isRecord = group == StoreModel::kRecord;
    if (request.replaced.count(group) != 0) return true;
    if (!(isRecord && request.isRecorded) && !StoreModel::MatchingOf(request.asked, {{group, {}}}).empty()) return true;
    for (const Groups* document : {&request.set, &request.unset}) {
      const auto named = document->find(group);
      if (named != document->end() && (key ? named->second.count(*key) != 0 : named->second.empty())) return true;
    }
    const auto unset = request.unset.find(group);
    if (unset != request.unset.end() && unset->second.empty()) return true;
    return isRecord && key && IsMemberNamed(request, *key);
  }

  static bool IsMemberNamed(const Request& request, const std::string& member) {
    const auto unset = request.unset.find(member);
    return (request.isRecorded && request.asked.count(member) != 0) || request.replaced.count(member) != 0 ||
           (unset != request.unset.end() && unset->second.empty());
  }

  // Empty: no other trial has it.
  std::optional<Value> TakeFromOthers(const std::string& own, const Name& name) {
    std::optional<Value> taken;
    for (auto& [trial, settings] : _trials) {
      const auto setting = settings.find(name);
      if (trial == own || setting == settings.end()) continue;
      taken = setting->second;
      settings.erase(setting);
    }
    return taken;
  }

  const std::set<Name> _all;
  std::map<std::string, std::map<Name, Value>> _trials;
};

}  // namespace tavix::test
