#include "programs/server/store/SettingsSources.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <string_view>
#include <utility>

#include "programs/server/persistence/LongLine.h"
#include "programs/server/store/FilePlaces.h"
#include "programs/server/store/LayerFiles.h"
#include "programs/server/store/LayerGroups.h"
#include "programs/server/store/LongNames.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/LoadPriorityIncludeFilter.h"
#include "tavix/settings/server/SettingsCombiner.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::GroupDiscriminator;
using settings::server::LoadPriorityIncludeFilter;
using settings::server::SettingsCombiner;

namespace {

const IniFile::GroupFilter kAllGroups;

constexpr char kUserLayer[] = "user settings";
constexpr char kWrong[] = "error";  // in a report, of a file whose problem is told by itself
constexpr char kUnrestricted[] = "clients can change, until the next start, groups whose names are not restricted: ";

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("SettingsSources");
  return logger;
}

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

std::string DescribeTime(const timespec& time) {
  return ' ' + std::to_string(time.tv_sec) + '.' + std::to_string(time.tv_nsec);
}

// A file that is written or replaced has another description.
std::string DescribeFile(const struct stat& status) {
  return std::to_string(status.st_dev) + ' ' + std::to_string(status.st_ino) + ' ' + std::to_string(status.st_size) +
         DescribeTime(status.st_mtim) + DescribeTime(status.st_ctim);
}

// Waiting for a pipe's writer would hold up the start, or a restore, for ever; a device would become a file by a save.
IniFile LoadFile(const std::string& path, const IniFile::GroupFilter& isWanted) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    throw osa::Exception("Failed to open settings file '%s': not a regular file", path.c_str());
  IniFile document;
  document.LoadGroups(path.c_str(), isWanted);
  return document;
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
  if (!unrestricted.empty()) text << "\n  warning: " << kUnrestricted << SummarizeGroups(unrestricted);
  return text.str();
}

SettingsSources::SettingsSources(const Options& options, Counters& counters)
    : _defaults(options.defaults),
      _restricted(options.restricted),
      _userSettings(options.userSettings),
      _isCheck(options.action == Options::Action::kCheck),
      _maxNameBytes(options.limits.nameBytes),
      _counters(counters) {}

void SettingsSources::LoadDefaultSettings(SettingsCombiner& combiner) {
  const std::string files = DescribeDefaults();  // before they are read: what changes meanwhile is seen next time
  bool isPart = static_cast<bool>(combiner.GetWanted());
  if (isPart) {
    osa::PlainMutexLock lock(_mutex);
    isPart = files == _loadedDefaults;
  }
  const LayerSize size = LoadLayer(Layer::kDefaults, combiner, isPart ? combiner.GetWanted() : kAllGroups);
  if (isPart) return;
  _counters.defaultGroups.Set(size.groups);
  _counters.defaultKeys.Set(size.keys);
  _areDefaultsLoaded = true;
  osa::PlainMutexLock lock(_mutex);
  _loadedDefaults = files;
}

// What files there are, and what tells that one has changed. Throws what to load them would throw.
std::string SettingsSources::DescribeDefaults() const {
  if (_isCheck) return {};
  std::string text;
  for (const LayerFile& file : ListLayerFiles(_defaults)) {
    struct stat status {};
    const bool isThere = stat(file.path.c_str(), &status) == 0;
    text += file.path + '\n' + (isThere ? DescribeFile(status) : "") + '\n';
  }
  return text;
}

void SettingsSources::LoadRestrictedSettings(SettingsCombiner& combiner) {
  const LayerSize size = LoadLayer(Layer::kRestricted, combiner, kAllGroups);
  _counters.restrictedGroups.Set(size.groups);
  _counters.restrictedKeys.Set(size.keys);
}

const char* SettingsSources::NameOf(Layer layer) {
  return layer == Layer::kDefaults ? "defaults" : "restricted";
}

// False when it failed and that is for GetProblems to tell.
template <class Step>
bool SettingsSources::Try(Step step) {
  if (!_isCheck) {
    step();
    return true;
  }
  try {
    step();
    return true;
  } catch (const std::exception& exception) {
    osa::PlainMutexLock lock(_mutex);
    _problems.emplace_back(exception.what());
    return false;
  }
}

// The whole layer first, so that it can be counted; no text is copied on the way.
LayerSize SettingsSources::LoadLayer(Layer layer, SettingsCombiner& combiner, const IniFile::GroupFilter& isWanted) {
  IniFile merged;
  std::vector<LayerFile> files;
  Try([&] { files = ListLayerFiles(layer == Layer::kDefaults ? _defaults : _restricted); });
  for (const LayerFile& file : files) {
    if (!file.notLoaded.empty()) {
      Remember({NameOf(layer), file.path, 0, {}, {}, {}, file.notLoaded});
    } else if (!Try([&] { LoadLayerFile(layer, file.path, combiner, isWanted, merged); })) {
      Remember({NameOf(layer), file.path, 0, {}, {}, {}, kWrong});
    }
  }
  const LayerSize size = SizeOf(merged);
  if (_isCheck) _layerBytes += settings::server::SettingsManager::CountApproximateBytes(merged);
  combiner.Merge(std::move(merged));
  return size;
}

