#include "programs/web/interface/Call.h"

#include <nlohmann/json.hpp>

#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"
#include "programs/web/interface/Version.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;

namespace {

constexpr size_t kNodeBytes = 64;  // of a group or key beside its text

size_t SizeOf(const IniFile::GroupMap::value_type& group) {
  size_t bytes = kNodeBytes + group.first.size();
  for (const auto& [key, value] : group.second) bytes += kNodeBytes + key.size() + value.size();
  return bytes;
}

}  // namespace

bool View::IsMasked(const std::string& group) const {
  return !showsRestricted && settings::server::GroupDiscriminator::IsRestrictedGroup(group);
}

std::string View::FindVersion(const std::string& group, const IniFile::KeyMap& keys) const {
  return VersionOf(keys, IsMasked(group) ? salt : std::string());
}

json View::ValuesToJson(const std::string& group, const IniFile::KeyMap& keys) const {
  json object = json::object();
  for (const auto& [key, value] : keys)
    object[programs::NameToJson(key).get<std::string>()] =
        IsMasked(group) ? json(nullptr) : programs::ValueToJson(value);
  return object;
}

// A name with a '*' in it brings others, maybe all: no more than one is kept.
std::optional<IniFile::KeyMap> Call::ReadGroup(const std::string& name) {
  std::optional<IniFile::KeyMap> keys;
  link.Get().GetEach({name}, [&](const IniFile& part) {
    if (!part.HasGroup(name)) return;
    size.Add(SizeOf(*part.begin()));
    keys = part[name];
  });
  return keys;
}

std::optional<IniFile::KeyMap> Call::ReadUserGroup(const std::string& name) {
  std::optional<IniFile::KeyMap> keys;
  session.GetEachOfUser([&](const IniFile& part) {
    if (part.HasGroup(name)) keys = part[name];
  });
  return keys;
}

IniFile Call::ReadGroups(const std::set<std::string>& groups) {
  IniFile all;
  if (groups.empty()) return all;
  session.GetEach(groups, [&](const IniFile& part) {
    size.Add(SizeOf(*part.begin()));
    all.MergeGroup(part.begin());
  });
  return all;
}

void RequireSendable(const std::string& group) {
  if (group == "." || group.find('\n') != std::string::npos)
    Refuse(422, {"no group can have the name '", programs::SpellName(group), "'"}, {{"group", group}});
}

void RequireUnrestricted(const Call& call, const std::string& group) {
  if (call.session.IsRestricted(group))
    Refuse(403, {"'", programs::SpellName(group), "' is a restricted group, which no client can write"},
           {{"group", group}});
}

void RequireUnmasked(const Call& call, const std::string& group) {
  if (call.view.IsMasked(group))
    Refuse(403, {"'", programs::SpellName(group), "' is a restricted group, whose values are masked"},
           {{"group", group}});
}

}  // namespace tavix::web
