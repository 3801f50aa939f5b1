#include "programs/web/interface/Rollback.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"
#include "programs/web/interface/JsonBody.h"
#include "programs/web/interface/Recorded.h"
#include "programs/web/interface/Trials.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using programs::Revision;

namespace {

constexpr char kFeature[] = "rollback";
constexpr char kHistory[] = "history";  // the feature that checkpoints belong to
constexpr char kCheckpoint[] = "checkpoint";
constexpr const char* kMissing[] = {"no checkpoint is named", "is not kept",
                                    "is not there"};  // in the daemon's reasons

// What is to be brought back, and how. A plain value.
struct Wanted {
  std::string goal;  // a revision, or '@' and the name of a checkpoint
  RecordedGroups groups;
  bool isDryRun = false;
  std::optional<Trial> trial;
};

// A revision may be a number of JSON or its text.
std::string ReadGoal(const JsonValue& body) {
  constexpr size_t kMaxDigits = 20;
  const JsonValue* const to = body.Find("to");
  if (!to || (to->kind != JsonValue::Kind::kText && to->kind != JsonValue::Kind::kNumber))
    Refuse(400, "'to' is neither a revision nor '@' with the name of a checkpoint");
  const std::string& goal = to->text;
  if (goal.compare(0, 1, "@") == 0) {
    programs::RequireKeptName(goal.substr(1), kCheckpoint);
    return goal;
  }
  const bool isRevision =
      !goal.empty() && goal.size() <= kMaxDigits && goal.find_first_not_of("0123456789") == std::string::npos;
  if (!isRevision) Refuse(422, {"'", programs::SpellValue(goal), "' is no revision"});
  return goal;
}

std::optional<std::string> ReadName(const JsonValue& body, std::string_view member) {
  const JsonValue* const name = body.Find(member);
  if (!name) return std::nullopt;
  const auto text = name->kind == JsonValue::Kind::kText ? programs::NameFromJson(name->text) : std::nullopt;
  if (!text) Refuse(400, {"'", member, "' is no name of groups"});
  return text;
}

Wanted ReadWanted(const Call& call) {
  const JsonValue body = ParseJsonObject(call.request.body, {"to", "pattern", "group", "dryRun", "confirm"});
  Wanted wanted;
  wanted.goal = ReadGoal(body);
  wanted.isDryRun = ReadFlag(body, "dryRun");
  const std::optional<std::string> pattern = ReadName(body, "pattern");
  const std::optional<std::string> group = ReadName(body, "group");
  if (group) RequireUnrestricted(call, *group);
  if (pattern && pattern->find('*') == std::string::npos) RequireUnrestricted(call, *pattern);
  wanted.groups = RecordedGroups::From(pattern, group);
  wanted.trial = Trial::Read(body);
  return wanted;
}

// 404: what is named is not kept, or is not any more.
[[noreturn]] void FailRefused(const std::string& reason) {
  const bool isMissing = std::any_of(std::begin(kMissing), std::end(kMissing),
                                     [&](const char* text) { return reason.find(text) != std::string::npos; });
  Refuse(isMissing ? 404 : 409, {programs::SpellValue(reason)}, {{"outcome", "nothing written"}});
}

// Of a daemon's answer: by groups, whose names are what is shown.
IniFile AskOrFail(settings::client::ProtocolClient& client, const std::string& line) {
  auto answer = client.Ask(line);
  if (answer.isRefused) FailRefused(answer.reason);
  return std::move(answer.data);
}

// The changes of a rollback; none when there is no difference.
json ChangesOf(const Call& call, const IniFile& data) {
  if (data.IsEmpty()) return json::array();
  return ChangesToJson(call.view, programs::ReadRecordedChanges(data.begin()->second));
}

// The daemon takes a '*' in a group's name for a pattern's, and would bring other groups back, too.
void RequireNoOthers(const RecordedGroups& groups, const IniFile& data) {
  if (data.IsEmpty()) return;
  for (const programs::Change& change : programs::ReadRecordedChanges(data.begin()->second)) {
    if (!groups.Includes(change))
      Refuse(409, {"the daemon would bring '", programs::SpellName(change.group), "' back, too"},
             {{"group", change.group}, {"outcome", "nothing written"}});
  }
}

IniFile RollBack(Call& call, const std::optional<Trial>& trial, const std::string& line) {
  if (trial) trial->Arm(call);
  return AskOrFail(call.link.GetForWrite(), line);
}

// Others may have changed such a group behind the dry run: the rollback is on trial until it is known that it took
// nothing else back.
IniFile RollBackOne(Call& call, const Wanted& wanted, const std::string& line) {
  const Trial trial = wanted.trial ? *wanted.trial : Trial::MakeGuard();
  IniFile data = RollBack(call, trial, line);
  try {
    RequireNoOthers(wanted.groups, data);
  } catch (const Refusal&) {
    static_cast<void>(trial.Revert(call));  // it goes back by itself otherwise
    throw;
  }
  if (!wanted.trial && !data.IsEmpty() && !trial.Confirm(call))
    Refuse(409, {"others changed what the rollback brought back"}, {{"outcome", "unknown"}});
  return data;
}

json CheckpointToJson(const std::string& name, IniFile::KeyMap keys) {
  const Revision revision = Revision::From(keys["revision"], keys);
  json object =
      programs::JsonObject().Add("name", programs::NameToJson(name)).Add("bytes", NumberToJson(keys["bytes"])).Take();
  if (!keys["damaged"].empty()) {
    object["damaged"] = programs::ValueToJson(keys["damaged"]);
  } else {
    object["revision"] = revision.number;
    object["time"] = FormatTime(revision.time);
  }
  return object;
}

}  // namespace

