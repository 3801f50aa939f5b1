#pragma once

#include <string>

#include "programs/cli/commands/Context.h"
#include "programs/cli/session/Missing.h"

// How commands end that share what they report.
namespace tavix::programs::cli {

// Warns of each name and pattern that no group matches. Returns kExitNo if there is one, kExitDone otherwise.
int ReportMissing(Context& context, const MissingGroups& missing);

// Reports that the store holds a change, "done: 1 setting", and whether it lasts only until the server ends. verb: what
// was done, "set". count: may be empty. A server that does not answer is a warning. Throws Failure, kExitNotKept, when
// the server can't keep the change at the moment.
void ReportDone(Context& context, const std::string& verb, const std::string& count);

// The same without the report of what is fine.
void RequireKept(Context& context, const std::string& verb);

}  // namespace tavix::programs::cli
