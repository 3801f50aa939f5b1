#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

// What words on the command line mean. "[group]key" names a setting, spelled as in settings text; GROUP and KEY as two
// bare words name it as they are; a bare word alone is a group, or a '*' pattern of groups. A setting of a pattern is
// refused: what names a group for reading or replacing would mean others too.
namespace tavix::programs::cli {

// A group or pattern, or with a key one setting.
struct Target {
  std::string group;
  std::optional<std::string> key;

  bool IsPattern() const { return group.find('*') != std::string::npos; }

  // As a person would write it.
  std::string ToText() const;
};

// Throws Failure, kExitUsage, for a pattern.
void RefusePattern(const std::string& group);

// Throws Failure, kExitUsage, when one of the names is empty, unless that is allowed.
void RefuseEmptyName(const std::set<std::string>& groups, bool isAllowed);

// Whether the word begins with a bracket; whether it is a name and neither that nor a pattern.
bool IsBracketed(const std::string& word);
bool IsPlainName(const std::string& word);

// Where the group's name ends in a bracketed word: a name's own ']' is spelled \x5d. Throws Failure, kExitUsage, when
// there is no end.
size_t FindClosingBracket(const std::string& word);

// "[group]key" as a setting, "[group]" as a group.
Target ParseBracketed(const std::string& word);

// Words as targets. Two bare words alone are GROUP KEY; otherwise each bare word is a group.
std::vector<Target> ParseTargets(const std::vector<std::string>& words);

// Words as settings that exist or not: "[group]key" each, or GROUP KEY in pairs. Throws Failure for a group alone.
std::vector<Target> ParseSettings(const std::vector<std::string>& words);

// Words as groups and patterns; without any, all groups. Throws Failure for a setting.
std::set<std::string> ParseGroups(const std::vector<std::string>& words);

// The same, but nothing without any word: all of a document is meant then, and of a store all that is not restricted.
std::set<std::string> ParseSelection(const std::vector<std::string>& words);

}  // namespace tavix::programs::cli
