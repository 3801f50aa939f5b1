#include "programs/common/client/Import.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Writes.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::programs {

using core::IniFile;

namespace {

void RequireSendable(const IniFile& settings, const std::string& source) {
  try {
    settings::client::ProtocolClient::RequireSendable(settings);
  } catch (const settings::client::ProtocolException& exception) {
    throw Failure(kExitBadInput, Join({source, ": ", exception.what()}));
  }
}

// A layer as one document, with the record of what was deleted as a backup has it, for as long as this lives.
class WithRecord {
 public:
  explicit WithRecord(UserLayer& layer) : _settings(layer.settings) {
    for (const std::string& name : layer.deleted) _settings.SetValue(kDeletedGroups, name, name);
  }
  ~WithRecord() { _settings.RemoveGroup(kDeletedGroups); }

  WithRecord(const WithRecord&) = delete;
  WithRecord& operator=(const WithRecord&) = delete;

 private:
  IniFile& _settings;
};

bool LosesSomething(const IniFile& before, const IniFile& after) {
  if (before.IsEmpty()) return false;
  const auto& [group, keys] = *before.begin();
  if (!after.HasGroup(group)) return true;
  return std::any_of(keys.begin(), keys.end(),
                     [&, &name = group](const auto& entry) { return !after.HasValue(name, entry.first); });
}

}  // namespace

Import::Import(Session& session, IniFile document, const std::string& source, ImportOptions options)
    : _session(session), _options(std::move(options)), _wanted(Select(std::move(document), source)) {
  _session.AllowNew();
  _isEmpty = _wanted.IsEmpty();
  _deleted.AddNamesAndPatterns(_wanted.deleted);
  TakeOutUnchangedRestricted();
  RefuseRestricted(_session, NamesOf(_wanted.settings));
}

