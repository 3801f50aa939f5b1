#include "programs/bridge/core/Report.h"

#include <algorithm>

#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

namespace {

std::string Spell(const std::optional<std::string>& value) {
  return value ? programs::Join({"'", programs::SpellValue(*value), "'"}) : "no value";
}

}  // namespace

void Report::AddConflict(const Conflict& conflict) {
  ++counters.overridden;
  Conflict shown = conflict;
  std::string values;
  if (_rules.IsMasked(conflict.group, conflict.key)) {
    shown.kept.reset();
    shown.lost.reset();
  } else {
    values = programs::Join({": ", Spell(conflict.kept), " is kept, ", Spell(conflict.lost), " is lost"});
  }
  const std::string loser = conflict.loser == Side::kDevice ? "device's" : "centre's";
  Warn(programs::Join(
      {"The ", loser, " value of ", programs::SpellSetting(conflict.group, conflict.key), " is overridden", values}));
  _conflicts.push_back(shown);
  if (_conflicts.size() > _limits.maxConflicts) _conflicts.pop_front();
}

void Report::AddConflicts(const std::vector<Conflict>& conflicts, std::vector<Conflict>& reported) {
  for (const Conflict& conflict : conflicts) {
    if (std::find(reported.begin(), reported.end(), conflict) == reported.end()) AddConflict(conflict);
  }
  reported = conflicts;
}

void Report::Fail(const std::string& line) {
  _lastError = line;
  _log(Severity::kError, line);
}

}  // namespace tavix::bridge
