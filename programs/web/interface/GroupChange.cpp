#include "programs/web/interface/GroupChange.h"

#include <algorithm>

#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"

namespace tavix::web {

using core::IniFile;
using settings::Amendment;

namespace {

constexpr size_t kMaxAttempts = 16;
constexpr char kCondition[] = "condition:";  // the kinds of reasons, as docs/protocol.md lists them
constexpr char kRestricted[] = "restricted group:";
constexpr char kTrial[] = "trial";

bool BeginsWith(const std::string& text, std::string_view begin) {
  return text.compare(0, begin.size(), begin) == 0;
}

bool LosesKeys(const IniFile::KeyMap& before, const IniFile::KeyMap& after) {
  for (const auto& [key, value] : before) {
    if (after.count(key) == 0) return true;
  }
  return false;
}

std::optional<std::string> FindValue(const IniFile::KeyMap& keys, const std::string& key) {
  const auto found = keys.find(key);
  if (found == keys.end()) return std::nullopt;
  return found->second;
}

}  // namespace

Refusal RefusalOf(const std::string& reason) {
  const std::string text = reason.empty() ? "the daemon refuses the change" : reason;
  return {
      BeginsWith(reason, kRestricted) ? 403 : 409, "not applied: " + text, {{"outcome", Quoted("nothing written")}}};
}

void Merge(Call& call, const IniFile& settings, bool isVolatile) {
  call.link.GetForWrite().Merge(settings, isVolatile);
  const std::string reason = call.link.Get().TakeRefusal();
  if (!reason.empty()) throw RefusalOf(reason);
}

// The whole group as it was read is the condition: what others have changed meanwhile is not written over. A key whose
// default must not come back can't be taken alone: the group is replaced then.
Amendment GroupChange::MakeAmendment(const Keys& wanted) const {
  Amendment amendment;
  if (_before) {
    amendment.present[_group] = *_before;
  } else {
    amendment.absent[_group];
  }
  const IniFile::KeyMap none;
  const IniFile::KeyMap& before = _before ? *_before : none;
  const IniFile::KeyMap& after = wanted ? *wanted : none;
  for (const auto& [key, value] : after) {
    if (_before && before.count(key) == 0) amendment.absent.SetValue(_group, key, "");
  }
  if (!wanted || LosesKeys(before, after)) {
    amendment.replace[_group] = after;
    return amendment;
  }
  for (const auto& [key, value] : after) {
    const auto old = before.find(key);
    if (old == before.end() || old->second != value) amendment.set.SetValue(_group, key, value);
  }
  return amendment;
}

// False when somebody was faster: nothing is changed then. Here and below.
bool GroupChange::TryAmend(const Amendment& amendment) {
  if (_call.link.GetForWrite().Amend(amendment)) return true;
  const std::string reason = _call.link.Get().TakeRefusal();
  if (!BeginsWith(reason, kCondition)) throw RefusalOf(reason);
  return false;
}

// Each attempt has a trial of its own: the daemon knows the one before by its name.
bool GroupChange::TryChange(const Amendment& amendment) {
  const bool isGuarded = !amendment.replace.IsEmpty() && _call.link.GetFeatures().count(kTrial) != 0;
  if (!_trial && !isGuarded) return TryAmend(amendment);
  const Trial trial = _trial ? _trial->MakeAnother() : Trial::MakeGuard();
  trial.Arm(_call);
  if (!TryAmend(amendment)) return false;
  const std::optional<programs::TrialState> state = trial.Find(_call);  // nothing: the user settings are as they were
  if (isGuarded && state && TookMore(*state)) {
    static_cast<void>(trial.Revert(_call));  // it has gone back by itself otherwise
    return false;
  }
  if (_trial) {
    _trial = trial;
    return true;
  }
  return !state || trial.Confirm(_call);
}

// Of what somebody added behind the reading.
bool GroupChange::TookMore(const programs::TrialState& state) const {
  return std::any_of(state.settings.begin(), state.settings.end(), [this](const programs::Change& change) {
    return change.group == _group && change.key && change.before && (!_before || _before->count(*change.key) == 0);
  });
}

void GroupChange::Run(const Make& make) {
  RequireUnrestricted(_call, _group);
  for (size_t attempt = 0; attempt < kMaxAttempts; ++attempt) {
    _before = _call.ReadGroup(_group);
    _conditions.Require(_call, _group, _before ? &*_before : nullptr);
    const Keys wanted = make(_before);
    if (wanted == _before) {
      _after = _before;
      return;
    }
    if (TryChange(MakeAmendment(wanted))) return Finish(wanted);
  }
  Refuse(409, {"others change '", programs::SpellName(_group), "' again and again"},
         {{"group", _group}, {"outcome", "nothing written"}});
}

// An amendment leaves no group without keys.
void GroupChange::Finish(const Keys& wanted) {
  if (wanted && wanted->empty()) {
    IniFile empty;
    empty[_group];
    _call.link.GetForWrite().Merge(empty);
  }
  _after = _call.ReadGroup(_group);
  RequireApplied(wanted);
}

// A value of a restricted file stands, whatever is written: then the user settings have what is wanted, and readers see
// what they saw before. All else is somebody else's later change.
void GroupChange::RequireApplied(const Keys& wanted) const {
  const IniFile::KeyMap none;
  const IniFile::KeyMap& before = _before ? *_before : none;
  const IniFile::KeyMap& after = _after ? *_after : none;
  IniFile::KeyMap touched = before;
  if (wanted) touched.insert(wanted->begin(), wanted->end());
  std::optional<IniFile::KeyMap> user;
  for (const auto& [key, value] : touched) {
    const auto old = FindValue(before, key);
    const std::optional<std::string> now = wanted ? FindValue(*wanted, key) : std::nullopt;
    if (FindValue(after, key) != old || now == old) continue;
    if (!user) user = _call.ReadUserGroup(_group).value_or(none);
    if (FindValue(*user, key) != now) continue;
    throw Refusal(409,
                  programs::Join({"not applied: ", programs::SpellSetting(_group, key), " holds what it held before"}),
                  {{"group", Quoted(_group)},
                   {"key", Quoted(key)},
                   {"outcome", Quoted("unknown")},
                   {"current", DescribeGroup(_call, _group, _after ? &*_after : nullptr)}});
  }
}

}  // namespace tavix::web