// A backup of the user layer tells what was deleted. For a file that is a group like any other.
UserLayer Import::Select(IniFile document, const std::string& source) const {
  if (_options.isFile) return {SelectGroups(std::move(document), _options.groups), {}};
  if (_options.replaces && !_options.isUserLayer && document.HasGroup(kDeletedGroups))
    throw Failure(kExitUsage, Join({"'", source, "' tells what users deleted: it is a backup of the user layer"}),
                  "give --user with --replace");
  UserLayer wanted = UserLayer::From(std::move(document), _options.groups);
  RequireSendable(wanted.settings, source);
  wanted.DropRestrictedDeleted(_session);
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

void Import::FindDifferences(const TakeChange& take) {
  if (ReplacesUserLayer()) return FindLayerDifferences(take);
  Walk([&](const std::string& name, const IniFile& before, IniFile::iterator wanted) {
    for (const Change& change : FindChanges(before, FindAfter(name, before, wanted))) take(change);
  });
}

void Import::FindLayerDifferences(const TakeChange& take) {
  const WithRecord record(_wanted);
  const auto read = [this](const Session::TakeGroup& takeGroup) {
    ReadUserLayerEach(_session, _options.groups, takeGroup);
  };
  WalkOver(read, [&](const std::string& name, const IniFile& before, IniFile::iterator wanted) {
    IniFile after;
    if (wanted != _wanted.settings.end()) after[name] = wanted->second;
    for (const Change& change : FindChanges(before, after)) take(change);
  });
}

Import::Gone Import::FindGone() {
  if (ReplacesUserLayer()) return FindGoneOf(ReadSurplus(_session, _options.groups, _wanted));
  Gone gone;
  Walk([&](const std::string& name, const IniFile& before, IniFile::iterator wanted) {
    if (!before.IsEmpty() && FindAfter(name, before, wanted).IsEmpty()) gone.deleted.insert(gone.deleted.end(), name);
  });
  return gone;
}

Import::Gone Import::FindGoneOf(const LayerSurplus& surplus) const {
  Gone gone;
  gone.reset = Without(NamesOf(surplus.settings), NamesOf(_wanted.settings));
  // Of a group that was deleted and then set again, nothing is left.
  _deleted.GetMatchingGroups(gone.reset, gone.deleted);
  const std::set<std::string> deletions = Without(_wanted.deleted, surplus.deleted);
  if (!deletions.empty()) {
    _session.GetEachName(deletions, [&](const std::string& name) {
      if (!_session.IsRestricted(name) && !_wanted.settings.HasGroup(name)) gone.deleted.insert(name);
    });
  }
  gone.reset = Without(gone.reset, gone.deleted);
  return gone;
}

Import::Result Import::Run(const Confirm& confirm) {
  Result result;
  _session.RunAlone([&] {
    if (ReplacesUserLayer()) {
      result = RunOnUserLayer(confirm);
      return;
    }
    Gone gone;
    std::set<std::string> replaced;
    Walk([&](const std::string& name, const IniFile& before, IniFile::iterator wanted) {
      const IniFile after = FindAfter(name, before, wanted);
      result.differences += FindChanges(before, after).size();
      if (!before.IsEmpty() && after.IsEmpty()) gone.deleted.insert(gone.deleted.end(), name);
      if (!_wanted.deleted.empty()) return;
      if (LosesSomething(before, after)) {
        replaced.insert(replaced.end(), name);
      } else {
        Prune(before, wanted);
      }
    });
    confirm(gone);
    if (_wanted.deleted.empty()) {
      Write(_session, replaced, _wanted.settings);
    } else {
      Replace(_session, _wanted.deleted, _wanted.settings);
    }
  });
  return result;
}

Import::Result Import::RunOnUserLayer(const Confirm& confirm) const {
  const LayerSurplus before = ReadSurplus(_session, _options.groups, _wanted);
  confirm(FindGoneOf(before));
  ReplaceUserLayer(_session, before, _wanted, _options.groups.empty());
  const LayerSurplus after = ReadSurplus(_session, _options.groups, _wanted);
  // A restore makes user settings of the defaults.
  size_t copies = 0;
  for (const auto& [group, keys] : after.settings) copies += keys.size();
  return {CountDifferences(before, after), copies};
}

// Between the layer as it was and as it is, which holds all that is wanted.
size_t Import::CountDifferences(const LayerSurplus& before, const LayerSurplus& after) const {
  size_t count = before.differences;
  for (const Change& change : FindChanges(before.settings, after.settings)) {
    // A group that is wanted is there before and after, whatever it held too much.
    if (change.key || !_wanted.settings.HasGroup(change.group)) ++count;
  }
  count += Without(before.deleted, after.deleted).size() + Without(after.deleted, before.deleted).size();
  const bool isRecordGone = !before.deleted.empty() && after.deleted.empty();
  return count + (isRecordGone ? 1 : 0);
}

// What the store holds where the document may change it.
void Import::ReadBefore(const Session::TakeGroup& take) const {
  const auto takeAllowed = [&](const IniFile& part) {
    if (!_session.IsRestricted(part.begin()->first)) take(part);
  };
  if (_options.replaces) {
    ReadStoreEach(_session, _options.groups, false, takeAllowed);
    return;
  }
  std::set<std::string> groups = NamesOf(_wanted.settings);
  groups.insert(_wanted.deleted.begin(), _wanted.deleted.end());
  _session.GetEach(groups, takeAllowed);
}

// Goes over what is read and the groups of the document together, in ascending order. The visitor may take the group
// out of the document.
void Import::WalkOver(const Read& read, const Visit& visit) {
  IniFile& wanted = _wanted.settings;
  auto next = wanted.begin();
  const auto visitNext = [&](const IniFile& before) {
    const auto group = next++;
    const std::string name = group->first;
    visit(name, before, group);
  };
  read([&](const IniFile& part) {
    const std::string& name = part.begin()->first;
    while (next != wanted.end() && next->first < name) visitNext(IniFile());
    if (next != wanted.end() && next->first == name) {
      visitNext(part);
    } else {
      visit(name, part, wanted.end());
    }
  });
  while (next != wanted.end()) visitNext(IniFile());
}

IniFile Import::FindAfter(const std::string& name, const IniFile& before, IniFile::iterator wanted) {
  IniFile after;
  std::set<std::string> deleted;
  _deleted.GetMatchingGroups(before, deleted);
  if (!_options.replaces && deleted.empty()) after = before;
  if (wanted != _wanted.settings.end()) {
    IniFile::KeyMap& keys = after[name];
    for (const auto& [key, value] : wanted->second) keys.insert_or_assign(key, value);
  }
  return after;
}

// Takes out of the document what the store holds already.
void Import::Prune(const IniFile& before, IniFile::iterator wanted) {
  if (before.IsEmpty() || wanted == _wanted.settings.end()) return;
  IniFile::KeyMap& keys = wanted->second;
  for (const auto& [key, value] : before.begin()->second) {
    const auto same = keys.find(key);
    if (same != keys.end() && same->second == value) keys.erase(same);
  }
  if (keys.empty()) _wanted.settings.RemoveGroup(wanted);
}

}  // namespace tavix::programs
