#include "programs/common/client/UserLayer.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Writes.h"

namespace tavix::programs {

using core::IniFile;

namespace {

// What one group of the store's layer adds.
void AddSurplus(IniFile::const_iterator group, const IniFile& wanted, IniFile& surplus, size_t& wantedAndThere) {
  const auto& [name, keys] = *group;
  if (!wanted.HasGroup(name)) {
    surplus.MergeGroup(group);
    return;
  }
  for (const auto& [key, value] : keys) {
    if (!wanted.HasValue(name, key)) {
      surplus.SetValue(name, key, value);
    } else if (wanted.GetValue(name, key) == value) {
      ++wantedAndThere;
    }
  }
  if (wanted[name].empty()) ++wantedAndThere;
}

// A group without settings counts as one.
size_t CountParts(const IniFile& settings) {
  size_t count = 0;
  for (const auto& [group, keys] : settings) count += std::max<size_t>(keys.size(), 1);
  return count;
}

IniFile WithoutRestrictedNames(const Session& session, const IniFile& record) {
  IniFile allowed;
  for (const auto& [key, name] : record[kDeletedGroups]) {
    if (!session.IsRestricted(name)) allowed.SetValue(kDeletedGroups, key, name);
  }
  return allowed;
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

void ReadUserLayerEach(Session& session, const std::set<std::string>& groups, const Session::TakeGroup& take) {
  ReadStoreEach(session, groups, true, [&](const IniFile& part) {
    const std::string& name = part.begin()->first;
    if (session.IsRestricted(name)) return;
    if (name != kDeletedGroups) return take(part);
    const IniFile record = WithoutRestrictedNames(session, part);
    if (!record.IsEmpty()) take(record);
  });
}

LayerSurplus ReadSurplus(Session& session, const std::set<std::string>& groups, const UserLayer& wanted) {
  LayerSurplus surplus;
  size_t wantedAndThere = 0;
  ReadUserLayerEach(session, groups, [&](const IniFile& part) {
    if (part.HasGroup(kDeletedGroups)) {
      for (const auto& [key, name] : part[kDeletedGroups]) surplus.deleted.insert(name);
    } else {
      AddSurplus(part.begin(), wanted.settings, surplus.settings, wantedAndThere);
    }
  });
  surplus.differences = CountParts(wanted.settings) - wantedAndThere;
  return surplus;
}

void ReplaceUserLayer(Session& session, const LayerSurplus& surplus, const UserLayer& wanted, bool isWhole) {
  const std::set<std::string> undeleted = Without(surplus.deleted, wanted.deleted);
  std::set<std::string> restored = NamesOf(surplus.settings);
  restored.insert(undeleted.begin(), undeleted.end());
  // Only the whole record can be taken away. Restoring alone leaves it as it is.
  if (isWhole && !undeleted.empty()) restored.insert(kDeletedGroups);
  if (!restored.empty()) Restore(session, restored, [](const IniFile&) {});
  const std::set<std::string> deleted = restored.empty() ? Without(wanted.deleted, surplus.deleted) : wanted.deleted;
  if (!deleted.empty()) {
    Replace(session, deleted, wanted.settings);
  } else if (!wanted.settings.IsEmpty()) {
    Merge(session, wanted.settings, false);
  }
}

}  // namespace tavix::programs
