#include "tavix/settings/server/StoreDocuments.h"

#include "tavix/osa/ReadWriteAutoLock.h"

namespace tavix::settings::server {

namespace {

constexpr size_t kGroupsOfAPart = 200;  // each is looked for, and some keys are copied

}  // namespace

void StoreDocuments::OwnGroups(const core::IniFile& named) {
  for (auto group = named.begin(); group != named.end();) {
    const osa::WriteAutoLock lock(_lock);
    if (!_user.HasShared()) return;
    for (size_t left = kGroupsOfAPart; left > 0 && group != named.end(); --left, ++group)
      _user.Own(group->first, _account);
  }
}

}  // namespace tavix::settings::server
