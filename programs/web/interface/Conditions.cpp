#include "programs/web/interface/Conditions.h"

#include <nlohmann/json.hpp>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/Spelling.h"
#include "programs/web/http/EntityTags.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;

Conditions::Conditions(const Request& request) {
  if (const std::string* const tags = request.Find("if-match")) ifMatch = *tags;
  const std::string* const none = request.Find("if-none-match");
  if (!none) return;
  if (*none != "*") Refuse(400, "If-None-Match of a write has to be '*'");
  if (ifMatch) Refuse(400, "If-Match and If-None-Match exclude one another");
  mustBeNew = true;
}

void Conditions::Require(const Call& call, const std::string& group, const IniFile::KeyMap* keys) const {
  const bool holdsMatch = !ifMatch || (keys && NamesVersion(*ifMatch, call.view.FindVersion(group, *keys)));
  if (holdsMatch && !(mustBeNew && keys)) return;
  throw Refusal(412, programs::Join({"'", programs::SpellName(group), "' holds something else by now"}),
                {{"group", Quoted(group)}, {"current", DescribeGroup(call, group, keys)}});
}

std::string DescribeGroup(const Call& call, const std::string& group, const IniFile::KeyMap* keys) {
  json object = programs::JsonObject()
                    .Add("name", programs::NameToJson(group))
                    .Add("version", nullptr)
                    .Add("values", nullptr)
                    .Take();
  if (keys) {
    object["version"] = call.view.FindVersion(group, *keys);
    object["values"] = call.view.ValuesToJson(group, *keys);
  }
  return programs::Compact(object);
}

}  // namespace tavix::web
