#pragma once

#include "programs/cli/commands/Context.h"
#include "programs/cli/session/Missing.h"

// How commands end that share what they report.
namespace tavix::programs::cli {

// Warns of each name and pattern that no group matches. Returns kExitNo if there is one, kExitDone otherwise.
int ReportMissing(Context& context, const MissingGroups& missing);

}  // namespace tavix::programs::cli
