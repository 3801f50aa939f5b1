#include "programs/server/history/SettingsOfCheckpoint.h"

#include <algorithm>
#include <cstddef>

namespace tavix::daemon {

using core::IniFile;
using settings::server::LayerView;
using KeyMap = IniFile::KeyMap;

namespace {

// null: the group is not there.
void CompareGroup(const std::string& name, const KeyMap* now, const KeyMap* then, RollbackPlan& plan) {
  static const std::string isThere;
  static const KeyMap none;
  plan.Add(name, nullptr, now && now->empty() ? &isThere : nullptr, then && then->empty() ? &isThere : nullptr);
  const KeyMap& ours = now ? *now : none;
  const KeyMap& theirs = then ? *then : none;
  auto our = ours.begin();
  auto their = theirs.begin();
  while (our != ours.end() || their != theirs.end()) {
    const bool isOurs = their == theirs.end() || (our != ours.end() && our->first <= their->first);
    const bool isTheirs = our == ours.end() || (their != theirs.end() && their->first <= our->first);
    plan.Add(name, isOurs ? &our->first : &their->first, isOurs ? &our->second : nullptr,
             isTheirs ? &their->second : nullptr);
    if (isOurs) ++our;
    if (isTheirs) ++their;
  }
}

}  // namespace

uint64_t SettingsOfCheckpoint::Begin() {
  _last.reset();
  return _history.GetRange().last;
}

bool SettingsOfCheckpoint::BeginLocked() {
  _last.reset();
  return true;
}

// Goes through the groups of both in the order of their names.
bool SettingsOfCheckpoint::ComparePart(const LayerView& userSettings, RollbackPlan& plan) {
  const auto findNext = [this](const IniFile& document) {
    return _last ? document.GetGroups().upper_bound(*_last) : document.GetGroups().begin();
  };
  auto now = findNext(userSettings.GetDocument());
  auto then = findNext(_settings);
  const auto nowEnd = userSettings.GetEnd();
  const auto thenEnd = _settings.GetGroups().end();
  for (size_t compared = 0; compared < kMaxAtOnce; ++compared) {
    if (now == nowEnd && then == thenEnd) return false;
    const bool isNow = then == thenEnd || (now != nowEnd && now->first <= then->first);
    const bool isThen = now == nowEnd || (then != thenEnd && then->first <= now->first);
    _last = isNow ? now->first : then->first;
    const KeyMap* const ours = isNow ? &userSettings.Resolve(now)->second : nullptr;
    const KeyMap* const theirs = isThen ? &then->second : nullptr;
    compared += std::max(ours ? ours->size() : 0, theirs ? theirs->size() : 0);
    CompareGroup(*_last, ours, theirs, plan);
    if (isNow) ++now;
    if (isThen) ++then;
  }
  return true;
}

}  // namespace tavix::daemon
