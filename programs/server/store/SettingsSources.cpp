#include "programs/server/store/SettingsSources.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

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

namespace tavix::daemon {

using core::IniFile;
using settings::server::GroupDiscriminator;
using settings::server::LoadPriorityIncludeFilter;
using settings::server::SettingsCombiner;

namespace {

constexpr char kUserLayer[] = "user settings";
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
  if (!unrestricted.empty()) text << "\n  warning: " << kUnrestricted << SummarizeGroups(unrestricted);
  return text.str();
}

namespace {

constexpr size_t kMaxDeletedPatterns = 1024;  // each is tried on the defaults at each start
constexpr char kWrong[] = "error";            // in a report, of a file whose problem is told by itself

std::unique_ptr<UserSettingsPersister> MakePersister(const Options& options, const std::string& path,
                                                     Counters& counters) {
  if (path.empty() || options.action == Options::Action::kCheck) return nullptr;
  const auto count = [&counters](bool succeeded, size_t bytes) {
    if (succeeded) {
      counters.CountSave(bytes);
    } else {
      counters.CountFailedSave();
    }
  };
  const auto noteUnsaved = [&counters](std::time_t since) {
    counters.unsavedSince.Set(static_cast<unsigned long long>(since));
  };
  return std::make_unique<UserSettingsPersister>(GetSystemFiles(), path, options.durability, count, noteUnsaved);
}

}  // namespace

SettingsSources::SettingsSources(const Options& options, Counters& counters)
    : _defaults(options.defaults),
      _restricted(options.restricted),
      _userSettings(options.userSettings),
      _isCheck(options.action == Options::Action::kCheck),
      _mostForTheEnd(options.stopSeconds),
      _maxNameBytes(options.limits.nameBytes),
      _maxStoreBytes(options.limits.storeBytes),
      _counters(counters),
      _persister(MakePersister(options, _userSettings, counters)) {}

void SettingsSources::LoadDefaultSettings(SettingsCombiner& combiner) {
  const LayerSize size = LoadLayer(Layer::kDefaults, combiner);
  _counters.defaultGroups.Set(size.groups);
  _counters.defaultKeys.Set(size.keys);
  _areDefaultsLoaded = true;
}

void SettingsSources::LoadRestrictedSettings(SettingsCombiner& combiner) {
  const LayerSize size = LoadLayer(Layer::kRestricted, combiner);
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
    std::lock_guard<std::mutex> lock(_mutex);
    _problems.emplace_back(exception.what());
    return false;
  }
}

// The whole layer first, so that it can be counted; no text is copied on the way.
LayerSize SettingsSources::LoadLayer(Layer layer, SettingsCombiner& combiner) {
  IniFile merged;
  std::vector<LayerFile> files;
  Try([&] { files = ListLayerFiles(layer == Layer::kDefaults ? _defaults : _restricted); });
  for (const LayerFile& file : files) {
    if (!file.notLoaded.empty()) {
      Remember({NameOf(layer), file.path, 0, {}, {}, {}, file.notLoaded});
    } else if (!Try([&] { LoadLayerFile(layer, file.path, combiner, merged); })) {
      Remember({NameOf(layer), file.path, 0, {}, {}, {}, kWrong});
    }
  }
  const LayerSize size = SizeOf(merged);
  if (_isCheck) _layerBytes += settings::server::SettingsManager::CountApproximateBytes(merged);
  combiner.Merge(std::move(merged));
  return size;
}

void SettingsSources::LoadLayerFile(Layer layer, const std::string& path, const SettingsCombiner& combiner,
                                    IniFile& merged) {
  IniFile document = LoadFile(path);
  if (layer == Layer::kRestricted || !_areDefaultsLoaded) WarnOfLongNames(path, document, _maxNameBytes);
  for (const std::string& message : TakeUnlistableGroups(document, path)) WarnOnce(message);
  Report report{NameOf(layer), path, 0, {}, {}, {}, ""};
  if (layer == Layer::kDefaults) {
    if (_isCheck) report.dropped = RestrictedGroupsOf(document);
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
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_warnings.insert(message).second) return;
  if (_isCheck) {
    _problems.push_back(message);
  } else {
    Log()->Warning("%s", message.c_str());
  }
}

