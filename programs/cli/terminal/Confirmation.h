#pragma once

#include <set>
#include <string>

namespace tavix::programs::cli {

// Asks before something is done to groups that a pattern named, on a terminal; elsewhere --yes has to be given.
// verb: "delete". Throws Failure: kExitUsage when nobody can be asked, kExitNo when the answer is no.
void Confirm(const std::string& verb, const std::set<std::string>& groups, bool isGiven);

bool HasPattern(const std::set<std::string>& groups);

}  // namespace tavix::programs::cli
