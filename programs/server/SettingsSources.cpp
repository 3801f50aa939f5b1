#include "programs/server/SettingsSources.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <utility>

#include "programs/server/ReplaceFile.h"
#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tavix/settings/server/SettingsCombiner.h"

namespace tavix::daemon {

namespace fs = std::filesystem;

using core::IniFile;
using settings::server::GroupDiscriminator;
using settings::server::SettingsCombiner;

namespace {

// The ini files that a path of the command line stands for.
std::vector<std::string> ListFiles(const std::string& path) {
  std::error_code error;
  if (!fs::is_directory(path, error)) return {path};
  std::vector<std::string> files;
  for (fs::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->path().extension() == ".ini") files.push_back(entry->path().string());
  }
  if (error) throw osa::Exception("Failed to read directory '%s': %s", path.c_str(), error.message().c_str());
  std::sort(files.begin(), files.end());
  return files;
}

template <class Load>
void ForEachFile(const std::vector<std::string>& paths, Load load) {
  for (const std::string& path : paths) {
    for (const std::string& file : ListFiles(path)) load(file);
  }
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

// A file that is replaced by rename would turn a link to it into a file. What a link leads to may not exist yet.
std::string FollowLinks(const std::string& path) {
  constexpr int kMostLinks = 40;  // as the kernel's own limit; a circle is left for the first access to report
  fs::path end = path;
  std::error_code error;
  for (int i = 0; i < kMostLinks; ++i) {
    const fs::path target = fs::read_symlink(end, error);
    if (error) break;
    end = end.parent_path() / target;
  }
  return end.string();
}

}  // namespace

std::string SettingsSources::Report::ToText() const {
  std::ostringstream text;
  text << layer << ": " << path << ": ";
  if (absent) {
    text << "absent, nothing loaded";
  } else {
    text << groups << (groups == 1 ? " group" : " groups");
  }
  for (const std::string& group : dropped) text << "\n  dropped, restricted: [" << group << "]";
  return text.str();
}

SettingsSources::SettingsSources(std::vector<std::string> defaults, std::vector<std::string> restricted,
                                 std::string userSettings)
    : _defaults(std::move(defaults)), _restricted(std::move(restricted)), _userSettings(FollowLinks(userSettings)) {}

void SettingsSources::LoadDefaultSettings(SettingsCombiner& combiner) {
  ForEachFile(_defaults, [&](const std::string& file) {
    IniFile document = LoadFile(file);
    std::vector<std::string> dropped = RestrictedGroupsOf(document);
    GroupDiscriminator::FilterOutRestrictedGroups(document);
    Remember({"defaults", file, CountGroupsOf(document), std::move(dropped), false});
    combiner.LoadFromIni(std::move(document));
  });
}

void SettingsSources::LoadUserSettings(SettingsCombiner& combiner) {
  if (_userSettings.empty()) return;
  struct stat status {};
  if (stat(_userSettings.c_str(), &status) != 0 && errno == ENOENT) {
    Remember({"user settings", _userSettings, 0, {}, true});
    return;
  }
  IniFile document = LoadFile(_userSettings);
  Remember({"user settings", _userSettings, CountGroupsOf(document), RestrictedGroupsOf(document), false});
  combiner.LoadFromIni(std::move(document));
}

void SettingsSources::LoadRestrictedSettings(SettingsCombiner& combiner) {
  ForEachFile(_restricted, [&](const std::string& file) {
    IniFile document = LoadFile(file);
    Remember({"restricted", file, CountGroupsOf(document), {}, false});
    combiner.LoadFromIni(std::move(document));
  });
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
  } catch (const std::exception& exception) {
    _hasUnsavedChange = true;
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
