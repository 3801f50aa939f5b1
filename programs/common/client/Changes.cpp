#include "programs/common/client/Changes.h"

#include <nlohmann/json.hpp>

#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"

namespace tavix::programs {

using core::IniFile;
using nlohmann::json;

namespace {

const IniFile::KeyMap& KeysOf(const IniFile& settings, const std::string& group) {
  static const IniFile::KeyMap kNone;
  const auto found = settings.GetGroups().find(group);
  return found == settings.end() ? kNone : found->second;
}

std::optional<std::string> ValueOf(const IniFile::KeyMap& keys, const std::string& key) {
  const auto found = keys.find(key);
  return found == keys.end() ? std::nullopt : std::make_optional(found->second);
}

void CompareKeys(const std::string& group, const IniFile::KeyMap& before, const IniFile::KeyMap& after,
                 std::vector<Change>& changes) {
  IniFile::KeyMap all = before;
  all.insert(after.begin(), after.end());
  for (const auto& [key, value] : all) {
    Change change{group, key, ValueOf(before, key), ValueOf(after, key)};
    if (change.before != change.after) changes.push_back(std::move(change));
  }
}

}  // namespace

std::vector<Change> FindChanges(const IniFile& before, const IniFile& after) {
  std::vector<Change> changes;
  IniFile::GroupMap all = before.GetGroups();
  all.insert(after.begin(), after.end());
  for (const auto& [group, keys] : all) {
    const bool isGone = !after.HasGroup(group);
    const bool hasComeEmpty = !before.HasGroup(group) && KeysOf(after, group).empty();
    if (isGone || hasComeEmpty) changes.push_back({group, std::nullopt, std::nullopt, std::nullopt, hasComeEmpty});
    CompareKeys(group, KeysOf(before, group), KeysOf(after, group), changes);
  }
  return changes;
}

json ToJson(const Change& change) {
  json object = JsonObject().Add("group", NameToJson(change.group)).Take();
  if (!change.key) {
    object["event"] = change.hasCome ? "group added" : "group removed";
    return object;
  }
  object["key"] = NameToJson(*change.key);
  object["old"] = ValueToJson(change.before);
  object["new"] = ValueToJson(change.after);
  return object;
}

}  // namespace tavix::programs
