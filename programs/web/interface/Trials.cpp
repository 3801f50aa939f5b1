#include "programs/web/interface/Trials.h"

#include <charconv>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"
#include "programs/web/access/PrivateFile.h"
#include "programs/web/interface/Recorded.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using programs::TrialState;

namespace {

constexpr char kFeature[] = "trial";
constexpr char kOwn[] = "web-";
constexpr unsigned kMinSeconds = 10;
constexpr unsigned kMaxSeconds = 600;
constexpr unsigned kUsualSeconds = 90;
constexpr unsigned kGuardSeconds = 10;
constexpr size_t kNameDigits = 16;
constexpr char kForeignUser[] = "belongs to user";

bool IsOwn(const std::string& name) {
  return name.compare(0, sizeof kOwn - 1, kOwn) == 0;
}

json ToJson(const Call& call, const TrialState& trial) {
  json object = programs::JsonObject()
                    .Add("name", programs::NameToJson(trial.name))
                    .Add("state", trial.state)
                    .Add("own", IsOwn(trial.name))
                    .Add("by", AuthorToJson(trial.author))
                    .Add("changes", ChangesToJson(call.view, trial.settings))
                    .Take();
  if (!trial.seconds.empty()) object["seconds"] = std::strtoull(trial.seconds.c_str(), nullptr, 10);
  if (!trial.note.empty()) object["note"] = programs::ValueToJson(trial.note);
  if (trial.revision != 0) object["revision"] = trial.revision;
  if (!trial.kept.empty()) object["kept"] = ChangesToJson(call.view, trial.kept);
  return object;
}

// The trials that the daemon still knows, also those that have ended.
IniFile ReadTrials(Call& call) {
  call.link.RequireFeature(kFeature);
  auto answer = call.link.Get().Ask(kFeature);
  if (answer.isRefused) Refuse(409, {"the trials can't be shown: ", programs::SpellValue(answer.reason)});
  return std::move(answer.data);
}

std::string RequireTrial(Call& call, const std::string& name) {
  const IniFile trials = ReadTrials(call);
  const auto found = trials.GetGroups().find(name);
  if (found == trials.end()) Refuse(404, {"no trial is named '", programs::SpellName(name), "'"});
  if (!IsOwn(name)) Refuse(403, {"'", name, "' was not put on trial by this program"});
  const TrialState trial = TrialState::From(name, found->second);
  if (!trial.IsPending()) Refuse(409, {"'", name, "' is not pending: it was ", trial.state}, {{"state", trial.state}});
  return name;
}

// word: "confirm" or "revert".
Response EndTrial(Call& call, const std::string& word, const std::string& wanted) {
  const std::string name = RequireTrial(call, wanted);
  auto answer = call.link.GetForWrite().Ask(programs::Join({word, " ", name}));
  if (answer.isRefused) {
    const bool isForeign = answer.reason.find(kForeignUser) != std::string::npos;
    Refuse(isForeign ? 403 : 409, {programs::SpellValue(answer.reason)});
  }
  const auto found = answer.data.GetGroups().find(name);
  if (found == answer.data.end()) Refuse(502, {"the daemon does not answer for '", name, "'"});
  return JsonResponse(ToJson(call, TrialState::From(name, found->second)));
}

unsigned ParseSeconds(const JsonValue& value) {
  if (value.kind == JsonValue::Kind::kTruth) return kUsualSeconds;
  unsigned seconds = 0;
  const char* const last = value.text.data() + value.text.size();
  const auto [end, error] = std::from_chars(value.text.data(), last, seconds);
  const bool isNumber = value.kind == JsonValue::Kind::kNumber && error == std::errc() && end == last;
  if (!isNumber || seconds < kMinSeconds || seconds > kMaxSeconds)
    Refuse(400, "'confirm' is no number of seconds from 10 to 600");
  return seconds;
}

}  // namespace

Response ShowPending(Call& call) {
  json list = json::array();
  for (const auto& [name, keys] : ReadTrials(call)) {
    const TrialState trial = TrialState::From(name, keys);
    if (trial.IsPending()) list.push_back(ToJson(call, trial));
  }
  return JsonResponse(programs::JsonObject().Add("pending", list).Take());
}

Response ConfirmPending(Call& call) {
  const JsonValue body = ParseJsonObject(call.request.body, {"name"});
  const JsonValue* const name = body.Find("name");
  if (!name || name->kind != JsonValue::Kind::kText) Refuse(400, "'name' is no string");
  return EndTrial(call, "confirm", name->text);
}

Response RevertPending(Call& call) {
  return EndTrial(call, "revert", call.query.RequireName("name"));
}

std::optional<Trial> Trial::Read(const JsonValue& body) {
  const JsonValue* const confirm = body.Find("confirm");
  if (!confirm || (confirm->kind == JsonValue::Kind::kTruth && confirm->text == "false")) return std::nullopt;
  return Make(ParseSeconds(*confirm));
}

std::optional<Trial> Trial::Read(const Query& query) {
  if (!query.Find("confirm")) return std::nullopt;
  return Make(static_cast<unsigned>(query.FindNumber("confirm", kMinSeconds, kMaxSeconds, kUsualSeconds)));
}

Trial Trial::MakeGuard() {
  return Make(kGuardSeconds);
}

Trial Trial::Make(unsigned seconds) {
  return Trial(seconds, kOwn + MakeSecret().substr(0, kNameDigits));
}

void Trial::Arm(Call& call) const {
  call.link.RequireFeature(kFeature);
  call.link.GetForWrite().Try(_seconds, _name);
}

std::optional<TrialState> Trial::Find(Call& call) const {
  call.link.RequireFeature(kFeature);
  const auto answer = call.link.Get().Ask(programs::Join({kFeature, " ", _name}));
  const auto found = answer.data.GetGroups().find(_name);
  if (answer.isRefused || found == answer.data.end()) return std::nullopt;
  return TrialState::From(_name, found->second);
}

json Trial::Describe(Call& call) const {
  const std::optional<TrialState> trial = Find(call);
  return trial && !trial->settings.empty() ? ToJson(call, *trial) : json(nullptr);
}

bool Trial::End(Call& call, const char* word) const {
  return !call.link.GetForWrite().Ask(programs::Join({word, " ", _name})).isRefused;
}

}  // namespace tavix::web
