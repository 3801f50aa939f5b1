#include "programs/web/interface/GroupReads.h"

#include <exception>

#include "tavix/osa/Exception.h"

namespace tavix::web {

using core::IniFile;
using settings::client::ProtocolClient;

namespace {

constexpr size_t kMaxBytes = size_t{8} * 1024 * 1024;
constexpr size_t kNodeBytes = 64;  // of a key beside its texts

}  // namespace

void GroupReads::Read(DaemonLink& link, const std::set<std::string>& names, DaemonLink::Clock::time_point end) {
  Forget();
  try {
    link.Begin(end);
    ReadKeys(link.Get(), names);
    ReadUserKeys(link.Get(), names);
    _names = names;
  } catch (const std::exception&) {
    Forget();
  }
}

void GroupReads::Forget() {
  _names.clear();
  _groups.Clear();
  _user.clear();
}

void GroupReads::ReadKeys(ProtocolClient& client, const std::set<std::string>& names) {
  size_t bytes = 0;
  client.GetEach(names, [&](const IniFile& part) {
    for (const auto& [key, value] : part.begin()->second) bytes += kNodeBytes + key.size() + value.size();
    if (bytes > kMaxBytes) throw osa::Exception("Too much is read at once");
    _groups.MergeGroup(part.begin());
  });
}

void GroupReads::ReadUserKeys(ProtocolClient& client, const std::set<std::string>& names) {
  client.GetEachOfUser([&](const IniFile& part) {
    const auto& [group, keys] = *part.begin();
    if (names.count(group) == 0) return;
    std::set<std::string>& ofUser = _user[group];
    for (const auto& [key, value] : keys) ofUser.insert(ofUser.end(), key);
  });
}

GroupReads::Group GroupReads::Find(const std::string& name) const {
  const auto user = _user.find(name);
  return {_groups.HasGroup(name) ? &_groups[name] : nullptr, user == _user.end() ? nullptr : &user->second};
}

}  // namespace tavix::web
