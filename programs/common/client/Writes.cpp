#include "programs/common/client/Writes.h"

#include <algorithm>
#include <iterator>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs {

using core::IniFile;
using settings::Amendment;

// The one way to what a session keeps from all others.
class SessionWriter {
 public:
  explicit SessionWriter(Session& session) : _session(session) {}

  void Merge(const IniFile& settings, bool isVolatile) { _session.Merge(settings, isVolatile); }
  [[nodiscard]] bool TestAndMerge(const IniFile& test, const IniFile& settings) {
    return _session.TestAndMerge(test, settings);
  }
  [[nodiscard]] bool Amend(const Amendment& amendment) { return _session.Amend(amendment); }
  void Overwrite(const std::set<std::string>& groups, const IniFile& settings) { _session.Overwrite(groups, settings); }
  void Restore(const std::set<std::string>& groups) { _session.Restore(groups); }

 private:
  Session& _session;
};

namespace {

// What stands there in place of what should; empty when it does. Here and below.
std::string FindDifference(const IniFile& current, IniFile::const_iterator wanted) {
  const auto& [group, keys] = *wanted;
  for (const auto& [key, value] : keys) {
    const std::string name = SpellSetting(group, key);
    if (!current.HasValue(group, key)) return name + " is not set";
    const std::string& found = current.GetValue(group, key);
    if (found != value) return Join({name, " is '", SpellValue(found), "', not '", SpellValue(value), "'"});
  }
  return current.HasGroup(group) ? std::string() : Join({"there is no group '", SpellName(group), "'"});
}

std::string FindDifference(const IniFile& current, const IniFile& wanted) {
  std::string difference;
  for (auto group = wanted.begin(); group != wanted.end() && difference.empty(); ++group)
    difference = FindDifference(current, group);
  return difference;
}

// What a group holds that it should not.
std::string FindLeft(IniFile::const_iterator current, const IniFile& wanted) {
  const auto& [group, keys] = *current;
  if (!wanted.HasGroup(group)) return Join({"there still is a group '", SpellName(group), "'"});
  for (const auto& [key, value] : keys) {
    if (!wanted.HasValue(group, key)) return SpellSetting(group, key) + " is still set";
  }
  return std::string();
}

// Reads back, group by group, whether the store holds what was written, and nothing else in what was replaced. Groups
// whose names are patterns bring others, which do not count.
void RequireApplied(Session& session, const IniFile& wanted, const std::set<std::string>& replaced = {}) {
  std::string difference;
  std::string left;
  auto next = wanted.begin();
  const auto compare = [&](const IniFile& current) {
    if (difference.empty()) difference = FindDifference(current, next);
    ++next;
  };
  std::set<std::string> touched = NamesOf(wanted);
  touched.insert(replaced.begin(), replaced.end());
  session.GetEach(touched, [&](const IniFile& part) {
    const std::string& name = part.begin()->first;
    while (next != wanted.end() && next->first < name) compare(IniFile());
    if (next != wanted.end() && next->first == name) compare(part);
    if (left.empty() && replaced.count(name) != 0) left = FindLeft(part.begin(), wanted);
  });
  while (next != wanted.end()) compare(IniFile());
  if (difference.empty()) difference = left;
  if (!difference.empty()) throw Failure(kExitNotApplied, "not applied: " + difference);
}

bool LosesSomething(const std::string& group, const IniFile::KeyMap& keys, const IniFile& after) {
  if (!after.HasGroup(group)) return true;
  return std::any_of(keys.begin(), keys.end(), [&](const auto& entry) { return !after.HasValue(group, entry.first); });
}

void AddNewValues(const IniFile::GroupMap::value_type& group, const IniFile& before, IniFile& out) {
  const auto& [name, keys] = group;
  if (!before.HasGroup(name)) out[name];
  for (const auto& [key, value] : keys) {
    if (!before.HasValue(name, key) || before.GetValue(name, key) != value) out.SetValue(name, key, value);
  }
}

bool IsOfCondition(const std::string& refusal) {
  constexpr char kCondition[] = "condition:";  // the kind of a reason, as docs/protocol.md lists them
  return refusal.compare(0, sizeof kCondition - 1, kCondition) == 0;
}

[[noreturn]] void FailRefused(const std::string& refusal) {
  throw Failure(kExitNotApplied,
                "not applied: " + (refusal.empty() ? "the server refuses the change" : SpellValue(refusal)));
}

// Behind a change with a condition that was not made. An older server names no reason.
void RequireNoOtherReason(Session& session) {
  const std::string refusal = session.TakeRefusal();
  if (!refusal.empty() && !IsOfCondition(refusal)) FailRefused(refusal);
}

IniFile FindEmptyGroups(const IniFile& settings) {
  IniFile empty;
  for (auto group = settings.begin(); group != settings.end(); ++group) {
    if (group->second.empty()) empty.MergeGroup(group);
  }
  return empty;
}

}  // namespace

