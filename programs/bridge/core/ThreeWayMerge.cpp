#include "programs/bridge/core/ThreeWayMerge.h"

#include <set>

namespace tavix::bridge {

MergedGroup MergeThreeWay(const std::string& group, const Keys& agreed, const Keys& device, const Keys& centre,
                          Side winner) {
  std::set<std::string> names;
  for (const Keys* keys : {&agreed, &device, &centre}) {
    for (const auto& [key, value] : *keys) names.insert(key);
  }

  MergedGroup merged;
  for (const std::string& key : names) {
    const auto before = FindValue(agreed, key);
    const auto here = FindValue(device, key);
    const auto there = FindValue(centre, key);
    const bool isConflict = here != there && here != before && there != before;
    const bool takesDevice = isConflict ? winner == Side::kDevice : here != before;
    const auto& kept = takesDevice ? here : there;
    const auto& lost = takesDevice ? there : here;
    if (kept) merged.keys[key] = *kept;
    if (isConflict) {
      merged.conflicts.push_back({group, key, kept, lost, takesDevice ? Side::kCentre : Side::kDevice});
    }
  }
  return merged;
}

}  // namespace tavix::bridge
