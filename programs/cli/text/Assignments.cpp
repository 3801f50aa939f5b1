#include "programs/cli/text/Assignments.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "programs/cli/text/ReadFile.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "tavix/settings/common/SettingGuess.h"

namespace tavix::programs::cli {

using core::IniFile;
using settings::common::GuessedSetting;
using settings::common::GuessSetting;
using Place = AssignmentPlace;

namespace {

bool IsPair(const std::string& word) {
  return !IsBracketed(word) && word.find('=') != std::string::npos;
}

// What is to be typed instead. The value may be missing.
std::string Suggest(const std::string& setting, const std::optional<std::string>& value) {
  return "try " + QuoteForShell(setting + "=" + (value ? SpellValue(*value) : "VALUE"));
}

// Takes the words of "set" one by one.
class AssignmentParser {
 public:
  // findGroup: outlives this.
  explicit AssignmentParser(const FindGroup& findGroup) : _findGroup(findGroup) {}

  IniFile Parse(const std::vector<std::string>& words) {
    for (const std::string& word : words) {
      Take(word);
      _place = NextPlace(_place, word);
    }
    if (_place == Place::kKey) FailInGroup();
    if (_place == Place::kValue) FailWithoutValue();
    return std::move(_settings);
  }

 private:
  void Take(const std::string& word) {
    if (_place == Place::kValue) {
      _settings.SetValue(_group, _key, ValueFrom(word));
    } else if (_place == Place::kKey && word.find('=') == std::string::npos) {
      _key = word;
      _shown = _group + " " + word;
    } else if (_place == Place::kKey || (_place == Place::kPair && IsPair(word))) {
      TakePair(word);
    } else if (IsBracketed(word)) {
      TakeBracketed(word);
    } else {
      TakeGroup(word);
      _isBareGroup = true;
    }
  }

  void TakePair(const std::string& word) {
    if (_isBareGroup && IsPair(_group)) FailInGroup();
    const size_t equals = word.find('=');
    _settings.SetValue(_group, word.substr(0, equals), word.substr(equals + 1));
  }

  void TakeBracketed(const std::string& word) {
    const size_t close = FindClosingBracket(word);
    TakeGroup(Unspell(word.substr(1, close - 1)));
    _isBareGroup = false;
    const size_t equals = word.find('=', close);
    _key = Unspell(word.substr(close + 1, std::min(equals, word.size()) - close - 1));
    _shown = word;
    if (equals != std::string::npos) _settings.SetValue(_group, _key, word.substr(equals + 1));
  }

  void TakeGroup(const std::string& group) {
    RefusePattern(group);
    _group = group;
  }

  std::string ValueFrom(const std::string& word) {
    if (word != "-") return word;
    if (_hasReadInput) throw Failure(kExitUsage, "'-' is standard input, which can be one value only");
    _hasReadInput = true;
    std::string value = ReadFile("-");
    if (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
  }

  // A group stands at the end, or in front of a pair that can't be its own.
  [[noreturn]] void FailInGroup() const {
    const std::string expected = "expected KEY VALUE or KEY=VALUE behind the group '" + _group + "'";
    if (!_isBareGroup) throw Failure(kExitUsage, expected);
    const size_t equals = _group.find('=');
    const std::string name = _group.substr(0, equals);
    const std::optional<GuessedSetting> guess = GuessSetting(name);
    if (equals == std::string::npos && (!guess || !guess->hasDot)) throw Failure(kExitUsage, expected);
    const std::string setting = guess ? SpellSetting(guess->group, guess->key) : SpellBareKey(name);
    std::optional<std::string> value;
    if (equals != std::string::npos) value = _group.substr(equals + 1);
    const std::string reason = value ? "'" + SpellValue(_group) + "' names no group" : expected;
    throw Failure(kExitUsage, reason + ": one setting is '" + setting + "'", Suggest(setting, value));
  }

  std::string SpellBareKey(const std::string& key) const {
    const std::string group = _findGroup ? _findGroup(key) : std::string();
    return group.empty() ? "[group]" + SpellKey(key) : SpellSetting(group, key);
  }

  [[noreturn]] void FailWithoutValue() const {
    const std::string expected = "expected a value behind '" + _shown + "'";
    const std::optional<GuessedSetting> guess = _isBareGroup ? GuessSetting(_group) : std::nullopt;
    if (!guess || !guess->hasDot) throw Failure(kExitUsage, expected);
    const std::string setting = SpellSetting(guess->group, guess->key);
    throw Failure(kExitUsage, expected + ": one setting is '" + setting + "'", Suggest(setting, _key));
  }

  const FindGroup& _findGroup;
  Place _place = Place::kStart;
  std::string _group;
  bool _isBareGroup = false;  // the group stands there without brackets
  std::string _key;
  std::string _shown;  // what stands in front of a value, for people
  bool _hasReadInput = false;
  IniFile _settings;
};

}  // namespace

AssignmentPlace NextPlace(AssignmentPlace place, const std::string& word) {
  if (place == Place::kValue) return Place::kStart;
  if (place == Place::kKey) return word.find('=') != std::string::npos ? Place::kPair : Place::kValue;
  if (place == Place::kPair && IsPair(word)) return Place::kPair;
  if (!IsBracketed(word)) return Place::kKey;
  const size_t close = word.find(']');
  if (close == std::string::npos) return Place::kStart;  // a mistake, reported elsewhere
  if (close + 1 == word.size()) return Place::kKey;
  return word.find('=', close) != std::string::npos ? Place::kStart : Place::kValue;
}

IniFile ParseAssignments(const std::vector<std::string>& words, const FindGroup& findGroup) {
  return AssignmentParser(findGroup).Parse(words);
}

IniFile ParseConditions(const std::vector<std::string>& words, const std::string& option) {
  for (const std::string& word : words) {
    if (!IsBracketed(word) || word.find('=', FindClosingBracket(word)) == std::string::npos)
      throw Failure(kExitUsage, option + ": expected '[group]key=value', found '" + word + "'");
  }
  return ParseAssignments(words);
}

}  // namespace tavix::programs::cli
