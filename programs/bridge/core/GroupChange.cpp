#include "programs/bridge/core/GroupChange.h"

namespace tavix::bridge {

bool AddChange(settings::Amendment& amendment, const std::string& group, const Keys& before, const Keys& after,
               bool canRemove) {
  for (const auto& [key, value] : after) {
    const auto old = FindValue(before, key);
    if (old == value) continue;
    amendment.set.SetValue(group, key, value);
    if (old) {
      amendment.present.SetValue(group, key, *old);
    } else {
      amendment.absent.SetValue(group, key, "");
    }
  }
  bool stays = false;
  for (const auto& [key, value] : before) {
    if (after.count(key) > 0) continue;
    stays = stays || !canRemove;
    if (!canRemove) continue;
    amendment.present.SetValue(group, key, value);
    amendment.unset.SetValue(group, key, "");
  }
  return stays;
}

bool IsEmpty(const settings::Amendment& amendment) {
  return amendment.set.IsEmpty() && amendment.unset.IsEmpty() && amendment.replace.IsEmpty();
}

}  // namespace tavix::bridge
