#include "programs/common/client/UserLayer.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs {

using core::IniFile;

namespace {

bool HoldsAllKeys(const IniFile& wanted, const std::string& group, const IniFile::KeyMap& keys) {
  if (!wanted.HasGroup(group)) return false;
  return std::all_of(keys.begin(), keys.end(), [&](const auto& entry) { return wanted.HasValue(group, entry.first); });
}

// The groups that are not wanted, or hold a setting that is not.
std::set<std::string> FindUnwanted(const IniFile& before, const IniFile& wanted) {
  std::set<std::string> names;
  for (const auto& [group, keys] : before) {
    if (!HoldsAllKeys(wanted, group, keys)) names.insert(names.end(), group);
  }
  return names;
}

}  // namespace

UserLayer UserLayer::From(IniFile document, const std::set<std::string>& groups) {
  UserLayer layer{SelectUserGroups(std::move(document), groups), {}};
  if (!layer.settings.HasGroup(kDeletedGroups)) return layer;
  for (const auto& [key, name] : layer.settings[kDeletedGroups]) layer.deleted.insert(name);
  layer.settings.RemoveGroup(kDeletedGroups);
  return layer;
}

void UserLayer::DropRestricted(const Session& session) {
  for (const std::string& name : NamesOf(settings)) {
    if (session.IsRestricted(name)) settings.RemoveGroup(name);
  }
  DropRestrictedDeleted(session);
}

void UserLayer::DropRestrictedDeleted(const Session& session) {
  for (auto name = deleted.begin(); name != deleted.end();)
    name = session.IsRestricted(*name) ? deleted.erase(name) : std::next(name);
}

IniFile UserLayer::ToDocument() const {
  IniFile document = settings;
  for (const std::string& name : deleted) document.SetValue(kDeletedGroups, name, name);
  return document;
}

void ReplaceUserLayer(Session& session, const UserLayer& before, const UserLayer& wanted, bool isWhole) {
  const std::set<std::string> undeleted = Without(before.deleted, wanted.deleted);
  std::set<std::string> restored = FindUnwanted(before.settings, wanted.settings);
  restored.insert(undeleted.begin(), undeleted.end());
  // Only the whole record can be taken away. Restoring alone leaves it as it is.
  if (isWhole && !undeleted.empty()) restored.insert(kDeletedGroups);
  if (!restored.empty()) Restore(session, restored);
  const std::set<std::string> deleted = restored.empty() ? Without(wanted.deleted, before.deleted) : wanted.deleted;
  if (!deleted.empty()) {
    Replace(session, deleted, wanted.settings);
  } else if (!wanted.settings.IsEmpty()) {
    Merge(session, wanted.settings, false);
  }
}

}  // namespace tavix::programs
