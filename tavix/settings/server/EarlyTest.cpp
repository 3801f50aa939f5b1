#include "tavix/settings/server/EarlyTest.h"

#include <algorithm>
#include <cstddef>

#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/server/StoreDocuments.h"

namespace tavix::settings::server {

EarlyTest::EarlyTest(const core::IniFile& test, HoldsGroup holdsGroup)
    : _test(test), _holdsGroup(holdsGroup), _isLong(IsLarge(test)) {}

bool EarlyTest::HoldsInParts(const StoreDocuments& documents) const {
  constexpr size_t kKeysOfAPart = 1000;
  for (auto group = _test.begin(); group != _test.end();) {
    const osa::ReadAutoLock lock(documents.GetLock());
    for (size_t keys = 0; group != _test.end() && keys < kKeysOfAPart; ++group) {
      if (!_holdsGroup(documents.GetAll(), group)) return false;
      keys += 1 + group->second.size();
    }
  }
  return true;
}

bool EarlyTest::Holds(const core::IniFile& all, const std::set<std::string>& changedGroups) const {
  if (!_isLong) {
    for (auto group = _test.begin(); group != _test.end(); ++group) {
      if (!_holdsGroup(all, group)) return false;
    }
    return true;
  }
  return std::all_of(changedGroups.begin(), changedGroups.end(), [&](const std::string& name) {
    const auto group = _test.GetGroups().find(name);
    return group == _test.end() || _holdsGroup(all, group);
  });
}

}  // namespace tavix::settings::server