// What others changed since goes back, too: a dry run shows all of it.
Response Rollback(Call& call) {
  const Wanted wanted = ReadWanted(call);
  call.link.RequireFeature(kFeature);
  const std::string line = programs::Join({"rollback ", wanted.goal, wanted.groups.words});
  if (wanted.isDryRun || wanted.groups.MayFindOthers()) {
    const IniFile data = AskOrFail(call.link.Get(), "test-" + line);
    RequireNoOthers(wanted.groups, data);
    if (wanted.isDryRun)
      return JsonResponse(programs::JsonObject().Add("dryRun", true).Add("changes", ChangesOf(call, data)).Take());
  }
  const IniFile data =
      wanted.groups.MayFindOthers() ? RollBackOne(call, wanted, line) : RollBack(call, wanted.trial, line);
  json answer = programs::JsonObject().Add("revision", nullptr).Add("changes", ChangesOf(call, data)).Take();
  if (!data.IsEmpty()) answer["revision"] = NumberToJson(data.begin()->first);
  if (wanted.trial) answer["pending"] = wanted.trial->Describe(call);
  return JsonResponse(answer);
}

Response ListCheckpoints(Call& call) {
  call.link.RequireFeature(kHistory);
  json list = json::array();
  for (const auto& [name, keys] : AskOrFail(call.link.Get(), kCheckpoint)) list.push_back(CheckpointToJson(name, keys));
  return JsonResponse(programs::JsonObject().Add("checkpoints", list).Take());
}

Response MakeCheckpoint(Call& call) {
  const JsonValue body = ParseJsonObject(call.request.body, {"name"});
  const JsonValue* const name = body.Find("name");
  if (!name || name->kind != JsonValue::Kind::kText) Refuse(400, "'name' is no string");
  programs::RequireKeptName(name->text, kCheckpoint);
  call.link.RequireFeature(kHistory);
  const IniFile made = AskOrFail(call.link.GetForWrite(), programs::Join({kCheckpoint, " ", name->text}));
  if (!made.HasGroup(name->text)) Refuse(502, {"the daemon does not answer for '", name->text, "'"});
  return JsonResponse(CheckpointToJson(name->text, made[name->text]));
}

Response ForgetCheckpoint(Call& call) {
  const std::string name = call.query.RequireName("name");
  programs::RequireKeptName(name, kCheckpoint);
  call.link.RequireFeature(kHistory);
  AskOrFail(call.link.GetForWrite(), "forget " + name);
  return {204, {}, ""};
}

}  // namespace tavix::web
