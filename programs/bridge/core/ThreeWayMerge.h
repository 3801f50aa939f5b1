#pragma once

#include <optional>
#include <string>
#include <vector>

#include "programs/bridge/core/Keys.h"

namespace tavix::bridge {

// A key that both ends changed, each in its own way. A plain value.
struct Conflict {
  std::string group;
  std::string key;
  std::optional<std::string> kept;  // nothing: the removal was kept
  std::optional<std::string> lost;  // nothing: the removal was lost
  Side loser = Side::kDevice;

  bool operator==(const Conflict& other) const {
    return group == other.group && key == other.key && kept == other.kept && lost == other.lost && loser == other.loser;
  }
};

// What a group is to hold at both ends. A plain value.
struct MergedGroup {
  Keys keys;
  std::vector<Conflict> conflicts;
};

// Merges one group by key. agreed: what both ends held last. A key that one end alone changed is taken from that end;
// of a key that both changed alike there is nothing to decide; else the winner's is kept.
MergedGroup MergeThreeWay(const std::string& group, const Keys& agreed, const Keys& device, const Keys& centre,
                          Side winner);

}  // namespace tavix::bridge
