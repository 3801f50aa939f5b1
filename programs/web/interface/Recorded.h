#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "programs/common/client/Revisions.h"
#include "programs/web/interface/Call.h"

// What the daemon recorded of changes, as the command's JSON has it.
namespace tavix::web {

nlohmann::json AuthorToJson(const programs::Author& author);

// Without what the view masks.
nlohmann::json ChangesToJson(const View& view, const std::vector<programs::Change>& changes);

// The last changes, the newest first.
Response ShowHistory(Call& call);

}  // namespace tavix::web
