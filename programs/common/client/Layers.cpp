#include "programs/common/client/Layers.h"

namespace tavix::programs {

namespace {

constexpr char kRestricted[] = "restricted";
constexpr char kUser[] = "user";
constexpr char kDefault[] = "default";
constexpr char kMixed[] = "mixed";

}  // namespace

Layers::Layers(Session& session) : _session(session) {
  session.GetEachOfUser([this](const core::IniFile& part) {
    const auto& [group, keys] = *part.begin();
    core::IniFile::KeyMap& names = _user[group];
    for (const auto& [key, value] : keys) names.emplace_hint(names.end(), key, std::string());
  });
}

const char* Layers::FindOrigin(const std::string& group, const std::string& key) const {
  if (_session.IsRestricted(group)) return kRestricted;
  return _user.HasValue(group, key) ? kUser : kDefault;
}

const char* Layers::FindOrigin(core::IniFile::const_iterator group) const {
  if (_session.IsRestricted(group->first)) return kRestricted;
  size_t fromUser = 0;
  for (const auto& [key, value] : group->second) fromUser += _user.HasValue(group->first, key) ? 1 : 0;
  if (fromUser == group->second.size() && _user.HasGroup(group->first)) return kUser;
  return fromUser == 0 ? kDefault : kMixed;
}

}  // namespace tavix::programs