void RefuseRestricted(const Session& session, const std::set<std::string>& groups) {
  for (const std::string& group : groups) {
    if (session.IsRestricted(group))
      throw Failure(kExitRefused, Join({"refused: '", SpellName(group), "' is a restricted group"}),
                    "groups with 'Secure' or 'Trusted' in their names are set by the server's restricted files only");
  }
}

void RefusePatterns(const std::set<std::string>& groups) {
  for (const std::string& group : groups) {
    if (group.find('*') != std::string::npos)
      throw Failure(kExitUsage,
                    Join({"the name '", SpellName(group),
                          "' holds a '*': who replaces or deletes that group does so "
                          "with all that match it"}),
                    "'tavix-settings reset' takes what users set in it, and in those that match it, away");
  }
}

std::set<std::string> WithoutPatterns(const std::set<std::string>& groups) {
  std::set<std::string> names;
  for (const std::string& group : groups) {
    if (group.find('*') == std::string::npos) names.insert(names.end(), group);
  }
  return names;
}

std::set<std::string> NamesOf(const IniFile& settings) {
  std::set<std::string> names;
  for (const auto& [group, keys] : settings) names.insert(names.end(), group);
  return names;
}

std::set<std::string> Without(const std::set<std::string>& names, const std::set<std::string>& others) {
  std::set<std::string> rest;
  std::set_difference(names.begin(), names.end(), others.begin(), others.end(), std::inserter(rest, rest.end()));
  return rest;
}

void Merge(Session& session, const IniFile& settings, bool isVolatile) {
  RefuseRestricted(session, NamesOf(settings));
  session.RunAlone([&] {
    SessionWriter(session).Merge(settings, isVolatile);
    RequireApplied(session, settings);
  });
}

void MergeIf(Session& session, const IniFile& condition, const IniFile& settings) {
  session.RunAlone([&] {
    if (!TryMergeIf(session, condition, settings)) {
      RequireNoOtherReason(session);
      RequireHolds(session.Get(NamesOf(condition)), condition);
      throw Failure(kExitConditionFailed, "condition failed, but holds again by now");
    }
    RequireApplied(session, settings);
  });
}

bool TryMergeIf(Session& session, const IniFile& condition, const IniFile& settings) {
  RefuseRestricted(session, NamesOf(settings));
  return SessionWriter(session).TestAndMerge(condition, settings);
}

void RequireAmend(Session& session, const std::string& feature) {
  if (!session.CanAmend()) throw Failure(kExitNotApplied, "not applied: the server is too old for " + feature);
}

void MergeIfUnset(Session& session, const IniFile& condition, const IniFile& settings) {
  RefuseRestricted(session, NamesOf(settings));
  RequireAmend(session, "--if-unset");
  session.RunAlone([&] {
    Amendment amendment;
    amendment.present = condition;
    amendment.absent = settings;
    amendment.set = settings;
    if (!SessionWriter(session).Amend(amendment)) {
      RequireNoOtherReason(session);
      RequireHolds(session.Get(NamesOf(condition)), condition);
      RequireUnset(session.Get(NamesOf(settings)), settings);
      throw Failure(kExitConditionFailed, "condition failed, but holds again by now");
    }
    RequireApplied(session, settings);
  });
}

void RequireHolds(const IniFile& current, const IniFile& condition) {
  const std::string difference = FindDifference(current, condition);
  if (!difference.empty()) throw Failure(kExitConditionFailed, "condition failed: " + difference);
}

void RequireUnset(const IniFile& current, const IniFile& settings) {
  for (const auto& [group, keys] : settings) {
    for (const auto& [key, value] : keys) {
      if (current.HasValue(group, key))
        throw Failure(kExitConditionFailed, Join({"condition failed: ", SpellSetting(group, key), " is set, to '",
                                                  SpellValue(current.GetValue(group, key)), "'"}));
    }
  }
}

