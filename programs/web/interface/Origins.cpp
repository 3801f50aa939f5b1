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
  call.session.GetEachOfUser([&](const IniFile& part) {
    if (groups.count(part.begin()->first) != 0) _user.MergeGroup(part.begin());
  });
}

const char* Origins::Find(const std::string& group, const std::string& key) const {
  if (_call.session.IsRestricted(group)) return kRestricted;
  return _user.HasValue(group, key) ? kUser : kDefault;
}

const char* Origins::Find(const std::string& group, const IniFile::KeyMap& keys) const {
  if (_call.session.IsRestricted(group)) return kRestricted;
  size_t fromUser = 0;
  for (const auto& [key, value] : keys) fromUser += _user.HasValue(group, key) ? 1 : 0;
  if (fromUser == keys.size() && _user.HasGroup(group)) return kUser;
  return fromUser == 0 ? kDefault : kMixed;
}

}  // namespace tavix::web
