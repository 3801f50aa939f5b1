#pragma once

#include <string>

#include "programs/common/client/Session.h"

// What only later servers can do, and only where it is on. Each throws Failure, kExitNotApplied, with a text that names
// what is missing; kExitUsage where there is no server. needed: by what, "--try"; may be empty.
namespace tavix::programs::cli {

void RequireHistory(Session& session);
void RequireTrials(Session& session, const std::string& needed = std::string());

}  // namespace tavix::programs::cli
