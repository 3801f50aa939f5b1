#include "programs/web/interface/Conditions.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;

bool NamesVersion(const std::string& tags, const std::string& version, bool comparesWeakly) {
  if (tags == "*") return true;
  const std::string tag = "\"" + version + "\"";
  for (size_t at = 0; at < tags.size();) {
    const size_t begin = tags.find_first_not_of(" \t", at);
    if (begin == std::string::npos) return false;
    const size_t end = std::min(tags.find(',', begin), tags.size());
    const std::string one = tags.substr(begin, end - begin);
    const std::string given = one.substr(0, one.find_last_not_of(" \t") + 1);
    if (given == tag || (comparesWeakly && given == "W/" + tag)) return true;
    at = end + 1;
  }
  return false;
}

Conditions::Conditions(const Request& request) {
  if (const std::string* const tags = request.Find("if-match")) ifMatch = *tags;
  const std::string* const none = request.Find("if-none-match");
  if (!none) return;
  if (*none != "*") throw Refusal(400, "If-None-Match of a write has to be '*'");
  if (ifMatch) throw Refusal(400, "If-Match and If-None-Match exclude one another");
  mustBeNew = true;
}

void Conditions::Require(const Call& call, const std::string& group, const IniFile::KeyMap* keys) const {
  const bool holdsMatch = !ifMatch || (keys && NamesVersion(*ifMatch, call.view.FindVersion(group, *keys)));
  if (holdsMatch && !(mustBeNew && keys)) return;
  throw Refusal(412, "'" + programs::SpellName(group) + "' holds something else by now",
                {{"group", Quoted(group)}, {"current", DescribeGroup(call, group, keys)}});
}

std::string DescribeGroup(const Call& call, const std::string& group, const IniFile::KeyMap* keys) {
  json object = {{"name", programs::NameToJson(group)}, {"version", nullptr}, {"values", nullptr}};
  if (keys) {
    object["version"] = call.view.FindVersion(group, *keys);
    object["values"] = call.view.ValuesToJson(group, *keys);
  }
  return programs::Compact(object);
}

}  // namespace tavix::web
