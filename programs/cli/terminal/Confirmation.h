#pragma once

#include <set>
#include <string>

namespace tavix::programs::cli {

// Asks on a terminal before something is done to groups that nobody named one by one; elsewhere --yes has to be given.
// cause: what would do it, "a pattern". action: "delete 2 groups". Throws Failure: kExitUsage when nobody can be asked,
// kExitNo when the answer is no.
void Confirm(const std::string& cause, const std::string& action, const std::set<std::string>& groups);

}  // namespace tavix::programs::cli
