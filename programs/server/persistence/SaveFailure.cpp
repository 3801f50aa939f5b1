#include "programs/server/persistence/SaveFailure.h"

#include <new>

namespace tavix::daemon {

const char* const kOutOfMemory = "Failed to save the user settings: out of memory";

const char* ReasonOf(const std::exception& exception) {
  return dynamic_cast<const std::bad_alloc*>(&exception) ? kOutOfMemory : exception.what();
}

void LogFailure(DeferredLog& log, UserLayerState::Steps::Report report, const char* reason) {
  using Report = UserLayerState::Steps::Report;
  switch (report) {
    case Report::kNothing:
      return;
    case Report::kFailure:
      return log.AddError(reason, "; changes are kept in memory and saved as soon as that is possible");
    case Report::kFailedRetry:
      return log.AddWarning(reason, "; it is tried again");
    case Report::kJournalGoesOn:
      return log.AddWarning(reason, "; the journal goes on, and the snapshot is tried again");
  }
}

void ReportFailure(const std::function<void(std::string_view reason)>& onFailure, const UserLayerState::Steps& steps,
                   const char* reason) {
  using Report = UserLayerState::Steps::Report;
  if (steps.report == Report::kFailure || steps.report == Report::kFailedRetry) onFailure(reason);
  if (steps.reportsRecovery) onFailure("");
}

std::optional<Change> TryToDescribe(const settings::server::LayerView& userSettings,
                                    const std::set<std::string>& changedGroups, const core::IniFile& added) {
  try {
    return DescribeChange(userSettings, changedGroups, added);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace tavix::daemon
