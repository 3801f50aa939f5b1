#include "programs/cli/commands/HistoryWords.h"

#include <algorithm>
#include <cstdlib>

#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

bool IsHistoryPattern(const std::string& group) {
  constexpr char kBlanks[] = " \t\r";
  return !group.empty() && group.find('\n') == std::string::npos &&
         std::string(kBlanks).find(group.front()) == std::string::npos &&
         std::string(kBlanks).find(group.back()) == std::string::npos;
}

std::string ParseHistoryPattern(const std::string& word) {
  const std::string pattern = *ParseGroups({word}).begin();
  RefuseEmptyName({pattern}, false);
  if (!IsHistoryPattern(pattern))
    throw Failure(kExitUsage,
                  "the history can't be asked for '" + SpellName(pattern) + "', which begins or ends with a " +
                      "blank or has several lines",
                  "a pattern with a '*' in place of that can");
  return pattern;
}

void RequireKeptName(const std::string& name, const std::string& what) {
  constexpr size_t kMaxBytes = 64;
  const bool hasCharacters = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
  const bool isName = hasCharacters && !name.empty() && name.size() <= kMaxBytes && name != "." && name != "..";
  if (!isName)
    throw Failure(kExitUsage, "'" + SpellValue(name) + "' is no name of a " + what + ": 1 to 64 of A-Z a-z 0-9 . _ -");
}

uint64_t FindOldestRevision(Session& session) {
  const auto* const features = session.FindFeatures();
  if (features == nullptr) return 0;
  const auto history = features->find("history");
  return history == features->end() ? 0 : std::strtoull(history->second.c_str(), nullptr, 10);
}

}  // namespace tavix::programs::cli
