#pragma once

#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/DocumentChange.h"

namespace tavix::settings::server {

class StoreDocuments;

// Whether what readers see is, in each group, as a document demands. Of a large one that is found out in parts under
// the read lock, before the write lock is taken; under the write lock only the groups that changed since then are
// tested again.
//
// Threads: one at a time.
class EarlyTest {
 public:
  // Whether "all" is as a group of the test demands.
  using HoldsGroup = bool (*)(const core::IniFile& all, core::IniFile::const_iterator group);

  // test: outlives the object. By default readers are to see each of its values.
  explicit EarlyTest(const core::IniFile& test, HoldsGroup holdsGroup = HoldsValues);

  // Whether it takes so long that HoldsInParts is to be called first.
  bool IsLong() const { return _isLong; }

  // The lock is not held. Each part may be tested at another moment: false is final, true is to be confirmed.
  bool HoldsInParts(const StoreDocuments& documents) const;

  // all: what readers see, while the write lock is held. changedGroups: since before HoldsInParts.
  bool Holds(const core::IniFile& all, const std::set<std::string>& changedGroups) const;

 private:
  const core::IniFile& _test;
  const HoldsGroup _holdsGroup;
  const bool _isLong;
};

}  // namespace tavix::settings::server
