#pragma once

#include <set>
#include <string>
#include <vector>

#include "tests/support/RecordingCallback.h"

namespace tavix::test {

using Names = std::set<std::string>;

// More than what is handled in one go.
inline Names ManyNames() {
  Names names;
  for (int i = 0; i < 5000; ++i) names.insert("Group" + std::to_string(i));
  return names;
}

inline std::vector<Names> GroupsTold(const RecordingCallback& callback) {
  std::vector<Names> groups;
  for (const auto& change : callback.GetChanges()) groups.push_back(change.groups);
  return groups;
}

}  // namespace tavix::test
