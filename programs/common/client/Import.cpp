#include "programs/common/client/Import.h"

#include <utility>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Writes.h"
#include "tavix/settings/client/ProtocolClient.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs {

using core::IniFile;

namespace {

void RequireSendable(const IniFile& settings, const std::string& source) {
  try {
    settings::client::ProtocolClient::RequireSendable(settings);
  } catch (const settings::client::ProtocolException& exception) {
    throw Failure(kExitBadInput, source + ": " + exception.what());
  }
}

std::set<std::string> FindLost(const IniFile& before, const IniFile& after) {
  std::set<std::string> names;
  for (const auto& [group, keys] : before) {
    if (!after.HasGroup(group)) names.insert(names.end(), group);
  }
  return names;
}

}  // namespace

Import::Import(Session& session, const IniFile& document, const std::string& source, ImportOptions options)
    : _session(session), _options(std::move(options)), _wanted(Select(document, source)) {
  _session.AllowNew();
  _isEmpty = _wanted.IsEmpty();
  TakeOutUnchangedRestricted();
  RefuseRestricted(_session, NamesOf(_wanted.settings));
}

// A backup of the user layer tells what was deleted. For a file that is a group like any other.
UserLayer Import::Select(const IniFile& document, const std::string& source) const {
  if (_options.isFile) return {SelectGroups(document, _options.groups), {}};
  if (_options.replaces && !_options.isUserLayer && document.HasGroup(kDeletedGroups))
    throw Failure(kExitUsage, "'" + source + "' tells what users deleted: it is a backup of the user layer",
                  "give --user with --replace");
  UserLayer wanted = UserLayer::From(document, _options.groups);
  RequireSendable(wanted.settings, source);
  UserLayer allowed = wanted;
  allowed.DropRestricted(_session);
  wanted.deleted = allowed.deleted;
  return wanted;
}

// Nobody has to write what stands there already.
void Import::TakeOutUnchangedRestricted() {
  std::set<std::string> restricted;
  for (const auto& [group, keys] : _wanted.settings) {
    if (_session.IsRestricted(group)) restricted.insert(group);
  }
  if (restricted.empty()) return;
  const IniFile current = _session.Get(restricted);
  for (const auto& [group, keys] : current) {
    if (_wanted.settings[group] == keys) _wanted.settings.RemoveGroup(group);
  }
}

std::vector<Change> Import::FindDifferences() const {
  const IniFile before = ReadBefore();
  return FindChanges(before, FindAfter(before));
}

std::set<std::string> Import::FindGone() const {
  const IniFile before = ReadBefore();
  return FindLost(before, FindAfter(before));
}

Import::Result Import::Run(const std::function<void(const std::set<std::string>& gone)>& confirm) {
  Result result;
  _session.RunAlone([&] {
    const IniFile before = ReadBefore();
    const IniFile after = FindAfter(before);
    confirm(FindLost(before, after));
    Write(before, after);
    result.changes = FindChanges(before, ReplacesUserLayer() ? ReadBefore() : after);
    if (ReplacesUserLayer()) result.copies = CountCopies();
  });
  return result;
}

UserLayer Import::ReadUserLayer() const {
  UserLayer layer = UserLayer::From(_session.GetUserSettings(), _options.groups);
  layer.DropRestricted(_session);
  return layer;
}

// What the store holds where the document may change it.
IniFile Import::ReadBefore() const {
  if (ReplacesUserLayer()) return ReadUserLayer().ToDocument();
  if (!_options.replaces) {
    std::set<std::string> groups = NamesOf(_wanted.settings);
    groups.insert(_wanted.deleted.begin(), _wanted.deleted.end());
    return WithoutRestricted(_session.Get(groups));
  }
  size_t leftOut = 0;
  return WithoutRestricted(ReadStore(_session, _options.groups, false, leftOut));
}

IniFile Import::WithoutRestricted(IniFile settings) const {
  for (const std::string& name : NamesOf(settings)) {
    if (_session.IsRestricted(name)) settings.RemoveGroup(name);
  }
  return settings;
}

IniFile Import::FindAfter(const IniFile& before) const {
  if (_options.replaces) return ReplacesUserLayer() ? _wanted.ToDocument() : _wanted.settings;
  IniFile after = before;
  if (!_wanted.deleted.empty()) {
    settings::common::GroupNameMatcher matcher;
    matcher.AddNamesAndPatterns(_wanted.deleted);
    std::set<std::string> gone;
    matcher.GetMatchingGroups(before, gone);
    for (const std::string& group : gone) after.RemoveGroup(group);
  }
  after.MergeSettings(_wanted.settings);
  return after;
}

void Import::Write(const IniFile& before, const IniFile& after) const {
  if (ReplacesUserLayer()) {
    ReplaceUserLayer(_session, ReadUserLayer(), _wanted, _options.groups.empty());
  } else if (!_wanted.deleted.empty()) {
    Replace(_session, _wanted.deleted, _wanted.settings);
  } else {
    Apply(_session, before, after);
  }
}

// A restore makes user settings of the defaults.
size_t Import::CountCopies() const {
  size_t count = 0;
  const UserLayer now = ReadUserLayer();
  for (const auto& [group, keys] : now.settings) {
    for (const auto& [key, value] : keys) count += _wanted.settings.HasValue(group, key) ? 0 : 1;
  }
  return count;
}

}  // namespace tavix::programs
