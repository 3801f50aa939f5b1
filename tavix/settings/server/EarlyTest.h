#pragma once

#include <set>
#include <string>

namespace tavix::core {
class IniFile;
}

namespace tavix::settings::server {

class StoreDocuments;

// Whether readers see every value of a document. Of a large one that is found out in parts under the read lock, before
// the write lock is taken; under the write lock only the groups that changed since then are tested again.
//
// Threads: one at a time.
class EarlyTest {
 public:
  // test: outlives the object.
  explicit EarlyTest(const core::IniFile& test);

  // Whether it takes so long that HoldsInParts is to be called first.
  bool IsLong() const { return _isLong; }

  // The lock is not held. Each part may be tested at another moment: false is final, true is to be confirmed.
  bool HoldsInParts(const StoreDocuments& documents) const;

  // all: what readers see, while the write lock is held. changedGroups: since before HoldsInParts.
  bool Holds(const core::IniFile& all, const std::set<std::string>& changedGroups) const;

 private:
  const core::IniFile& _test;
  const bool _isLong;
};

}  // namespace tavix::settings::server
