#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
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

// The groups that a request about earlier user settings means: all, those of a pattern, or one by its name. A plain
// value.
struct RecordedGroups {
  // Of the parameters or members "pattern" and "group". Throws Refusal: 400 when both are given, 422 for a name or a
  // pattern that no line of such a request can hold.
  static RecordedGroups From(const std::optional<std::string>& pattern, const std::optional<std::string>& group);

  // Whether the daemon's answer may show groups that are not meant: no line can ask for that name alone.
  bool MayFindOthers() const { return group.has_value(); }

  // Whether a change of an answer is about these groups, or about the record of deleted groups for one of them.
  bool Includes(const programs::Change& change) const;

  std::string words;                 // the end of the request's line
  std::optional<std::string> group;  // that is meant alone; nothing: all that the daemon finds
};

// The last changes, the newest first.
Response ShowHistory(Call& call);

}  // namespace tavix::web
