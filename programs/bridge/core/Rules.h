#pragma once

#include <set>
#include <string>
#include <vector>

#include "programs/bridge/core/Keys.h"

namespace tavix::bridge {

enum class Direction {
  kUp,    // the centre sees the groups and changes nothing
  kDown,  // the centre's values hold; what the device changes of them is put back
  kBoth,  // both ends change them
};

// Who wins while nothing was agreed yet.
enum class First {
  kCentre,
  kDevice,
  kRefuse,  // nothing is done until a person decides
};

// A section [map NAME] of the configuration. A plain value.
struct MapRule {
  std::string name;
  std::string pattern;
  Direction direction = Direction::kUp;
  Side winner = Side::kCentre;
  First first = First::kCentre;
};

// Which groups are mirrored, and how. What is fixed whatever is configured: groups of the store's own bookkeeping and
// restricted groups are never mirrored. A plain value.
class Rules {
 public:
  // maps: the first one that matches a group rules it. never: patterns of groups. mask: patterns of "[group]key".
  Rules(std::vector<MapRule> maps, std::vector<std::string> never, std::vector<std::string> mask);

  // Nothing: the group is not mirrored. One without a name never is: no topic and no key below a prefix can name it.
  const MapRule* Find(const std::string& group) const;

  bool IsNever(const std::string& group) const;
  bool IsMasked(const std::string& group, const std::string& key) const;

  const std::vector<MapRule>& GetMaps() const { return _maps; }
  const std::vector<std::string>& GetNever() const { return _never; }
  std::set<std::string> GetPatterns() const;

 private:
  std::vector<MapRule> _maps;
  std::vector<std::string> _never;
  std::vector<std::string> _mask;
};

}  // namespace tavix::bridge