void SettingsSources::LoadLayerFile(Layer layer, const std::string& path, const SettingsCombiner& combiner,
                                    const IniFile::GroupFilter& isWanted, IniFile& merged) {
  const bool isRestrictedDropped = layer == Layer::kDefaults;
  std::atomic<bool> isAnyUnlistable{false};
  // Names are looked at while the file is read: to walk over a large document costs as much as to read a tenth of it.
  IniFile document = LoadFile(path, [&](std::string_view name) {
    if (IsUnlistableGroup(name)) isAnyUnlistable = true;
    if (isRestrictedDropped && !_isCheck && GroupDiscriminator::IsRestrictedGroup(std::string(name))) return false;
    return !isWanted || isWanted(name);
  });
  if (layer == Layer::kRestricted || !_areDefaultsLoaded) WarnOfLongNames(path, document);
  if (isAnyUnlistable) {
    for (const std::string& message : TakeUnlistableGroups(document, path)) WarnOnce(message);
  }
  Report report{NameOf(layer), path, 0, {}, {}, {}, ""};
  if (isRestrictedDropped && _isCheck) {
    report.dropped = RestrictedGroupsOf(document);
    GroupDiscriminator::FilterOutRestrictedGroups(document);
  }
  const std::vector<std::string> before = _isCheck ? GroupsOf(document) : std::vector<std::string>();
  combiner.RunFilters(document);
  report.outbid = MissingGroups(before, document);
  report.groups = CountGroupsOf(document);
  if (layer == Layer::kRestricted) WarnOfUnrestricted(document, report);
  Remember(std::move(report));
  merged.MergeSettings(std::move(document));
}

// Most files need no look at their names, see HasLongLine.
void SettingsSources::WarnOfLongNames(const std::string& path, const IniFile& document) const {
  if (_maxNameBytes < kLongLine || FileHasLongLine(path)) daemon::WarnOfLongNames(path, document, _maxNameBytes);
}

void SettingsSources::WarnOfUnrestricted(const IniFile& document, Report& report) {
  std::vector<std::string> names = FindUnrestrictedGroups(document);
  if (names.empty()) return;
  if (_isCheck) {
    report.unrestricted = std::move(names);
  } else {
    Log()->Warning("'%s': %s%s", report.path.c_str(), kUnrestricted, SummarizeGroups(names).c_str());
  }
}

// Each restore loads the defaults again, and their files may have changed.
void SettingsSources::WarnOnce(const std::string& message) {
  osa::PlainMutexLock lock(_mutex);
  if (!_warnings.insert(message).second) return;
  if (_isCheck) {
    _problems.push_back(message);
  } else {
    Log()->Warning("%s", message.c_str());
  }
}

void SettingsSources::OnUserSettingsFound(const FoundUserSettings& found) {
  _counters.userFileBytes.Set(found.snapshotBytes);
  if (found.hasLongLine || _maxNameBytes < kLongLine)
    daemon::WarnOfLongNames(_userSettings, found.settings, _maxNameBytes);
  RememberUserSettings(found, found.isAbsent && found.settings.IsEmpty() ? "absent" : "");
}

void SettingsSources::LoadUserSettings(SettingsCombiner& combiner) {
  if (_userSettings.empty()) return;
  FoundUserSettings found;
  const bool isFound = Try([&] {
    FoundUserSettings all = UserSettingsFiles(GetSystemFiles(), ResolveUserSettings(_userSettings)).Find(false);
    if (!all.problems.empty()) throw osa::Exception("%s", all.problems.front().c_str());
    found = std::move(all);
  });
  if (isFound) {
    OnUserSettingsFound(found);
  } else {
    RememberUserSettings(found, kWrong);
  }
  combiner.LoadFromIni(std::move(found.settings));
}

void SettingsSources::RememberUserSettings(const FoundUserSettings& found, const char* notLoaded) {
  Remember({kUserLayer,
            _userSettings,
            CountGroupsOf(found.settings),
            found.mayHaveRestricted ? RestrictedGroupsOf(found.settings) : std::vector<std::string>(),
            {},
            {},
            notLoaded});
}

std::vector<SettingsSources::Report> SettingsSources::GetReports() const {
  osa::PlainMutexLock lock(_mutex);
  return _reports;
}

std::vector<std::string> SettingsSources::GetProblems() const {
  osa::PlainMutexLock lock(_mutex);
  return _problems;
}

void SettingsSources::Remember(Report report) {
  osa::PlainMutexLock lock(_mutex);
  const auto isSame = [&](const Report& known) { return known.layer == report.layer && known.path == report.path; };
  const auto known = std::find_if(_reports.begin(), _reports.end(), isSame);
  if (known == _reports.end()) {
    _reports.push_back(std::move(report));
  } else {
    *known = std::move(report);
  }
}

}  // namespace tavix::daemon
