#include "programs/common/client/LogLevels.h"

#include <algorithm>
#include <iterator>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"
#include "tavix/core/StringUtil.h"

namespace tavix::programs {

namespace {

constexpr const char* kNames[] = {"emergency", "alert",       "critical", "error", "warning",
                                  "notice",    "information", "debug",    "trace"};
constexpr int kHighest = static_cast<int>(std::size(kNames)) - 1;

struct ShortForm {
  const char* text;
  int level;
};

constexpr ShortForm kShortForms[] = {{"emerg", 0}, {"crit", 2}, {"err", 3}, {"warn", 4}, {"info", 6}};

}  // namespace

core::IniFile ReadLogLevels(Session& session, const std::string& groups) {
  core::IniFile levels;
  const core::IniFile all = session.Get({groups});
  for (const auto& [group, keys] : all) {
    const auto level = keys.find(kLogLevelKey);
    if (level != keys.end()) levels.SetValue(group, kLogLevelKey, level->second);
  }
  return levels;
}

std::vector<std::string> GetLogLevelNames() {
  return {std::begin(kNames), std::end(kNames)};
}

std::string NameOfLogLevel(const std::string& value) {
  int level = 0;
  if (!core::StringUtil::TryParse(value, level) || level < 0 || level > kHighest) return std::string();
  return kNames[level];
}

int ParseLogLevel(const std::string& text) {
  int level = 0;
  if (core::StringUtil::TryParse(text, level) && level >= 0 && level <= kHighest) return level;
  for (int i = 0; i <= kHighest; ++i) {
    if (core::StringUtil::EqualsIgnoringCase(text, kNames[i])) return i;
  }
  for (const ShortForm& form : kShortForms) {
    if (core::StringUtil::EqualsIgnoringCase(text, form.text)) return form.level;
  }
  throw Failure(kExitUsage, Join({"'", SpellValue(text), "' is no log level", DidYouMean(text, GetLogLevelNames())}),
                "error, warning, notice, information, trace, or a number from 0 to 8");
}

}  // namespace tavix::programs
