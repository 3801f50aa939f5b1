#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "programs/server/persistence/DeferredLog.h"
#include "programs/server/persistence/JournalText.h"
#include "programs/server/persistence/UserLayerState.h"
#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// What to log when memory was refused to a save.
extern const char* const kOutOfMemory;

// What to log about a failure to save. Asks for no memory: that may be what failed.
const char* ReasonOf(const std::exception& exception);

// Logs what a failure leads to.
void LogFailure(DeferredLog& log, UserLayerState::Steps::Report report, const char* reason);

// Reports why changes are not kept from now on, or that they are again, if that follows from an event. onFailure: as
// UserLayerSetup has it.
void ReportFailure(const std::function<void(std::string_view reason)>& onFailure, const UserLayerState::Steps& steps,
                   const char* reason);

// As DescribeChange; empty when memory is refused.
std::optional<Change> TryToDescribe(const settings::server::LayerView& userSettings,
                                    const std::set<std::string>& changedGroups, const core::IniFile& added);

}  // namespace tavix::daemon
