#include "programs/server/SettingsSources.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

#include "programs/server/LayerFiles.h"
#include "programs/server/LinkTarget.h"
#include "programs/server/ReplaceFile.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/LoadPriorityIncludeFilter.h"
#include "tavix/settings/server/SettingsCombiner.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::GroupDiscriminator;
using settings::server::LoadPriorityIncludeFilter;
using settings::server::SettingsCombiner;

namespace {

constexpr char kUserLayer[] = "user settings";

size_t CountGroupsOf(const IniFile& document) {
  return document.GetGroups().size();
}

std::vector<std::string> RestrictedGroupsOf(const IniFile& document) {
  std::vector<std::string> names;
  for (const auto& group : document) {
    if (GroupDiscriminator::IsRestrictedGroup(group.first)) names.push_back(group.first);
  }
  return names;
}

// Waiting for a pipe's writer would hold up the start, or a restore, for ever; a device would become a file by a save.
IniFile LoadFile(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    throw osa::Exception("Failed to open settings file '%s': not a regular file", path.c_str());
  return IniFile(path.c_str());
}

// The names of "before" that "after" lacks.
std::vector<std::string> MissingGroups(const std::vector<std::string>& before, const IniFile& after) {
  std::vector<std::string> missing;
  for (const std::string& group : before) {
    if (!after.HasGroup(group) && group != LoadPriorityIncludeFilter::kGroup) missing.push_back(group);
  }
  return missing;
}

std::vector<std::string> GroupsOf(const IniFile& document) {
  std::vector<std::string> names;
  for (const auto& group : document) names.push_back(group.first);
  return names;
}

LayerSize SizeOf(const IniFile& document) {
  LayerSize size;
  for (const auto& group : document) {
    ++size.groups;
    size.keys += group.second.size();
  }
  return size;
}

void AppendGroups(std::ostream& text, const char* reason, const std::vector<std::string>& groups) {
  for (const std::string& group : groups) text << "\n  dropped, " << reason << ": [" << group << "]";
}

}  // namespace

std::string SettingsSources::Report::ToText() const {
  std::ostringstream text;
  text << layer << ": " << path << ": ";
  if (!notLoaded.empty()) {
    text << notLoaded << ", nothing loaded";
  } else {
    text << groups << (groups == 1 ? " group" : " groups");
  }
  AppendGroups(text, "restricted", dropped);
  AppendGroups(text, "outbid by an earlier file's priority", outbid);
  return text.str();
}

// The user settings' file is replaced by rename, which would turn a link to it into a file.
SettingsSources::SettingsSources(LayerSources defaults, LayerSources restricted, const std::string& userSettings,
                                 Counters& counters)
    : _defaults(std::move(defaults)),
      _restricted(std::move(restricted)),
      _userSettings(FollowLinks(userSettings)),
      _counters(counters) {}

void SettingsSources::LoadDefaultSettings(SettingsCombiner& combiner) {
  const LayerSize size = LoadLayer(Layer::kDefaults, combiner);
  _counters.defaultGroups.Set(size.groups);
  _counters.defaultKeys.Set(size.keys);
}

void SettingsSources::LoadRestrictedSettings(SettingsCombiner& combiner) {
  const LayerSize size = LoadLayer(Layer::kRestricted, combiner);
  _counters.restrictedGroups.Set(size.groups);
  _counters.restrictedKeys.Set(size.keys);
}

const char* SettingsSources::NameOf(Layer layer) {
  return layer == Layer::kDefaults ? "defaults" : "restricted";
}

// The whole layer first, so that it can be counted; no text is copied on the way.
LayerSize SettingsSources::LoadLayer(Layer layer, SettingsCombiner& combiner) {
  IniFile merged;
  for (const LayerFile& file : ListLayerFiles(layer == Layer::kDefaults ? _defaults : _restricted)) {
    if (file.notLoaded.empty()) {
      LoadLayerFile(layer, file.path, combiner, merged);
    } else {
      Remember({NameOf(layer), file.path, 0, {}, {}, file.notLoaded});
    }
  }
  const LayerSize size = SizeOf(merged);
  combiner.Merge(std::move(merged));
  return size;
}

void SettingsSources::LoadLayerFile(Layer layer, const std::string& path, const SettingsCombiner& combiner,
                                    IniFile& merged) {
  IniFile document = LoadFile(path);
  std::vector<std::string> dropped;
  if (layer == Layer::kDefaults) {
    dropped = RestrictedGroupsOf(document);
    GroupDiscriminator::FilterOutRestrictedGroups(document);
  }
  const std::vector<std::string> before = GroupsOf(document);
  combiner.RunFilters(document);
  Remember({NameOf(layer), path, CountGroupsOf(document), std::move(dropped), MissingGroups(before, document), ""});
  merged.MergeSettings(std::move(document));
}

void SettingsSources::LoadUserSettings(SettingsCombiner& combiner) {
  if (_userSettings.empty()) return;
  struct stat status {};
  if (stat(_userSettings.c_str(), &status) != 0 && errno == ENOENT) {
    Remember({kUserLayer, _userSettings, 0, {}, {}, "absent"});
    return;
  }
  IniFile document = LoadFile(_userSettings);
  _counters.userFileBytes.Set(static_cast<unsigned long long>(status.st_size));
  Remember({kUserLayer, _userSettings, CountGroupsOf(document), RestrictedGroupsOf(document), {}, ""});
  combiner.LoadFromIni(std::move(document));
}

void SettingsSources::SaveUserSettings(const IniFile& userSettings) {
  if (_userSettings.empty()) return;
  std::ostringstream text;
  userSettings.SaveToStream(text);
  SaveText(text.str());
}

bool SettingsSources::SaveText(const std::string& text) {
  try {
    ReplaceFile(_userSettings, text);
    _hasUnsavedChange = false;
    _counters.CountSave(text.size());
  } catch (const std::exception& exception) {
    _hasUnsavedChange = true;
    _counters.CountFailedSave();
    core::Logger::GetLogger("SettingsSources")
        ->Error("%s; the change is kept in memory and saved with the next one", exception.what());
  }
  return !_hasUnsavedChange;
}

std::vector<SettingsSources::Report> SettingsSources::GetReports() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _reports;
}

void SettingsSources::Remember(Report report) {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto isSame = [&](const Report& known) { return known.layer == report.layer && known.path == report.path; };
  const auto known = std::find_if(_reports.begin(), _reports.end(), isSame);
  if (known == _reports.end()) {
    _reports.push_back(std::move(report));
  } else {
    *known = std::move(report);
  }
}

size_t SettingsStore::CountGroups() const {
  IniFile all;
  _manager.GetGroups(all, "*");
  return CountGroupsOf(all);
}

bool SettingsStore::SaveLastChange() {
  if (!_sources.HasUnsavedChange()) return true;
  std::ostringstream text;
  _manager.DumpUserSettings(text);
  return _sources.SaveText(text.str());
}

}  // namespace tavix::daemon
