#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "programs/server/trials/TrialOrder.h"
#include "programs/server/trials/TrialSettings.h"
#include "programs/server/trials/TrialText.h"
#include "tavix/settings/server/ClientIdentity.h"
#include "tavix/settings/server/PlannedChange.h"

namespace tavix::daemon {

// One trial. A plain value.
struct Trial {
  enum class State {
    kPending,    // its settings go back in time
    kConfirmed,  // they stay
    kReverted,   // they went back
  };
  using Time = std::chrono::steady_clock::time_point;

  State state = State::kPending;
  settings::server::ClientIdentity client;  // who armed it
  std::string note;                         // of its last change that had one
  uint64_t revision = 0;                    // of its last change, or of the one that reverted it; 0: it is not known
  Time end{};                               // when it goes back; of one that has ended, when it is forgotten
  OldSettings settings;                     // that go back; none once it has ended
  std::set<SettingName> written;            // that others have written since
  bool isPlanned = false;                   // a revert was made of it, and it is the same since
};

const char* NameOf(Trial::State state);

// The trials of a store: changes that go back unless somebody confirms them in time. A setting that anybody writes
// while it is on trial is no longer the trial's; when that is a trial, too, it goes back to what it was before the
// first of them. The book knows no clock, no file and no store, and has no lock.
//
// In order: Prepare is called before each change, with the store locked, and refuses it or finds out what becomes of
// the trials; Commit, behind the change, makes that so. A change that is not made after all has no Commit. Between the
// two nothing else changes the book. For a revert PlanRevert comes first, with the store locked for reading; then the
// change is prepared like others, as ChangeOrigin has the name. Prepare refuses it by OutdatedRevert when the trial has
// changed meanwhile.
//
// What Commit, Confirm and EndReverted return are lines for the journal (TrialText.h). Spell and Load are the two ends
// of a restart.
//
// Threads: one at a time.
// Errors:  settings::server::RefusedChange for what a client may not do, std::bad_alloc; nothing is changed then.
class TrialBook : private ITrialLines {
 public:
  using Time = Trial::Time;
  using Client = settings::server::ClientIdentity;

  static constexpr std::chrono::minutes kKeptAfterEnd{10};
  static constexpr size_t kMaxEnded = 256;  // beyond which the first ones to be forgotten are forgotten at once

  // The revert is to be planned again.
  class OutdatedRevert {};

  // max: of those that are pending at once.
  explicit TrialBook(size_t max) : _max(max) {}

  // Throws OutdatedRevert as well.
  void Prepare(const settings::server::PlannedChange& change, Time now);

  // Whether Commit has something to do.
  bool IsPrepared() const { return !_prepared.empty(); }

  // Of the lines that Commit will return; and at most of those of Confirm and EndReverted.
  size_t GetPreparedBytes() const { return _preparedLines.size(); }
  static constexpr size_t kMaxEndBytes = TrialOrder::kMaxNameBytes + 16;

  // revision: of the change; 0: it got none.
  std::string Commit(uint64_t revision) noexcept;

  // Whether any change may matter.
  bool HasPending() const;

  // Confirms it. Throws when the client may not, or there is no such trial.
  std::string Confirm(const std::string& name, const Client& client, Time now);

  // Throws when the client may not revert it, or there is no such trial.
  void RequireRevertible(const std::string& name, const Client& client) const;

  // What brings the settings of a pending trial back; there may be nothing left to do. userSettings: as they are.
  settings::server::StoreAmendment PlanRevert(const std::string& name, const core::IniFile& userSettings);

  // Ends a trial as reverted without a change, when that is what PlanRevert found out. Empty: it is outdated.
  std::string EndReverted(const std::string& name, Time now);

  // Those that are pending: all, or those whose time is over.
  std::vector<std::string> FindPending() const;
  std::vector<std::string> FindDue(Time now) const;

  // When the next one goes back; empty: none is pending.
  std::optional<Time> FindNextEnd() const;

  // All that are known at that time, by their names.
  const std::map<std::string, Trial>& GetTrials(Time now);

  // The lines of all that are pending, and what becomes of a book by such lines.
  std::string Spell() const;
  void Load(std::string_view lines) { ReadTrialLines(lines, *this); }

 private:
  void PrepareRevert(const std::string& name, Time now);
  void PrepareOthers(const settings::server::PlannedChange& change, const std::string& own, OldSettings& taken);
  void Arm(const TrialOrder& order, const settings::server::PlannedChange& change, OldSettings settings, Time now);
  void RequireArmable(const TrialOrder& order, const Client& client, Time now) const;
  const Trial& FindOwned(const std::string& name, const Client& client) const;
  const Trial* Find(const std::string& name) const;
  size_t CountPending() const;
  void End(Trial& trial, Trial::State state, Time now) const;
  void Forget(Time now);

  void OnPending(const std::string& trial, const Client& client) override;
  void OnSetting(const std::string& trial, SettingName name, std::optional<std::string> old) override;
  void OnWritten(const std::string& trial, const SettingName& name) override;
  void OnEnd(const std::string& trial, std::string_view state) override;

  const size_t _max;
  std::map<std::string, Trial> _trials;

  // What becomes of trials by the change at hand, and the lines of that.
  std::map<std::string, Trial> _prepared;
  std::string _preparedLines;
  std::string _changed;  // the one that gets the change's revision; empty: none
};

}  // namespace tavix::daemon
