#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tavix::bridge {

// A key of which both ends hold something else. A plain value.
struct KeyDifference {
  std::string key;
  std::optional<std::string> here;    // nothing: it is not there
  std::optional<std::string> there;   // likewise
  std::optional<std::string> agreed;  // what both held last
};

// A plain value.
struct GroupDifference {
  std::string group;
  std::vector<KeyDifference> keys;  // none: all of the group is still to be sent
};

// Returns whether there is room for more.
using TakeDifference = std::function<bool(const GroupDifference& difference)>;

}  // namespace tavix::bridge
