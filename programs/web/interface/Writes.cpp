#include "programs/web/interface/Writes.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/Spelling.h"
#include "programs/web/interface/Conditions.h"
#include "programs/web/interface/GroupChange.h"
#include "programs/web/interface/JsonBody.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using Keys = GroupChange::Keys;

namespace {

std::string RequireWritableName(const Call& call) {
  std::string name = call.query.RequireName("name");
  RequireSendable(name);
  RequireUnrestricted(call, name);
  return name;
}

// Keys and their values; null takes one away.
JsonValue ParseKeys(const Call& call, const std::string& group) {
  JsonValue body = ParseJsonBody(call.request.body);
  if (body.kind != JsonValue::Kind::kObject) Refuse(400, "the body is no object of keys");
  for (const auto& [key, value] : body.members) {
    if (!value.IsValue() && !value.IsNull())
      Refuse(400, {"the key '", programs::SpellKey(key), "': expected a string, a number, a truth value or null"},
             {{"group", group}, {"key", key}});
  }
  return body;
}

Response ShowWritten(Call& call, const std::string& group, const IniFile::KeyMap& keys, int status,
                     const std::optional<Trial>& trial = std::nullopt) {
  const std::string version = call.view.FindVersion(group, keys);
  json document = programs::JsonObject()
                      .Add("name", programs::NameToJson(group))
                      .Add("version", version)
                      .Add("values", call.view.ValuesToJson(group, keys))
                      .Take();
  if (trial) document["pending"] = trial->Describe(call);
  Response response = JsonResponse(document, status);
  response.headers.emplace_back("ETag", programs::Join({"\"", version, "\""}));
  return response;
}

// Is not kept, and no condition can go with it.
Response PatchVolatile(Call& call, const std::string& group, const JsonValue& patch, const Conditions& conditions) {
  if (conditions.IsAny()) Refuse(400, "'volatile' and a condition exclude one another");
  IniFile settings;
  settings[group];
  for (const auto& [key, value] : patch.members) {
    if (value.IsNull()) Refuse(400, {"'volatile' takes nothing away"}, {{"group", group}, {"key", key}});
    settings.SetValue(group, key, value.text);
  }
  Merge(call, settings, true);
  return ShowWritten(call, group, call.ReadGroup(group).value_or(IniFile::KeyMap()), 200);
}

// What only takes away makes no group.
Keys Patched(const std::string& group, const Keys& before, const JsonValue& patch) {
  const bool sets = std::any_of(patch.members.begin(), patch.members.end(),
                                [](const auto& member) { return !member.second.IsNull(); });
  if (!before && !sets) Refuse(404, {"there is no group '", programs::SpellName(group), "'"}, {{"group", group}});
  IniFile::KeyMap after = before.value_or(IniFile::KeyMap());
  for (const auto& [key, value] : patch.members) {
    if (value.IsNull()) {
      after.erase(key);
    } else {
      after[key] = value.text;
    }
  }
  return after;
}

}  // namespace

Response PatchGroup(Call& call) {
  const std::string group = RequireWritableName(call);
  const Conditions conditions(call.request);
  const JsonValue patch = ParseKeys(call, group);
  const std::optional<Trial> trial = Trial::Read(call.query);
  const bool isVolatile = call.query.HasFlag("volatile");
  if (isVolatile && trial) Refuse(400, "'confirm' and 'volatile' exclude one another");
  if (isVolatile) return PatchVolatile(call, group, patch, conditions);
  GroupChange change(call, group, conditions, trial);
  change.Run([&](const Keys& before) { return Patched(group, before, patch); });
  return ShowWritten(call, group, change.GetAfter().value_or(IniFile::KeyMap()), 200, change.GetTrial());
}

Response PutGroup(Call& call) {
  const std::string group = RequireWritableName(call);
  const Conditions conditions(call.request);
  if (!conditions.IsAny()) Refuse(428, {"a PUT needs If-Match or If-None-Match"}, {{"group", group}});
  const JsonValue body = ParseKeys(call, group);
  IniFile::KeyMap wanted;
  for (const auto& [key, value] : body.members) {
    if (value.IsNull()) Refuse(400, {"a PUT takes no null"}, {{"group", group}, {"key", key}});
    wanted[key] = value.text;
  }
  GroupChange change(call, group, conditions);
  change.Run([&](const Keys&) { return Keys(wanted); });
  return ShowWritten(call, group, change.GetAfter().value_or(IniFile::KeyMap()), change.GetBefore() ? 200 : 201);
}

Response DeleteGroup(Call& call) {
  const std::string group = RequireWritableName(call);
  const Conditions conditions(call.request);
  if (!conditions.ifMatch) Refuse(428, {"a DELETE needs If-Match"}, {{"group", group}});
  GroupChange change(call, group, conditions);
  change.Run([](const Keys&) { return Keys(); });
  return {204, {}, ""};
}

}  // namespace tavix::web
