#include <nlohmann/json.hpp>
#include <set>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Changes.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/UserLayer.h"
#include "programs/common/client/Writes.h"
#include "programs/web/interface/Batches.h"
#include "programs/web/interface/GroupChange.h"
#include "programs/web/interface/JsonBody.h"
#include "programs/web/interface/JsonParts.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using programs::NameToJson;
using Names = std::set<std::string>;

namespace {

// Takes what users changed of some groups, and returns the names and patterns of those that they deleted.
Names ReadUserPart(Call& call, const Names& groups, const programs::Session::TakeGroup& take) {
  Names deleted;
  programs::ReadUserLayerEach(call.session, groups, [&](const IniFile& group) {
    if (!group.HasGroup(programs::kDeletedGroups)) return take(group);
    for (const auto& [key, name] : group[programs::kDeletedGroups]) {
      call.size.Add(name.size());
      deleted.insert(name);
    }
  });
  return deleted;
}

Names ReadPatterns(const JsonValue& body) {
  const JsonValue* const list = body.Find("groups");
  if (!list || list->kind != JsonValue::Kind::kList || list->items.empty())
    Refuse(400, "'groups' is no list of names and patterns");
  Names patterns;
  for (const JsonValue& item : list->items) {
    const auto name = item.kind == JsonValue::Kind::kText ? programs::NameFromJson(item.text) : std::nullopt;
    if (!name) Refuse(400, "'groups' is no list of names and patterns");
    RequireSendable(*name);
    patterns.insert(*name);
  }
  return patterns;
}

json ListNames(const Names& names) {
  json list = json::array();
  for (const std::string& name : names) list.push_back(NameToJson(name));
  return list;
}

// Values that are not saved are no part of the user layer, and show only in what readers see.
Names FindReset(Call& call, Names names, const Names& patterns, const IniFile& seen) {
  for (const std::string& name : programs::NamesOf(seen)) {
    if (!call.session.IsRestricted(name)) names.insert(name);
  }
  for (const std::string& name : programs::WithoutPatterns(patterns)) names.insert(name);
  return names;
}

void RequireWritable(const Call& call, const Names& patterns) {
  for (const std::string& name : programs::WithoutPatterns(patterns)) RequireUnrestricted(call, name);
}

}  // namespace

// The user values go, and no copies of the defaults stay, so that those of a later version count.
Response Reset(Call& call) {
  const JsonValue body = ParseJsonObject(call.request.body, {"groups", "dryRun"});
  const Names patterns = ReadPatterns(body);
  RequireWritable(call, patterns);
  const bool isDryRun = ReadFlag(body, "dryRun");
  Names changed;
  const Names deleted = ReadUserPart(call, patterns, [&](const IniFile& part) {
    call.size.Add(part.begin()->first.size());
    changed.insert(part.begin()->first);
  });
  if (isDryRun)
    return JsonResponse(programs::JsonObject()
                            .Add("dryRun", true)
                            .Add("groups", ListNames(changed))
                            .Add("deleted", ListNames(deleted))
                            .Take());
  changed.insert(deleted.begin(), deleted.end());
  const IniFile before = call.ReadGroups(patterns);
  settings::Amendment amendment;
  for (const std::string& name : FindReset(call, std::move(changed), patterns, before)) amendment.unset[name];
  if (!amendment.unset.IsEmpty() && !call.link.GetForWrite().Amend(amendment))
    throw RefusalOf(call.link.Get().TakeRefusal());
  json changes = json::array();
  for (const programs::Change& change : programs::FindChanges(before, call.ReadGroups(patterns)))
    changes.push_back(programs::ToJson(change));
  return JsonResponse(programs::JsonObject().Add("changes", changes).Take());
}

// What users changed. The value below is the daemon's: no client can read it while another one hides it.
Response Diff(Call& call) {
  const std::vector<std::string> given = call.query.FindNames("pattern");
  for (const std::string& pattern : given) RequireSendable(pattern);
  JsonParts changes(call.size, "{\"changes\":[");
  const Names deleted = ReadUserPart(call, {given.begin(), given.end()}, [&](const IniFile& part) {
    const auto& [group, keys] = *part.begin();
    for (const auto& [key, value] : keys)
      changes.Add({{"group", NameToJson(group)}, {"key", NameToJson(key)}, {"new", programs::ValueToJson(value)}});
  });
  return TextResponse(changes.Finish(programs::Join({"],\"deleted\":", programs::Compact(ListNames(deleted)), "}"})));
}

}  // namespace tavix::web