void SettingsSources::LoadUserSettings(SettingsCombiner& combiner) {
  if (_userSettings.empty()) return;
  FoundUserSettings found;
  const bool isFound = Try([&] { found = FindUserSettings(); });
  _counters.userFileBytes.Set(found.snapshotBytes);
  WarnOfLongNames(_userSettings, found.settings, _maxNameBytes);
  const bool isAbsent = found.isAbsent && found.settings.IsEmpty();
  Remember({kUserLayer,
            _userSettings,
            CountGroupsOf(found.settings),
            RestrictedGroupsOf(found.settings),
            {},
            {},
            !isFound   ? kWrong
            : isAbsent ? "absent"
                       : ""});
  combiner.LoadFromIni(std::move(found.settings));
}

FoundUserSettings SettingsSources::FindUserSettings() {
  if (_persister) return _persister->Load();
  FoundUserSettings found = UserSettingsFiles(GetSystemFiles(), ResolveUserSettings(_userSettings)).Find(false);
  if (!found.problems.empty()) throw osa::Exception("%s", found.problems.front().c_str());
  return found;
}

void SettingsSources::SaveUserSettings(const IniFile& userSettings) {
  SaveChangedGroups(userSettings, [&] {
    std::set<std::string> all;
    for (const auto& group : userSettings) all.insert(group.first);
    return all;
  }());
}

void SettingsSources::SaveChangedGroups(const IniFile& userSettings, const std::set<std::string>& changedGroups) {
  if (_persister) _persister->Save(userSettings, changedGroups);
}

void SettingsSources::SaveAddedSettings(const IniFile& userSettings, const std::set<std::string>& changedGroups,
                                        const IniFile& added) {
  if (_persister) _persister->Save(userSettings, changedGroups, added);
}

void SettingsSources::NoteUnchangedGroups(const settings::common::GroupNameMatcher& groups) {
  if (_persister) _persister->GetGate().NoteReliance(groups);
}

std::vector<SettingsSources::Report> SettingsSources::GetReports() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _reports;
}

std::vector<std::string> SettingsSources::GetProblems() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _problems;
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

SettingsStore::SettingsStore(SettingsSources& sources)
    : _sources(sources), _manager(&sources, &sources, nullptr, false) {
  _manager.SetMaxBytes(sources.GetMaxStoreBytes());
  _manager.SetMaxDeletedPatterns(kMaxDeletedPatterns);
  if (UserSettingsPersister* persister = _sources.GetPersister())
    persister->Start([this](const auto& reader) { _manager.ReadUserSettings(reader); });
}

SettingsStore::~SettingsStore() {
  if (UserSettingsPersister* persister = _sources.GetPersister()) persister->Stop();
}

size_t SettingsStore::CountGroups() const {
  return _manager.GetSizes().allGroups;
}

std::string SettingsStore::DescribeFullness() const {
  const size_t bytes = _manager.GetApproximateBytes();
  const size_t max = _sources.GetMaxStoreBytes();
  if (max == 0 || bytes <= max) return "";
  return "The settings take about " + std::to_string(bytes) + " bytes of memory, more than --max-store " +
         std::to_string(max) + ": only changes that do not make them larger are carried out";
}

DurabilityGate* SettingsStore::GetGate() {
  UserSettingsPersister* const persister = _sources.GetPersister();
  return persister ? &persister->GetGate() : nullptr;
}

bool SettingsStore::Finish(const std::function<void(bool isSaved)>& onLate) {
  UserSettingsPersister* const persister = _sources.GetPersister();
  return !persister || persister->Finish(_sources.GetMostForTheEnd(), onLate);
}

}  // namespace tavix::daemon
