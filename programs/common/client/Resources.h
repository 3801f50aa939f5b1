#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "programs/common/client/Session.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/ResourceFigures.h"

// Shares of resources (docs/resources.md), for those that look at them.
namespace tavix::programs {

// The groups of all resources.
core::IniFile ReadResources(Session& session);

// An object with "resource", "total", "used", "free" and "consumers".
nlohmann::json ReportResource(const settings::ResourceFigures& figures, const std::string& resource);

}  // namespace tavix::programs
