#include "programs/server/history/Rollback.h"

#include <chrono>
#include <set>
#include <string>

#include "programs/server/persistence/HistoryText.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/StoreAmendment.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::ChangeOrigin;
using settings::server::ChangeTicket;
using settings::server::LayerView;
using settings::server::StoreAmendment;

namespace {

constexpr int kRoundsInParts = 4;
constexpr int kMaxRounds = 100;  // further ones are needed while entries of the history go to their file

[[noreturn]] void ThrowTooBusy() {
  throw osa::Exception("others change the settings all the time");
}

}  // namespace

HistoryEntry Rollback::Make(const ChangeOrigin& origin, ChangeTicket& ticket) {
  for (int round = 1; round <= kMaxRounds; ++round) {
    PlanInParts();
    const StoreAmendment early = _plan.MakeAmendment();
    StoreAmendment late;
    const auto choose = [&](const LayerView& userSettings) -> const StoreAmendment* {
      if (!IsOutdated()) return &early;
      if (!TryToPlanLocked(round, userSettings)) return nullptr;
      late = _plan.MakeAmendment();
      return &late;
    };
    if (_store.AmendAsChosen(early, choose, origin, ticket)) return MakeEntry(origin);
  }
  ThrowTooBusy();
}

HistoryEntry Rollback::Test(const ChangeOrigin& origin) {
  for (int round = 1; round <= kMaxRounds; ++round) {
    PlanInParts();
    bool isPlanned = false;
    _store.ReadUserSettings(
        [&](const LayerView& userSettings) { isPlanned = !IsOutdated() || TryToPlanLocked(round, userSettings); });
    if (isPlanned) return MakeEntry(origin);
  }
  ThrowTooBusy();
}

void Rollback::PlanInParts() {
  _plan.Clear();
  _planned = _earlier.Begin();
  bool hasMore = true;
  while (hasMore) {
    _store.ReadUserSettings(
        [&](const LayerView& userSettings) { hasMore = _earlier.ComparePart(userSettings, _plan); });
  }
}

// With the store locked: the rollback's own change would come next.
bool Rollback::IsOutdated() {
  const uint64_t last = _history.GetRange().last;
  _revision = last + 1;
  return last != _planned;
}

bool Rollback::TryToPlanLocked(int round, const LayerView& userSettings) {
  if (round < kRoundsInParts || !_earlier.BeginLocked()) return false;
  _plan.Clear();
  while (_earlier.ComparePart(userSettings, _plan)) continue;
  return true;
}

HistoryEntry Rollback::MakeEntry(const ChangeOrigin& origin) const {
  static const IniFile nothing;
  static const std::set<std::string> noGroups;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  HistoryEntry entry = DescribeForHistory({nothing, noGroups, nothing, origin, &nothing},
                                          std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
  entry.revision = _revision;
  entry.was = _plan.GetDifference().was;
  entry.is = _plan.GetDifference().is;
  return entry;
}

}  // namespace tavix::daemon
