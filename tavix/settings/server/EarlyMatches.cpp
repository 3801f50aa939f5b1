#include "tavix/settings/server/EarlyMatches.h"

#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ReadWriteAutoLock.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::settings::server {

namespace {

constexpr size_t kFewNames = 64;
constexpr GroupWalk::Work kWorkOfAPart = 1000;

}  // namespace

EarlyMatches::EarlyMatches(const common::GroupNameMatcher& matcher, StoreDocuments::Which which)
    : _matcher(matcher), _which(which) {}

bool EarlyMatches::AreMany() const {
  return !_matcher.GetPatterns().empty() || _matcher.GetNames().size() > kFewNames;
}

// Clients never remove restricted groups that readers see.
bool EarlyMatches::IsRemovable(const std::string& name) const {
  return _which == StoreDocuments::Which::kUser || !GroupDiscriminator::IsRestrictedGroup(name);
}

void EarlyMatches::FindInParts(const StoreDocuments& documents) {
  if (!_walk) _walk.emplace(_matcher);
  _found.clear();
  _lost.clear();
  std::string next;
  for (bool isDone = false; !isDone;) {
    const osa::ReadAutoLock part(documents.GetLock());
    isDone = FindPart(documents.GetGroups(_which), next);
  }
}

// Goes on from the group "next", and sets it for the next part. Returns whether there is none.
bool EarlyMatches::FindPart(const core::IniFile& document, std::string& next) {
  auto group = document.GetGroups().lower_bound(next);
  for (GroupWalk::Work work = kWorkOfAPart;; ++group, --work) {
    group = _walk->FindNext(document, group, document.end(), work);
    if (group == document.end()) return true;
    if (work == 0) break;
    if (IsRemovable(group->first)) _found.insert(_found.end(), group->first);
  }
  next = group->first;
  return false;
}

std::set<std::string> EarlyMatches::Take(const core::IniFile& document, const std::set<std::string>& changedGroups) {
  if (!_walk) {
    _matcher.GetMatchingGroups(document, _found);
    if (_which == StoreDocuments::Which::kAll) GroupDiscriminator::FilterOutRestrictedGroups(_found);
    return std::move(_found);
  }
  for (const std::string& name : changedGroups) {
    if (!IsRemovable(name) || !_walk->Matches(name)) continue;
    if (document.HasGroup(name)) {
      _found.insert(name);
    } else {
      auto lost = _found.extract(name);
      if (lost) _lost.insert(std::move(lost));
    }
  }
  return std::move(_found);
}

}  // namespace tavix::settings::server
