#include "tavix/settings/server/StoreDocuments.h"

#include "tavix/osa/ReadWriteAutoLock.h"

namespace tavix::settings::server {

namespace {

constexpr size_t kKeysOfAPart = 1000;  // that are copied while readers wait
constexpr size_t kKeysOfASearch = 5;   // that could be copied in the time that a group is looked for

}  // namespace

void StoreDocuments::OwnGroups(const core::IniFile& named) {
  for (auto group = named.begin(); group != named.end();) {
    const osa::WriteAutoLock lock(_lock);
    if (!_user.HasShared()) return;
    for (size_t keys = 0; keys < kKeysOfAPart && group != named.end(); ++group)
      keys += kKeysOfASearch + _user.Own(group->first, _account);
  }
}

}  // namespace tavix::settings::server