void RequireUnchanged(Session& session, const std::set<std::string>& groups, const IniFile& before) {
  const IniFile current = session.Get(groups);
  IniFile condition;
  for (const std::string& group : groups) condition.MergeSettings(before, group);
  RequireHolds(current, condition);
  for (const auto& [group, keys] : current) {
    for (const auto& [key, value] : keys) {
      if (!before.HasValue(group, key))
        throw Failure(kExitConditionFailed, Join({"condition failed: ", SpellSetting(group, key),
                                                  " is set by now, to '", SpellValue(value), "'"}));
    }
    if (!before.HasGroup(group))
      throw Failure(kExitConditionFailed, Join({"condition failed: there is a group '", SpellName(group), "' by now"}));
  }
}

Keeping FindKeeping(Session& session) {
  const std::map<std::string, std::string> figures = session.GetServerInfo();
  Keeping keeping;
  const auto kept = figures.find("kept");
  keeping.endsWithServer = kept != figures.end() && kept->second == "false";
  const auto failure = figures.find("failure");
  if (failure != figures.end()) keeping.failure = failure->second;
  return keeping;
}

void Replace(Session& session, const std::set<std::string>& groups, const IniFile& settings) {
  std::set<std::string> touched = NamesOf(settings);
  touched.insert(groups.begin(), groups.end());
  RefuseRestricted(session, touched);
  session.RunAlone([&] {
    SessionWriter(session).Overwrite(groups, settings);
    RequireApplied(session, settings, groups);
  });
}

namespace {

// An amendment leaves no group without settings. What a restricted file holds in a group stays.
void EndRewriting(Session& session, const std::set<std::string>& groups, const IniFile& after) {
  const IniFile empty = FindEmptyGroups(after);
  if (!empty.IsEmpty()) Merge(session, empty, false);
  RequireApplied(session, after, groups);
}

}  // namespace

void Rewrite(Session& session, const std::set<std::string>& groups, const Rewriting& rewrite) {
  RefuseRestricted(session, groups);
  RefusePatterns(groups);
  if (session.CanRunAlone() || !session.CanAmend()) {
    session.RunAlone([&] { Replace(session, groups, rewrite(session.Get(groups))); });
    return;
  }
  constexpr size_t kMaxAttempts = 16;
  for (size_t attempt = 0; attempt < kMaxAttempts; ++attempt) {
    Amendment amendment;
    amendment.present = session.Get(groups);
    const IniFile after = rewrite(amendment.present);
    for (const std::string& group : groups) amendment.replace[group];
    amendment.replace.MergeSettings(after);
    if (SessionWriter(session).Amend(amendment)) return EndRewriting(session, groups, after);
    const std::string refusal = session.TakeRefusal();
    if (!IsOfCondition(refusal)) FailRefused(refusal);
  }
  throw Failure(kExitConditionFailed, "condition failed: somebody else changes the same groups again and again");
}

void Clean(Session& session, const std::set<std::string>& groups) {
  RefuseRestricted(session, WithoutPatterns(groups));
  RequireAmend(session, "--clean");
  Amendment amendment;
  for (const std::string& group : groups) amendment.unset[group];
  if (!SessionWriter(session).Amend(amendment)) FailRefused(session.TakeRefusal());
}

void Restore(Session& session, const std::set<std::string>& groups, const Session::TakeGroup& take) {
  RefuseRestricted(session, WithoutPatterns(groups));
  session.RunAlone([&] {
    SessionWriter(session).Restore(groups);
    session.GetEach(groups, take);
  });
}

void Apply(Session& session, const IniFile& before, const IniFile& after) {
  std::set<std::string> replaced;
  for (const auto& [group, keys] : before) {
    if (LosesSomething(group, keys, after)) replaced.insert(replaced.end(), group);
  }
  IniFile written;
  for (auto group = after.begin(); group != after.end(); ++group) {
    if (replaced.count(group->first) != 0) {
      written.MergeGroup(group);
    } else {
      AddNewValues(*group, before, written);
    }
  }
  Write(session, replaced, written);
}

// One request for both, so that nobody sees half of it: an overwrite merges what its list does not name.
void Write(Session& session, const std::set<std::string>& replaced, const IniFile& written) {
  if (!replaced.empty()) {
    RefusePatterns(replaced);
    Replace(session, replaced, written);
  } else if (!written.IsEmpty()) {
    Merge(session, written, false);
  }
}

}  // namespace tavix::programs
