#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "programs/bridge/core/Keys.h"
#include "programs/bridge/core/Rules.h"
#include "programs/bridge/core/ThreeWayMerge.h"

namespace tavix::bridge {

// Keys with the values that they get; nothing: they go.
using KeyChanges = std::map<std::string, std::optional<std::string>>;

// A change that was about to be made when it was written down. A plain value.
struct Intent {
  enum class Where { kDevice, kCentre, kNowhere };

  Where where = Where::kDevice;
  Keys before;  // what stood there
  Keys after;   // what was to stand there

  // What earlier puts change whose outcome nobody knows. Until the item has another version than the one that they
  // expect, the other end may still carry out one of them.
  std::vector<KeyChanges> late = {};
};

KeyChanges FindKeyChanges(const Keys& before, const Keys& after);

// What is known of one group. A plain value.
struct SharedView {
  std::optional<Keys> agreed;  // what both ends held last; nothing: nothing was agreed yet
  Keys device;
  Keys centre;
  std::optional<Intent> intent;  // of a change of which nobody knows if it was made
};

// What is to become of one group. A plain value.
struct SharedPlan {
  bool isUndecided = false;  // nothing may be done before a person decides
  Keys device;               // what each end is to hold
  Keys centre;
  std::vector<Conflict> conflicts;
};

// decision: what a person said of groups of which nothing was agreed.
SharedPlan MakeSharedPlan(const std::string& group, const MapRule& rule, const SharedView& view,
                          std::optional<Side> decision);

// The keys of "before" that "after" lacks.
std::set<std::string> FindLost(const Keys& before, const Keys& after);

}  // namespace tavix::bridge
