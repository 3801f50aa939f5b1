#include "programs/cli/text/Words.h"

#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "tavix/settings/common/SettingGuess.h"

namespace tavix::programs::cli {

using Words = std::vector<std::string>;
using settings::common::GuessedSetting;
using settings::common::GuessSetting;

namespace {

[[noreturn]] void FailWithoutKey(const std::string& word) {
  const std::optional<GuessedSetting> guess = GuessSetting(word);
  const std::string form = guess && guess->hasDot ? "one setting is '" + SpellSetting(guess->group, guess->key) + "'"
                                                  : "expected '[group]key' or GROUP KEY";
  throw Failure(kExitUsage, "'" + word + "' names no setting: " + form);
}

}  // namespace

bool IsBracketed(const std::string& word) {
  return !word.empty() && word.front() == '[';
}

bool IsPlainName(const std::string& word) {
  return !IsBracketed(word) && word.find('*') == std::string::npos;
}

size_t FindClosingBracket(const std::string& word) {
  const size_t close = word.find(']');
  if (close == std::string::npos)
    throw Failure(kExitUsage, "'" + word + "' has no ']': expected '[group]key'",
                  "quote it, so that the shell leaves the brackets alone");
  return close;
}

Target ParseBracketed(const std::string& word) {
  const size_t close = FindClosingBracket(word);
  Target target{Unspell(word.substr(1, close - 1)), std::nullopt};
  if (close + 1 == word.size()) return target;
  RefusePattern(target.group);
  target.key = Unspell(word.substr(close + 1));
  return target;
}

void RefuseEmptyName(const std::set<std::string>& groups, bool isAllowed) {
  if (!isAllowed && groups.count("") != 0)
    throw Failure(kExitUsage, "the name of a group is empty, as that of a variable that is not set",
                  "--allow-empty takes it as it is");
}

void RefusePattern(const std::string& group) {
  if (group.find('*') != std::string::npos)
    throw Failure(kExitUsage, "'" + group + "' is a pattern: name the group whose settings are meant");
}

std::string Target::ToText() const {
  return key ? SpellSetting(group, *key) : SpellName(group);
}

std::vector<Target> ParseTargets(const Words& words) {
  if (words.size() == 2 && IsPlainName(words[0]) && IsPlainName(words[1])) return {{words[0], words[1]}};
  std::vector<Target> targets;
  for (const std::string& word : words)
    targets.push_back(IsBracketed(word) ? ParseBracketed(word) : Target{word, std::nullopt});
  return targets;
}

std::vector<Target> ParseSettings(const Words& words) {
  std::vector<Target> settings;
  for (size_t at = 0; at < words.size(); ++at) {
    if (IsBracketed(words[at])) {
      settings.push_back(ParseBracketed(words[at]));
    } else if (at + 1 < words.size() && !IsBracketed(words[at + 1])) {
      RefusePattern(words[at]);
      settings.push_back({words[at], words[at + 1]});
      ++at;
    } else {
      settings.push_back({words[at], std::nullopt});
    }
    if (!settings.back().key) FailWithoutKey(settings.back().group);
  }
  return settings;
}

std::set<std::string> ParseSelection(const Words& words) {
  return words.empty() ? std::set<std::string>() : ParseGroups(words);
}

std::set<std::string> ParseGroups(const Words& words) {
  std::set<std::string> groups;
  for (const std::string& word : words) {
    const Target target = IsBracketed(word) ? ParseBracketed(word) : Target{word, std::nullopt};
    if (target.key) throw Failure(kExitUsage, "'" + word + "' is a setting; this command takes groups and patterns");
    groups.insert(target.group);
  }
  if (groups.empty()) groups.insert("*");
  return groups;
}

}  // namespace tavix::programs::cli
