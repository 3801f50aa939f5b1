#include "programs/cli/commands/HistoryWords.h"

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

uint64_t FindOldestRevision(Session& session) {
  const auto* const features = session.FindFeatures();
  if (features == nullptr) return 0;
  const auto history = features->find("history");
  return history == features->end() ? 0 : std::strtoull(history->second.c_str(), nullptr, 10);
}

}  // namespace tavix::programs::cli
