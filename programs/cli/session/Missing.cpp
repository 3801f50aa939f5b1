#include "programs/cli/session/Missing.h"

#include <iterator>
#include <vector>

#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"
#include "programs/common/client/Writes.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/common/SettingGuess.h"

namespace tavix::programs::cli {

using core::IniFile;
using settings::common::GuessedSetting;
using settings::common::GuessSetting;

namespace {

bool IsPattern(const std::string& group) {
  return group.find('*') != std::string::npos;
}

bool Matches(const std::string& group, const std::string& pattern) {
  settings::common::GroupNameMatcher matcher;
  matcher.AddNameOrPattern(pattern);
  std::set<std::string> matching;
  matcher.GetMatchingGroups(std::set<std::string>{group}, matching);
  return !matching.empty();
}

// The settings that somebody may have meant who wrote a group's name: its key stands behind the last slash or dot.
std::vector<GuessedSetting> FindMeantSettings(const std::string& word) {
  std::vector<GuessedSetting> settings;
  if (const auto guess = GuessSetting(word)) settings.push_back(*guess);
  for (const char separator : {'/', '.'}) {
    const size_t at = word.rfind(separator);
    if (at == std::string::npos || at == 0 || at + 1 == word.size() || word.substr(0, at) == ".") continue;
    settings.push_back({word.substr(0, at), word.substr(at + 1), separator == '.'});
  }
  return settings;
}

// The one of them that is set, or else the one whose group is there; empty without any.
std::string FindMeantSetting(Session& session, const std::string& word) {
  const std::vector<GuessedSetting> meant = FindMeantSettings(word);
  if (meant.empty()) return std::string();
  std::set<std::string> groups;
  for (const GuessedSetting& setting : meant) groups.insert(setting.group);
  const IniFile found = session.Get(groups);
  for (const GuessedSetting& setting : meant) {
    if (found.HasValue(setting.group, setting.key)) return SpellSetting(setting.group, setting.key);
  }
  for (const GuessedSetting& setting : meant) {
    if (found.HasGroup(setting.group)) return SpellSetting(setting.group, setting.key);
  }
  return std::string();
}

std::string ShowSetting(const std::string& setting) {
  return "; one setting is '" + setting + "'";
}

}  // namespace

void MissingGroups::Take(const std::string& group) {
  for (auto at = _missing.begin(); at != _missing.end();) {
    const bool isFound = IsPattern(*at) ? Matches(group, *at) : *at == group;
    at = isFound ? _missing.erase(at) : std::next(at);
  }
}

void MissingGroups::TakeAll(const IniFile& settings) {
  for (auto group = settings.begin(); group != settings.end() && !_missing.empty(); ++group) Take(group->first);
}

std::string DescribeMissingGroup(Session& session, const std::string& group) {
  if (IsPattern(group)) return "no group matches '" + SpellName(group) + "'";
  const std::string text = "there is no group '" + SpellName(group) + "'";
  const std::string setting = FindMeantSetting(session, group);
  if (!setting.empty()) return text + ShowSetting(setting);
  const std::set<std::string> names = NamesOf(session.Get({"*"}));
  const std::string similar = DidYouMean(group, {names.begin(), names.end()});
  const auto guess = GuessSetting(group);
  if (!similar.empty() || !guess || !guess->hasDot) return text + similar;
  return text + ShowSetting(SpellSetting(guess->group, guess->key));
}

std::string DescribeMissingSetting(Session& session, const std::string& group, const std::string& key) {
  const std::string text = SpellSetting(group, key) + " is not set";
  const IniFile all = session.Get({"*"});
  if (!all.HasGroup(group)) {
    const std::set<std::string> names = NamesOf(all);
    return text + DidYouMean(group, {names.begin(), names.end()});
  }
  if (all.HasGroup(key)) return text + "; for two groups, use 'show'";
  std::vector<std::string> keys;
  for (const auto& [name, value] : all[group]) keys.push_back(name);
  return text + DidYouMean(key, keys);
}

}  // namespace tavix::programs::cli
