#include "tavix/settings/server/EarlyMatches.h"

#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/osa/ReadWriteAutoLock.h"

namespace tavix::settings::server {

namespace {

constexpr size_t kFewNames = 64;
constexpr GroupWalk::Work kWorkOfAPart = 1000;

}  // namespace

EarlyMatches::EarlyMatches(const common::GroupNameMatcher& matcher, const core::IniFile& document,
                           osa::ReadWriteLock& lock, ChangeRecorders& recorders)
    : _matcher(matcher), _document(document) {
  if (matcher.GetPatterns().empty() && matcher.GetNames().size() <= kFewNames) return;
  _walk.emplace(matcher);
  _recorder.emplace(recorders);
  FindInParts(lock);
}

void EarlyMatches::FindInParts(osa::ReadWriteLock& lock) {
  std::string next;
  for (bool isDone = false; !isDone;) {
    osa::ReadAutoLock part(lock);
    isDone = FindPart(next);
  }
}

// Goes on from the group "next", and sets it for the next part. Returns whether there is none.
bool EarlyMatches::FindPart(std::string& next) {
  auto group = _document.GetGroups().lower_bound(next);
  for (GroupWalk::Work work = kWorkOfAPart;; ++group, --work) {
    group = _walk->FindNext(_document, group, _document.end(), work);
    if (group == _document.end()) return true;
    if (work == 0) break;
    _found.insert(_found.end(), group->first);
  }
  next = group->first;
  return false;
}

std::set<std::string> EarlyMatches::Take() {
  if (!_walk) {
    _matcher.GetMatchingGroups(_document, _found);
    return std::move(_found);
  }
  for (const std::string& name : _recorder->Take()) {
    if (!_walk->Matches(name)) continue;
    if (_document.HasGroup(name)) {
      _found.insert(name);
    } else {
      _found.erase(name);
    }
  }
  _recorder.reset();  // the change that follows is the caller's own
  return std::move(_found);
}

}  // namespace tavix::settings::server
