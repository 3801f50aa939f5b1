#include "tavix/settings/server/RecordedPatterns.h"

#include <algorithm>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/server/DeletedGroupsRecord.h"
#include "tavix/settings/server/HiddenLayers.h"
#include "tavix/settings/server/LayerView.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::settings::server {

using Keys = core::IniFile::KeyMap;

namespace {

size_t CountPatterns(const Keys* members) {
  if (!members) return 0;
  return static_cast<size_t>(std::count_if(members->begin(), members->end(), [](const auto& setting) {
    return DeletedGroupsRecord::IsPattern(setting.second);
  }));
}

// Those that the record has under these keys.
size_t CountPatternsAt(const Keys* recorded, const Keys* keys) {
  if (!keys) return 0;
  return static_cast<size_t>(std::count_if(keys->begin(), keys->end(), [&](const auto& setting) {
    const std::string* const member = FindValue(recorded, setting.first);
    return member && DeletedGroupsRecord::IsPattern(*member);
  }));
}

}  // namespace

size_t CountRecordedPatterns(const Amendment& amendment, const SettingsManager& store) {
  const std::string record = SettingsManager::kDeletedGroups;
  const Keys* const set = FindKeys(amendment.set, record);
  const Keys* const unset = FindKeys(amendment.unset, record);
  const Keys* const replace = FindKeys(amendment.replace, record);
  if (!set && !unset && !replace) return 0;
  size_t count = CountPatterns(set) + CountPatterns(replace);
  store.ReadUserSettings([&](const LayerView& user) {
    const Keys* const recorded = user.FindKeys(record);
    const bool isWhole = replace || (unset && unset->empty());
    count += isWhole ? CountPatterns(recorded) : CountPatternsAt(recorded, set) + CountPatternsAt(recorded, unset);
  });
  return count;
}

}  // namespace tavix::settings::server
