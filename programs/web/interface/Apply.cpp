#include <nlohmann/json.hpp>
#include <set>

#include "programs/common/client/Changes.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Writes.h"
#include "programs/web/interface/Batches.h"
#include "programs/web/interface/Conditions.h"
#include "programs/web/interface/GroupChange.h"
#include "programs/web/interface/JsonBody.h"
#include "programs/web/interface/Trials.h"
#include "tavix/settings/Amendment.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using settings::Amendment;
using Kind = JsonValue::Kind;

namespace {

constexpr char kConditionBegin[] = "condition:";
constexpr size_t kValueDepth = 4;  // {"set": {GROUP: {KEY: VALUE}}}

// A change of many groups, as the body has it. A plain value.
struct Wanted {
  Amendment amendment;
  bool isVolatile = false;
  bool isDryRun = false;
  std::optional<Trial> trial;
};

[[noreturn]] void FailAt(std::string_view member, const std::string& group, std::string_view expected) {
  Refuse(400, {"'", member, "', group '", programs::SpellName(group), "': expected ", expected}, {{"group", group}});
}

// An object of groups, each an object of keys and values.
IniFile ReadSettings(const JsonValue& body, std::string_view member) {
  IniFile settings;
  const JsonValue* const groups = body.Find(member);
  if (!groups) return settings;
  if (groups->kind != Kind::kObject) Refuse(400, {"'", member, "' is no object of groups"});
  for (const auto& [group, keys] : groups->members) {
    if (keys.kind != Kind::kObject) FailAt(member, group, "an object of keys");
    RequireSendable(group);
    settings[group];
    for (const auto& [key, value] : keys.members) {
      if (!value.IsValue()) FailAt(member, group, "a string, a number or a truth value for each key");
      settings.SetValue(group, key, value.text);
    }
  }
  return settings;
}

// An object of groups, each a list of keys; an empty list means the group as a whole.
IniFile ReadKeys(const JsonValue& body, std::string_view member) {
  IniFile settings;
  const JsonValue* const groups = body.Find(member);
  if (!groups) return settings;
  if (groups->kind != Kind::kObject) Refuse(400, {"'", member, "' is no object of groups"});
  for (const auto& [group, keys] : groups->members) {
    if (keys.kind != Kind::kList) FailAt(member, group, "a list of keys");
    RequireSendable(group);
    settings[group];
    for (const JsonValue& key : keys.items) {
      const auto name = key.kind == Kind::kText ? programs::NameFromJson(key.text) : std::nullopt;
      if (!name) FailAt(member, group, "a list of keys");
      settings.SetValue(group, *name, "");
    }
  }
  return settings;
}

Wanted ReadWanted(const Call& call) {
  const JsonValue body = ParseJsonObject(
      call.request.body, {"if", "absent", "set", "unset", "volatile", "confirm", "dryRun"}, kValueDepth);
  Wanted wanted;
  wanted.amendment.present = ReadSettings(body, "if");
  wanted.amendment.absent = ReadKeys(body, "absent");
  wanted.amendment.set = ReadSettings(body, "set");
  wanted.amendment.unset = ReadKeys(body, "unset");
  wanted.isVolatile = ReadFlag(body, "volatile");
  wanted.isDryRun = ReadFlag(body, "dryRun");
  for (const IniFile* changes : {&wanted.amendment.set, &wanted.amendment.unset}) {
    for (const auto& [group, keys] : *changes) RequireUnrestricted(call, group);
  }
  for (const IniFile* conditions : {&wanted.amendment.present, &wanted.amendment.absent}) {
    for (const auto& [group, keys] : *conditions) RequireUnmasked(call, group);
  }
  wanted.trial = Trial::Read(body);
  if (wanted.trial && wanted.isVolatile) Refuse(400, "'confirm' and 'volatile' exclude one another");
  return wanted;
}

bool Holds(const Amendment& amendment, const IniFile& current) {
  if (!current.ContainsSettings(amendment.present)) return false;
  for (const auto& [group, keys] : amendment.absent) {
    if (keys.empty() && current.HasGroup(group)) return false;
    for (const auto& [key, value] : keys) {
      if (current.HasValue(group, key)) return false;
    }
  }
  return true;
}

std::set<std::string> NamesOfAll(std::initializer_list<const IniFile*> documents) {
  std::set<std::string> names;
  for (const IniFile* document : documents) names.merge(programs::NamesOf(*document));
  return names;
}

// The items of a list of JSON.
std::string DescribeGroups(const Call& call, const std::set<std::string>& names, const IniFile& current) {
  std::string groups;
  for (const std::string& name : names) {
    const auto found = current.GetGroups().find(name);
    groups +=
        (groups.empty() ? "" : ",") + DescribeGroup(call, name, found == current.end() ? nullptr : &found->second);
  }
  return groups;
}

[[noreturn]] void FailCondition(const Call& call, const Amendment& amendment, const IniFile& current) {
  const std::string groups = DescribeGroups(call, NamesOfAll({&amendment.present, &amendment.absent}), current);
  throw Refusal(412, "the condition does not hold",
                {{"current", programs::Join({"[", groups, "]"})}, {"outcome", Quoted("nothing written")}});
}

// What would differ; a key that leaves the user settings may show its default, which only the daemon knows.
Response ShowDryRun(Call& call, const Amendment& amendment) {
  const std::set<std::string> names =
      NamesOfAll({&amendment.present, &amendment.absent, &amendment.set, &amendment.unset});
  const IniFile current = call.ReadGroups(names);
  if (!Holds(amendment, current)) FailCondition(call, amendment, current);
  IniFile after = current;
  after.MergeSettings(amendment.set);
  for (const auto& [group, keys] : amendment.unset) {
    for (const auto& [key, value] : keys) {
      if (after.HasValue(group, key)) after[group].erase(key);
    }
    if (keys.empty()) after.RemoveGroup(group);
  }
  json changes = json::array();
  for (const programs::Change& change : programs::FindChanges(current, after)) {
    if (names.count(change.group) == 0) continue;
    changes.push_back(programs::ToJson(change));
    if (amendment.unset.HasGroup(change.group) && !change.after) changes.back()["unset"] = true;
  }
  return JsonResponse(programs::JsonObject().Add("dryRun", true).Add("changes", changes).Take());
}

// A value of a restricted file stands, whatever is written: then the user settings have what was set. All else is
// somebody else's later change.
void RequireApplied(Call& call, const Amendment& amendment, const IniFile& current) {
  for (const auto& [group, keys] : amendment.set) {
    std::optional<IniFile::KeyMap> user;
    for (const auto& [key, value] : keys) {
      if (current.HasValue(group, key) && current.GetValue(group, key) == value) continue;
      if (!user) user = call.ReadUserGroup(group).value_or(IniFile::KeyMap());
      const auto kept = user->find(key);
      if (kept == user->end() || kept->second != value) continue;
      Refuse(409, {"not applied: ", programs::SpellSetting(group, key), " does not hold what was set"},
             {{"group", group}, {"key", key}, {"outcome", "unknown"}});
    }
  }
}

Response ShowApplied(Call& call, const Wanted& wanted) {
  const Amendment& amendment = wanted.amendment;
  const std::set<std::string> names = NamesOfAll({&amendment.set, &amendment.unset});
  const IniFile current = call.ReadGroups(names);
  if (!wanted.isVolatile) RequireApplied(call, amendment, current);
  std::string answer = programs::Join({"{\"groups\":[", DescribeGroups(call, names, current), "]"});
  if (wanted.trial) answer += ",\"pending\":" + programs::Compact(wanted.trial->Describe(call));
  return TextResponse(answer + "}");
}

void ApplyVolatile(Call& call, const Amendment& amendment) {
  if (!amendment.present.IsEmpty() || !amendment.absent.IsEmpty() || !amendment.unset.IsEmpty())
    Refuse(400, "'volatile' goes with 'set' alone");
  Merge(call, amendment.set, true);
}

}  // namespace

Response Apply(Call& call) {
  const Wanted wanted = ReadWanted(call);
  const Amendment& amendment = wanted.amendment;
  if (wanted.isDryRun) return ShowDryRun(call, amendment);
  if (wanted.trial) wanted.trial->Arm(call);
  if (wanted.isVolatile) {
    ApplyVolatile(call, amendment);
  } else if (!call.link.GetForWrite().Amend(amendment)) {
    const std::string reason = call.link.Get().TakeRefusal();
    if (reason.compare(0, sizeof kConditionBegin - 1, kConditionBegin) != 0) throw RefusalOf(reason);
    const std::set<std::string> names = NamesOfAll({&amendment.present, &amendment.absent});
    FailCondition(call, amendment, call.ReadGroups(names));
  }
  return ShowApplied(call, wanted);
}

}  // namespace tavix::web
