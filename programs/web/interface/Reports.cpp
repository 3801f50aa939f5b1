#include "programs/web/interface/Reports.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <set>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Figures.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/LogLevels.h"
#include "programs/common/client/Resources.h"
#include "programs/common/client/Spelling.h"
#include "programs/web/interface/GroupChange.h"
#include "programs/web/interface/JsonBody.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using programs::NameToJson;

namespace {

double MeasureLatency(Call& call) {
  const auto begin = std::chrono::steady_clock::now();
  call.link.Get().Flush();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

json LevelsToJson(const View& view, const IniFile& levels) {
  json object = json::object();
  for (const auto& [group, keys] : levels) {
    const json level = programs::ValueToJson(keys.at(programs::kLogLevelKey));
    object[NameToJson(group).get<std::string>()] = view.IsMasked(group) ? json(nullptr) : level;
  }
  return object;
}

int ParseLevel(const std::string& group, const JsonValue& value) {
  try {
    if (value.IsValue()) return programs::ParseLogLevel(value.text);
  } catch (const programs::Failure& failure) {
    Refuse(400, {failure.what()}, {{"group", group}});
  }
  Refuse(400, {"the level of '", programs::SpellName(group), "' is no string and no number"}, {{"group", group}});
}

}  // namespace

Response ShowStatus(Call& call) {
  const double latency = MeasureLatency(call);
  json status = programs::ReportServer(call.link.Get().GetAddress(), latency, call.link.Get().GetServerInfo());
  json features = json::array();
  for (const std::string& feature : call.link.GetFeatures()) features.push_back(NameToJson(feature));
  status["features"] = features;
  status["read_only"] = call.view.isReadOnly;
  return JsonResponse(status);
}

Response ShowSubscribers(Call& call) {
  json list = json::array();
  for (const std::string& name : call.link.Get().GetSubscribed()) list.push_back(NameToJson(name));
  return JsonResponse(list);
}

Response ShowResources(Call& call) {
  IniFile read = programs::ReadResources(call.session);
  std::set<std::string> masked;
  for (const auto& [group, keys] : read) {
    if (call.view.IsMasked(group)) masked.insert(group);
  }
  for (const std::string& group : masked) read.RemoveGroup(group);
  const settings::ResourceFigures figures(read);
  json list = json::array();
  for (const std::string& resource : figures.GetResources())
    list.push_back(programs::ReportResource(figures, resource));
  return JsonResponse(list);
}

Response ShowLogLevels(Call& call) {
  return JsonResponse(LevelsToJson(call.view, programs::ReadLogLevels(call.session, "*")));
}

// As the command's, no level is made for a program that has none, which would rather be a misspelled one.
Response PatchLogLevels(Call& call) {
  const JsonValue body = ParseJsonBody(call.request.body);
  if (body.kind != JsonValue::Kind::kObject) Refuse(400, "the body is no object of groups");
  IniFile levels;
  for (const auto& [group, value] : body.members) {
    RequireSendable(group);
    RequireUnrestricted(call, group);
    levels.SetInt(group, programs::kLogLevelKey, ParseLevel(group, value));
  }
  const IniFile known = programs::ReadLogLevels(call.session, "*");
  for (const auto& [group, keys] : levels) {
    if (!known.HasGroup(group))
      Refuse(404, {"'", programs::SpellName(group), "' is no log group: it has no log.level"}, {{"group", group}});
  }
  if (!levels.IsEmpty()) Merge(call, levels, false);
  return ShowLogLevels(call);
}

}  // namespace tavix::web
