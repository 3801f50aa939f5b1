#include "tavix/settings/common/CallbackDispatcher.h"

#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/Time.h"

namespace tavix::settings::common {

using osa::kWaitForever;
using osa::MutexAutoLock;

void CallbackDispatcher::AddCallback(IChangeCallback* cb, const std::set<std::string>& groups) {
  MutexAutoLock lock(&_mutex, kWaitForever, true);
  _callbacks[cb].AddNamesAndPatterns(groups);
}

void CallbackDispatcher::AddCallback(IChangeCallback* cb, const GroupNameMatcher& matcher) {
  MutexAutoLock lock(&_mutex, kWaitForever, true);
  _callbacks[cb].Merge(matcher);
}

void CallbackDispatcher::OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) const {
  MutexAutoLock lock(&_mutex, kWaitForever, true);
  TellSubscribers(changedGroups, settings);
}

void CallbackDispatcher::OnChange(const core::IniFile& settings) const {
  MutexAutoLock lock(&_mutex, kWaitForever, true);
  if (_callbacks.empty()) return;
  std::set<std::string> changedGroups;
  for (const auto& group : settings) changedGroups.insert(changedGroups.end(), group.first);
  TellSubscribers(changedGroups, settings);
}

// The caller holds the mutex.
void CallbackDispatcher::TellSubscribers(const std::set<std::string>& changedGroups,
                                         const core::IniFile& settings) const {
  std::set<std::string> matched;
  for (const auto& [callback, matcher] : _callbacks) {
    matcher.GetMatchingGroups(changedGroups, matched);
    if (matched.empty()) continue;
    callback->OnChange(matched, settings);
    matched.clear();
  }
}

void CallbackDispatcher::GetAllSubscribedGroups(std::set<std::string>& out) const {
  MutexAutoLock lock(&_mutex, kWaitForever, true);
  for (const auto& entry : _callbacks) {
    const GroupNameMatcher& matcher = entry.second;
    out.insert(matcher.GetNames().begin(), matcher.GetNames().end());
    out.insert(matcher.GetPatterns().begin(), matcher.GetPatterns().end());
  }
}

size_t CallbackDispatcher::CountSubscriptionBytes() const {
  MutexAutoLock lock(&_mutex, kWaitForever, true);
  size_t bytes = 0;
  for (const auto& entry : _callbacks) {
    for (const std::string& name : entry.second.GetNames()) bytes += name.size();
    for (const std::string& pattern : entry.second.GetPatterns()) bytes += pattern.size();
  }
  return bytes;
}

bool CallbackDispatcher::WouldExceedMaxAlikePatterns(const std::set<std::string>& groups) const {
  GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(groups);
  return WouldExceedMaxAlikePatterns(matcher);
}

bool CallbackDispatcher::WouldExceedMaxAlikePatterns(const GroupNameMatcher& matcher) const {
  const size_t max = _maxAlikePatterns.load(std::memory_order_relaxed);
  if (max == 0) return false;
  std::set<std::string> all;
  GetAllSubscribedGroups(all);
  all.insert(matcher.GetPatterns().begin(), matcher.GetPatterns().end());
  std::map<std::string, size_t> alike;
  for (const std::string& pattern : all) {
    const size_t star = pattern.find('*');
    if (star != std::string::npos && ++alike[pattern.substr(0, star)] > max) return true;
  }
  return false;
}

void CallbackDispatcher::RemoveCallback(IChangeCallback* cb) {
  MutexAutoLock lock(&_mutex, kWaitForever, true);
  _callbacks.erase(cb);
}

}  // namespace tavix::settings::common
