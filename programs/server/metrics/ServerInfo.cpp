#include "programs/server/metrics/ServerInfo.h"

namespace tavix::daemon {

using core::IniFile;

namespace {

void Add(IniFile::KeyMap& figures, const std::string& name, unsigned long long value) {
  figures[name] = std::to_string(value);
}

void Add(IniFile::KeyMap& figures, const std::string& name, bool value) {
  figures[name] = value ? "true" : "false";
}

void AddLayer(IniFile::KeyMap& figures, const std::string& layer, unsigned long long groups, unsigned long long keys) {
  Add(figures, "groups." + layer, groups);
  Add(figures, "keys." + layer, keys);
}

}  // namespace

void ServerInfo::AddFigures(IniFile::KeyMap& figures) const {
  figures["version"] = TAVIX_VERSION;
  Add(figures, "started", static_cast<unsigned long long>(_counters.startTime));
  Add(figures, "clients", _counters.clients.Get());
  Add(figures, "subscriptions", static_cast<unsigned long long>(_manager.GetDispatcher().CountSubscriptions()));
  for (size_t i = 0; i < _counters.cut.size(); ++i)
    Add(figures, std::string("cut.") + NameOf(static_cast<CutReason>(i)), _counters.cut[i].Get());
  AddLayers(figures);
  AddKept(figures);
}

void ServerInfo::AddLayers(IniFile::KeyMap& figures) const {
  const settings::server::SettingsManager::Sizes sizes = _manager.GetSizes();
  AddLayer(figures, "defaults", _counters.defaultGroups.Get(), _counters.defaultKeys.Get());
  AddLayer(figures, "user", sizes.userGroups, sizes.userKeys);
  AddLayer(figures, "restricted", _counters.restrictedGroups.Get(), _counters.restrictedKeys.Get());
  AddLayer(figures, "effective", sizes.allGroups, sizes.allKeys);
  Add(figures, "store-bytes", static_cast<unsigned long long>(_manager.GetApproximateBytes()));
}

void ServerInfo::AddKept(IniFile::KeyMap& figures) const {
  Add(figures, "kept", !_kept.path.empty());
  if (_kept.path.empty()) return;
  const unsigned long long unsavedSince = _counters.unsavedSince.Get();
  const unsigned long long lastSave = _counters.lastSave.Get();
  const std::string failure = _counters.failure.Get();
  figures["user-settings"] = _kept.path;
  figures["durability"] = _kept.durability;
  Add(figures, "saved", unsavedSince == 0 && failure.empty());
  if (unsavedSince > 0) Add(figures, "unsaved-since", unsavedSince);
  if (lastSave > 0) Add(figures, "last-save", lastSave);
  Add(figures, "failed-saves", _counters.notSaved.Get());
  if (!failure.empty()) figures["failure"] = failure;
}

}  // namespace tavix::daemon
