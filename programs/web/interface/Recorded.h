#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "programs/common/client/Revisions.h"
#include "programs/web/interface/Call.h"

// What the daemon recorded of changes, as the command's JSON has it.
namespace tavix::web {

nlohmann::json AuthorToJson(const programs::Author& author);

// Without what the view masks.
nlohmann::json ChangesToJson(const View& view, const std::vector<programs::Change>& changes);

// A whole number as one, anything else as text.
nlohmann::json NumberToJson(const std::string& text);

// As in RFC 3339, in UTC.
std::string FormatTime(std::chrono::system_clock::time_point time);

// The end of a request's line that is about the groups of a pattern: empty for all. Throws Refusal, 422, for a pattern
// that such a line can't hold.
std::string ToHistoryPattern(const std::string& pattern);

// The last changes, the newest first.
Response ShowHistory(Call& call);

}  // namespace tavix::web
