#include "tavix/settings/server/RefusalReasons.h"

#include "tavix/settings/Amendment.h"
#include "tavix/settings/server/AmendmentPlan.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

namespace {

std::string NameRestricted(const std::string& group) {
  return "restricted group: " + group;
}

}  // namespace

std::string ReasonOf(const RefusedChange& refusal) {
  const bool isFull = refusal.GetReason() == RefusedChange::Reason::kStoreFull;
  return (isFull ? "full store: " : "bound: ") + std::string(refusal.what());
}

std::string ReasonOfFailure(const Amendment& amendment) {
  if (!AmendmentPlan(amendment).IsSound()) return "contradiction: its changes exclude one another";
  return std::string(kConditionFailed) + ", or a recorded pattern hides a group of unset";
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
