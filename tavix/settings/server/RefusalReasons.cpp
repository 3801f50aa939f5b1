#include "tavix/settings/server/RefusalReasons.h"

#include <algorithm>

#include "tavix/settings/Amendment.h"
#include "tavix/settings/server/AmendmentPlan.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

namespace {

const char* KindOf(RefusedChange::Reason reason) {
  switch (reason) {
    case RefusedChange::Reason::kStoreFull:
      return "full store: ";
    case RefusedChange::Reason::kTrial:
      return "trial: ";
    case RefusedChange::Reason::kTrialBytes:
    case RefusedChange::Reason::kDeletedPatterns:
      break;
  }
  return "bound: ";
}

std::string NameRestricted(const std::string& group) {
  return "restricted group: " + group;
}

}  // namespace

std::string ReasonOf(const RefusedChange& refusal) {
  return KindOf(refusal.GetReason()) + std::string(refusal.what());
}

// What can't have been the reason shows in the amendment: the store does not keep it.
std::string ReasonOfFailure(const Amendment& amendment) {
  if (!AmendmentPlan(amendment).IsSound()) return "contradiction: its changes exclude one another";
  constexpr char kHidden[] = "a recorded pattern hides a group of unset";
  if (amendment.present.IsEmpty() && amendment.absent.IsEmpty()) return std::string("hidden: ") + kHidden;
  const bool mayBeHidden = std::any_of(amendment.unset.begin(), amendment.unset.end(),
                                       [](const auto& group) { return group.second.empty(); });
  return mayBeHidden ? std::string(kConditionFailed) + ", or " + kHidden : kConditionFailed;
}

std::string ReasonOfRestricted(const std::set<std::string>& names) {
  for (const std::string& name : names) {
    if (GroupDiscriminator::IsRestrictedGroup(name)) return NameRestricted(name);
  }
  return std::string();
}

std::string ReasonOfRestricted(const core::IniFile& settings) {
  for (const auto& group : settings) {
    if (GroupDiscriminator::IsRestrictedGroup(group.first)) return NameRestricted(group.first);
  }
  return std::string();
}

}  // namespace tavix::settings::server
