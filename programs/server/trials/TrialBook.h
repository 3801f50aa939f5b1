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
  size_t bytes = 0;                         // of the two that follow, about
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
// two nothing else changes the book. For a revert BeginPlan and GetSettings come first; then the change is prepared
// like others, as ChangeOrigin has the name. Prepare refuses it by OutdatedRevert when the trial has changed meanwhile.
//
// What Commit, SpellConfirmation and EndReverted return are lines for the journal (TrialText.h). Spell and Load are the
// two ends of a restart. A change costs what it is long and what it takes off trials, however large these are; one of
// which other clients write nothing costs nothing. What trials hold together is bounded; what has ended is forgotten
// first.
//
// Threads: one at a time.
// Errors:  settings::server::RefusedChange for what a client may not do, std::bad_alloc; nothing is changed then.
class TrialBook : private ITrialLines {
 public:
  using Time = Trial::Time;
  using Client = settings::server::ClientIdentity;

  static constexpr std::chrono::minutes kKeptAfterEnd{10};
  static constexpr size_t kMaxEnded = 256;    // beyond which the first ones to be forgotten are forgotten at once
  static constexpr size_t kMaxAtOnce = 1000;  // settings that GetSettings copies

  // The revert is to be planned again.
  class OutdatedRevert {};

  // maxPending: at once. maxBytes: that all trials may take, about, for a change to be put on trial; 0: any number.
  explicit TrialBook(size_t maxPending, size_t maxBytes = 0) : _maxPending(maxPending), _maxBytes(maxBytes) {}

  // Throws OutdatedRevert as well.
  void Prepare(const settings::server::PlannedChange& change, Time now);

  // Whether Commit has something to do.
  bool IsPrepared() const { return !_preparedLines.empty(); }

  // Of the lines that Commit will return; and at most of those of SpellConfirmation and EndReverted.
  size_t GetPreparedBytes() const { return _preparedLines.size(); }
  static constexpr size_t kMaxEndBytes = TrialOrder::kMaxNameBytes + 16;

  // revision: of the change; 0: it got none.
  std::string Commit(uint64_t revision) noexcept;

  // Whether any change may matter.
  bool HasPending() const;

  // Returns the line that confirms it, which is pending still. Throws when the client may not, or there is no such
  // trial.
  std::string SpellConfirmation(const std::string& name, const Client& client, Time now);

  // Confirms it: one that is pending, whose line stands in the journal.
  void Confirm(const std::string& name, Time now);

  // Throws when the client may not revert it, or there is no such trial.
  void RequireRevertible(const std::string& name, const Client& client) const;

  // A revert is planned from the trial's settings as they are read from here on, in any number of parts, with the store
  // locked for reading. A trial that loses or gets settings in between makes the plan outdated.
  void BeginPlan(const std::string& name);

  // Copies of its settings behind "last" (null: the first ones), kMaxAtOnce at most. None: there are no others.
  OldSettings GetSettings(const std::string& name, const SettingName* last) const;

  // Ends a trial as reverted without a change, when the plan has none. Empty: it is outdated.
  std::string EndReverted(const std::string& name, Time now);

  // What the trials that ended held: it may be much, and is destroyed by the caller, who holds no lock.
  OldSettings TakeReleased() noexcept;

  // Those that are pending: all, or those whose time is over.
  std::vector<std::string> FindPending() const;
  std::vector<std::string> FindDue(Time now) const;

  // When the next one goes back; empty: none is pending.
  std::optional<Time> FindNextEnd() const;

  // The names of all that are known at that time.
  std::vector<std::string> FindKnown(Time now);

  // A copy without its settings; with what others have written once it is reverted. Empty: there is none of that name.
  std::optional<Trial> FindTrial(const std::string& name) const;

  // The lines of all that are pending, and what becomes of a book by such lines.
  std::string Spell() const;
  void Load(std::string_view lines) { ReadTrialLines(lines, *this); }

 private:
  // What a pending trial loses by the change at hand.
  struct Loss {
    Trial& trial;
    std::vector<OldSettings::iterator> settings;
    std::set<SettingName> written;  // their names
  };

  void PrepareRevert(const std::string& name, Time now);
  void PrepareOthers(const settings::server::PlannedChange& change, const std::string& own, OldSettings& inherited);
  void Arm(const TrialOrder& order, const settings::server::PlannedChange& change, OldSettings settings, Time now);
  void RequireArmable(const TrialOrder& order, const Client& client, Time now) const;
  void RequireRoom(size_t bytes, Time now);
  const Trial& FindOwned(const std::string& name, const Client& client) const;
  const Trial* Find(const std::string& name) const;
  Trial* FindPendingTrial(const std::string& name);
  size_t CountPending() const;
  void CommitLosses() noexcept;
  void CommitArmed(uint64_t revision) noexcept;
  void End(Trial& trial, Trial::State state, Time now) noexcept;
  void Forget(Time now);
  bool ForgetNext(Time now, bool isDueOnly);

  void OnPending(const std::string& trial, const Client& client) override;
  void OnSetting(const std::string& trial, SettingName name, std::optional<std::string> old) override;
  void OnWritten(const std::string& trial, const SettingName& name) override;
  void OnEnd(const std::string& trial, std::string_view state) override;

  const size_t _maxPending;
  const size_t _maxBytes;
  std::map<std::string, Trial> _trials;
  OldSettings _released;

  // What becomes of trials by the change at hand, and the lines of that.
  std::vector<Loss> _losses;
  std::map<std::string, Trial> _armed;  // none, or one with what it gets
  Trial* _reverted = nullptr;           // null: none
  Time _revertTime{};
  std::string _preparedLines;
};

}  // namespace tavix::daemon
