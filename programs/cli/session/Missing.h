#pragma once

#include <set>
#include <string>

#include "programs/common/client/Session.h"

// What is said when the store does not hold what was asked for. The answer is no anyway, and a look at all names costs
// little: somebody who mistyped one is told which he may have meant.
namespace tavix::programs::cli {

// No group matches these names and patterns.
std::string DescribeMissingGroups(Session& session, const std::set<std::string>& groups);

// A setting is not there.
std::string DescribeMissingSetting(Session& session, const std::string& group, const std::string& key);

}  // namespace tavix::programs::cli
