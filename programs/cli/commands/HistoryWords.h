#pragma once

#include <cstdint>
#include <string>

#include "programs/common/client/Session.h"

// What words on the command line mean for a server's history.
namespace tavix::programs::cli {

// The one group or pattern that a request of the history can be about; nothing without a word. Throws Failure,
// kExitUsage, for what its line can't hold.
std::string ParseHistoryPattern(const std::string& word);

// Whether a request can be about that group alone.
bool IsHistoryPattern(const std::string& group);

// The revision after which the user settings are still known: changes above it are all in the history.
uint64_t FindOldestRevision(Session& session);

}  // namespace tavix::programs::cli
