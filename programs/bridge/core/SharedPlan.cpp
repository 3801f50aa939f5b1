#include "programs/bridge/core/SharedPlan.h"

#include <set>

namespace tavix::bridge {

namespace {

std::set<std::string> NamesOf(const Keys& first, const Keys& second) {
  std::set<std::string> names;
  for (const auto& [key, value] : first) names.insert(key);
  for (const auto& [key, value] : second) names.insert(key);
  return names;
}

void SetValue(Keys& keys, const std::string& key, const std::optional<std::string>& value) {
  if (value) {
    keys[key] = *value;
  } else {
    keys.erase(key);
  }
}

// now: what stands where the changes may have been made.
void AddMade(Keys& base, const KeyChanges& changes, const Keys& now) {
  for (const auto& [key, value] : changes) {
    if (value == FindValue(now, key)) SetValue(base, key, value);
  }
}

// What both ends held last, with what changes add to that, which were on their way when the link or the process ended.
// Key by key: others may have changed some of them since, in the same way, too. Where that can't be known, it is a
// conflict.
Keys FindBase(const SharedView& view) {
  Keys base = view.agreed.value_or(Keys());
  if (!view.intent) return base;
  const Intent& intent = *view.intent;
  for (const KeyChanges& changes : intent.late) AddMade(base, changes, view.centre);
  const Keys& now = intent.where == Intent::Where::kDevice ? view.device : view.centre;
  AddMade(base, FindKeyChanges(intent.before, intent.after), now);
  return base;
}

// The centre's keys hold; keys that it does not have are the device's own, unless the centre had them.
SharedPlan PlanDown(const std::string& group, const SharedView& view) {
  const Keys base = FindBase(view);
  SharedPlan plan;
  plan.centre = view.centre;
  plan.device = view.centre;
  for (const auto& [key, value] : view.device) {
    const auto there = FindValue(view.centre, key);
    const auto before = FindValue(base, key);
    if (!there && !before) plan.device[key] = value;
    if ((there || before) && there != value && before != value) {
      plan.conflicts.push_back({group, key, there, value, Side::kDevice});
    }
  }
  for (const auto& [key, value] : base) {
    const auto there = FindValue(view.centre, key);
    if (there && view.device.count(key) == 0)
      plan.conflicts.push_back({group, key, there, std::nullopt, Side::kDevice});
  }
  return plan;
}

}  // namespace

SharedPlan MakeSharedPlan(const std::string& group, const MapRule& rule, const SharedView& view,
                          std::optional<Side> decision) {
  SharedPlan plan;
  if (rule.direction == Direction::kUp) {
    plan.device = view.device;
    plan.centre = view.device;
    return plan;
  }
  Side winner = rule.winner;
  if (!view.agreed && view.device != view.centre) {
    plan.isUndecided = rule.first == First::kRefuse && !decision;
    if (plan.isUndecided) {
      plan.device = view.device;
      plan.centre = view.centre;
      return plan;
    }
    winner = decision ? *decision : rule.first == First::kDevice ? Side::kDevice : Side::kCentre;
  }
  if (rule.direction == Direction::kDown) return PlanDown(group, view);

  MergedGroup merged = MergeThreeWay(group, FindBase(view), view.device, view.centre, winner);
  plan.device = merged.keys;
  plan.centre = std::move(merged.keys);
  plan.conflicts = std::move(merged.conflicts);
  return plan;
}

KeyChanges FindKeyChanges(const Keys& before, const Keys& after) {
  KeyChanges changes;
  for (const std::string& key : NamesOf(before, after)) {
    const auto value = FindValue(after, key);
    if (value != FindValue(before, key)) changes[key] = value;
  }
  return changes;
}

std::set<std::string> FindLost(const Keys& before, const Keys& after) {
  std::set<std::string> lost;
  for (const auto& [key, value] : before) {
    if (after.count(key) == 0) lost.insert(key);
  }
  return lost;
}

}  // namespace tavix::bridge
