#include "programs/cli/text/Words.h"

#include <algorithm>
#include <utility>

#include "programs/cli/text/ReadFile.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

using Words = std::vector<std::string>;

bool IsBracketed(const std::string& word) {
  return !word.empty() && word.front() == '[';
}

// Where the group's name ends: a name's own ']' is spelled \x5d.
size_t FindClosingBracket(const std::string& word) {
  const size_t close = word.find(']');
  if (close == std::string::npos)
    throw Failure(kExitUsage, "'" + word + "' has no ']': expected '[group]key'",
                  "quote it, so that the shell leaves the brackets alone");
  return close;
}

std::string GroupOf(const std::string& word) {
  return Unspell(word.substr(1, FindClosingBracket(word) - 1));
}

std::string KeyOf(const std::string& word, size_t end) {
  const size_t begin = FindClosingBracket(word) + 1;
  return Unspell(word.substr(begin, end - begin));
}

// "[group]" alone is a group.
Target ParseBracketed(const std::string& word) {
  Target target{GroupOf(word), std::nullopt};
  if (FindClosingBracket(word) + 1 == word.size()) return target;
  RefusePattern(target.group);
  target.key = KeyOf(word, word.size());
  return target;
}

// Walks over the words of "set".
class AssignmentParser {
 public:
  explicit AssignmentParser(const Words& words) : _words(words) {}

  IniFile Parse() {
    while (_at < _words.size()) {
      const std::string& word = Next("");
      if (!IsBracketed(word)) {
        ParseGroup(word);
      } else if (FindClosingBracket(word) + 1 == word.size()) {
        ParseGroup(GroupOf(word));
      } else {
        ParseBracketedWord(word);
      }
    }
    return std::move(_settings);
  }

 private:
  std::string ValueFrom(const std::string& word) {
    if (word != "-") return word;
    if (_hasReadInput) throw Failure(kExitUsage, "'-' is standard input, which can be one value only");
    _hasReadInput = true;
    std::string value = ReadFile("-");
    if (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
  }

  void ParseBracketedWord(const std::string& word) {
    const size_t equals = word.find('=', FindClosingBracket(word));
    const std::string group = GroupOf(word);
    RefusePattern(group);
    const std::string key = KeyOf(word, std::min(equals, word.size()));
    if (equals != std::string::npos) {
      _settings.SetValue(group, key, word.substr(equals + 1));
    } else {
      _settings.SetValue(group, key, ValueFrom(Next("a value behind '" + word + "'")));
    }
  }

  void ParseGroup(const std::string& group) {
    RefusePattern(group);
    const std::string& word = Next("KEY VALUE or KEY=VALUE behind the group '" + group + "'");
    if (word.find('=') == std::string::npos) {
      _settings.SetValue(group, word, ValueFrom(Next("a value behind '" + group + " " + word + "'")));
      return;
    }
    SetPair(group, word);
    while (_at < _words.size() && !IsBracketed(_words[_at]) && _words[_at].find('=') != std::string::npos)
      SetPair(group, _words[_at++]);
  }

  void SetPair(const std::string& group, const std::string& word) {
    const size_t equals = word.find('=');
    _settings.SetValue(group, word.substr(0, equals), word.substr(equals + 1));
  }

  const std::string& Next(const std::string& what) {
    if (_at == _words.size()) throw Failure(kExitUsage, "expected " + what);
    return _words[_at++];
  }

  const Words& _words;
  size_t _at = 0;
  bool _hasReadInput = false;
  IniFile _settings;
};

}  // namespace

void RefusePattern(const std::string& group) {
  if (group.find('*') != std::string::npos)
    throw Failure(kExitUsage, "'" + group + "' is a pattern: name the group whose settings are meant");
}

std::string Target::ToText() const {
  return key ? SpellSetting(group, *key) : SpellName(group);
}

std::vector<Target> ParseTargets(const Words& words) {
  const auto isPlain = [](const std::string& word) {
    return !IsBracketed(word) && word.find('*') == std::string::npos;
  };
  if (words.size() == 2 && isPlain(words[0]) && isPlain(words[1])) return {{words[0], words[1]}};
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
    if (!settings.back().key)
      throw Failure(kExitUsage, "'" + settings.back().group + "' names no setting: expected '[group]key' or GROUP KEY");
  }
  return settings;
}

IniFile ParseAssignments(const Words& words) {
  return AssignmentParser(words).Parse();
}

IniFile ParseConditions(const Words& words, const std::string& option) {
  for (const std::string& word : words) {
    if (!IsBracketed(word) || word.find('=', FindClosingBracket(word)) == std::string::npos)
      throw Failure(kExitUsage, option + ": expected '[group]key=value', found '" + word + "'");
  }
  return ParseAssignments(words);
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
