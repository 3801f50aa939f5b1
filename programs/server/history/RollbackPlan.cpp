#include "programs/server/history/RollbackPlan.h"

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::GroupDiscriminator;
using settings::server::SettingsManager;
using settings::server::StoreAmendment;

namespace {

void Put(IniFile& document, const std::string& group, const std::string* key, const std::string& value) {
  IniFile::KeyMap& keys = document[group];
  if (key) keys.emplace(*key, value);
}

}  // namespace

void RollbackPlan::Clear() {
  _difference.was.Clear();
  _difference.is.Clear();
}

void RollbackPlan::Add(const std::string& group, const std::string* key, const std::string* now,
                       const std::string* then) {
  const bool isSame = now && then ? !key || *now == *then : now == then;
  if (isSame || !Concerns(group, key, now, then)) return;
  if (now) Put(_difference.was, group, key, *now);
  if (then) Put(_difference.is, group, key, *then);
}

// A record without members is none.
bool RollbackPlan::Concerns(const std::string& group, const std::string* key, const std::string* now,
                            const std::string* then) const {
  const bool isRecord = group == SettingsManager::kDeletedGroups;
  if (isRecord ? !key : GroupDiscriminator::IsRestrictedGroup(group)) return false;
  if (_filter.IsForAll() || _filter.Matches(group)) return true;
  return isRecord && (_filter.Matches(*key) || (now && _filter.Matches(*now)) || (then && _filter.Matches(*then)));
}

// A group that loses its last key goes; one without keys is dropped, or becomes one of keys by getting them.
StoreAmendment RollbackPlan::MakeAmendment() const {
  StoreAmendment amendment;
  amendment.set = _difference.is;
  for (const auto& [group, keys] : _difference.was) {
    const IniFile::KeyMap* const then = FindGroup(_difference.is, group);
    if (keys.empty() && !then) amendment.drop[group];
    for (const auto& setting : keys) {
      if (!then || then->count(setting.first) == 0) amendment.unset[group].emplace(setting.first, std::string());
    }
  }
  return amendment;
}

}  // namespace tavix::daemon
