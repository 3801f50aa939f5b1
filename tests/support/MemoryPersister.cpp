#include "tests/support/MemoryPersister.h"

#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

using settings::server::SettingsCombiner;

MemoryPersister::MemoryPersister(std::vector<std::string> defaults, std::string user)
    : _defaults(std::move(defaults)), _user(std::move(user)) {}

// Without the mutex while the combiner works: filters may do anything.
void MemoryPersister::LoadDefaultSettings(SettingsCombiner& combiner) {
  std::vector<std::string> defaults;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    defaults = _defaults;
  }
  for (const std::string& source : defaults) combiner.LoadFromString(source);
}

void MemoryPersister::LoadUserSettings(SettingsCombiner& combiner) {
  combiner.LoadFromString(GetSaved());
}

void MemoryPersister::SaveUserSettings(const core::IniFile& userSettings) {
  std::lock_guard<std::mutex> lock(_mutex);
  if (std::exchange(_failsNextSave, false)) throw osa::Exception("No space left on the device");
  _user = TextOf(userSettings);
  ++_saves;
}

settings::server::ChangeTicket MemoryPersister::SaveChange(const SavedChange& change) {
  if (_needsWhole) return ISettingsPersister::SaveChange(change);
  const core::IniFile whole = change.userSettings.Copy();
  return ISettingsPersister::SaveChange({whole, change.changedGroups, change.added, change.origin, change.before});
}

void MemoryPersister::SetDefaults(std::vector<std::string> defaults) {
  std::lock_guard<std::mutex> lock(_mutex);
  _defaults = std::move(defaults);
}

void MemoryPersister::FailNextSave() {
  std::lock_guard<std::mutex> lock(_mutex);
  _failsNextSave = true;
}

std::string MemoryPersister::GetSaved() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _user;
}

int MemoryPersister::CountSaves() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _saves;
}

void MemoryRestrictedLoader::LoadRestrictedSettings(SettingsCombiner& combiner) {
  combiner.LoadFromString(_text);
}

}  // namespace tavix::test
