#include "programs/web/interface/Origins.h"

namespace tavix::web {

using core::IniFile;

namespace {

constexpr char kRestricted[] = "restricted";
constexpr char kUser[] = "user";
constexpr char kDefault[] = "default";
constexpr char kMixed[] = "mixed";

}  // namespace

Origins::Origins(Call& call, const std::set<std::string>& groups) : _call(call) {
  if (groups.size() == 1 && call.reads.Has(*groups.begin())) {
    const std::set<std::string>* const ofUser = call.reads.Find(*groups.begin()).ofUser;
    if (ofUser) _user.emplace(*groups.begin(), *ofUser);
    return;
  }
  call.session.GetEachOfUser([&](const IniFile& part) {
    const auto& [group, keys] = *part.begin();
    if (groups.count(group) == 0) return;
    std::set<std::string>& names = _user[group];
    for (const auto& [key, value] : keys) names.insert(names.end(), key);
  });
}

const char* Origins::Find(const std::string& group, const std::string& key) const {
  if (_call.session.IsRestricted(group)) return kRestricted;
  return IsFromUser(group, key) ? kUser : kDefault;
}

const char* Origins::Find(const std::string& group, const IniFile::KeyMap& keys) const {
  if (_call.session.IsRestricted(group)) return kRestricted;
  size_t fromUser = 0;
  for (const auto& [key, value] : keys) fromUser += IsFromUser(group, key) ? 1 : 0;
  if (fromUser == keys.size() && _user.count(group) != 0) return kUser;
  return fromUser == 0 ? kDefault : kMixed;
}

bool Origins::IsFromUser(const std::string& group, const std::string& key) const {
  const auto found = _user.find(group);
  return found != _user.end() && found->second.count(key) != 0;
}

}  // namespace tavix::web
