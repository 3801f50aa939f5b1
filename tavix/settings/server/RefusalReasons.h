#pragma once

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::settings {
struct Amendment;
}

namespace tavix::settings::server {

// What `info refused` shows of changes. Each reason begins with its kind and ": "; docs/protocol.md lists the kinds.

constexpr char kConditionFailed[] = "condition: it does not hold";

std::string ReasonOf(const RefusedChange& refusal);

// Of an amendment that the store did not make.
std::string ReasonOfFailure(const Amendment& amendment);

// The first restricted group that a change names, which was left out of it. Empty: there is none.
std::string ReasonOfRestricted(const std::set<std::string>& names);
std::string ReasonOfRestricted(const core::IniFile& settings);

}  // namespace tavix::settings::server
