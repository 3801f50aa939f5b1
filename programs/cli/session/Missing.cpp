#include "programs/cli/session/Missing.h"

#include <cstdlib>
#include <iterator>
#include <vector>

#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"
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

// Looks at the groups beside it, or else at those that share as much as any of the name's begin. A store may be large:
// all groups are never asked for, and none twice.
std::string FindSimilarGroup(Session& session, const std::string& group) {
  const size_t slash = group.rfind('/');
  size_t length = slash == std::string::npos ? (group.size() + 1) / 2 : slash + 1;
  SimilarWord similar(group);
  for (bool hasSeenAny = false; length > 0 && !hasSeenAny; length /= 2) {
    session.GetEachName({group.substr(0, length) + "*"}, [&](const std::string& name) {
      hasSeenAny = true;
      similar.Look(name);
    });
  }
  return similar.Get();
}

// Whether a list of groups can hold the word, and means that name alone by it.
bool IsName(const std::string& word) {
  return word.find_first_of("*\n") == std::string::npos && word != ".";
}

// An older daemon does not report how large it is.
bool IsSmall(Session& session) {
  constexpr long kMaxKeys = 10000;
  const std::map<std::string, std::string> figures = session.GetServerInfo();
  const auto keys = figures.find("keys.effective");
  return keys != figures.end() && std::strtol(keys->second.c_str(), nullptr, 10) <= kMaxKeys;
}

std::set<std::string> FindGroupsOfKey(Session& session, const std::string& key) {
  std::set<std::string> groups;
  session.GetEach({"*"}, [&](const IniFile& part) {
    const std::string& name = part.begin()->first;
    if (part.HasValue(name, key) && !session.IsRestricted(name)) groups.insert(name);
  });
  return groups;
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
  const std::string similar = DidYouMean(FindSimilarGroup(session, group));
  const auto guess = GuessSetting(group);
  if (!similar.empty() || !guess || !guess->hasDot) return text + similar;
  return text + ShowSetting(SpellSetting(guess->group, guess->key));
}

std::string DescribeMissingSetting(Session& session, const std::string& group, const std::string& key) {
  const std::string text = SpellSetting(group, key) + " is not set";
  Session::Groups asked{group};
  if (IsName(key)) asked.insert(key);
  const IniFile found = session.Get(asked);
  if (!found.HasGroup(group)) return text + DidYouMean(FindSimilarGroup(session, group));
  if (found.HasGroup(key)) return text + "; for two groups, use 'show'";
  std::vector<std::string> keys;
  for (const auto& [name, value] : found[group]) keys.push_back(name);
  return text + DidYouMean(key, keys);
}

std::string FindGroupOfKey(Session& session, const std::string& key, bool isFile) {
  if (!isFile && !IsSmall(session)) return std::string();
  const std::set<std::string> groups = FindGroupsOfKey(session, key);
  return groups.size() == 1 ? *groups.begin() : std::string();
}

}  // namespace tavix::programs::cli
