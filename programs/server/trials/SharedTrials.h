#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "programs/server/trials/TrialBook.h"
#include "programs/server/trials/TrialLines.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// The book of trials with its clock, a timer for its next end, and the lines that journals and snapshots lack: what the
// store's persister, the words of clients and the reverts share.
//
// In order: as TrialBook; Confirm and EndReverted, too, are called with the store locked for reading. Whatever queues
// lines (Commit, PrepareConfirmation, EndReverted), and whatever says where they went, is called with the persister's
// lock held, so that lines stand in journals in the order in which they came about.
//
// Threads: any.
// Locks:   its own mutex, inside all others.
// Errors:  as TrialBook. osa::Exception from the constructor when the system has no timer.
class SharedTrials {
 public:
  using Time = Trial::Time;
  using Client = TrialBook::Client;

  // As TrialBook. getTime: the monotonic clock; may be called under any lock.
  explicit SharedTrials(size_t maxPending, size_t maxBytes = 0,
                        std::function<Time()> getTime = std::chrono::steady_clock::now);

  SharedTrials(const SharedTrials&) = delete;
  SharedTrials& operator=(const SharedTrials&) = delete;

  // Readable from the moment on in which a trial's time is over; borrowed. AcknowledgeTimer makes it unreadable until
  // the next such moment.
  int GetDescriptor() const { return _timer.Get(); }
  void AcknowledgeTimer();

  // Makes it readable in a second, and not before, if something is pending.
  void RetryLater() TAVIX_EXCLUDES(_mutex);

  // As TrialBook::Prepare, with the store's lock held.
  void Prepare(const settings::server::PlannedChange& change) TAVIX_EXCLUDES(_mutex);
  bool IsPrepared() const { return CountPreparedBytes() > 0; }

  // Of the lines that Commit will queue.
  size_t CountPreparedBytes() const { return _preparedBytes.load(std::memory_order_relaxed); }

  // The change was made.
  void Commit(uint64_t revision) noexcept TAVIX_EXCLUDES(_mutex);

  // Queues the line that confirms a trial, and returns how many bytes it has. Then Confirm makes that so, or
  // DropConfirmation takes the line back, which no journal took.
  size_t PrepareConfirmation(const std::string& name, const Client& client) TAVIX_EXCLUDES(_mutex);
  void Confirm(const std::string& name) TAVIX_EXCLUDES(_mutex);
  void DropConfirmation(size_t bytes) TAVIX_EXCLUDES(_mutex);

  void RequireRevertible(const std::string& name, const Client& client) TAVIX_EXCLUDES(_mutex);
  void BeginPlan(const std::string& name) TAVIX_EXCLUDES(_mutex);
  OldSettings GetSettings(const std::string& name, const SettingName* last) TAVIX_EXCLUDES(_mutex);

  // False when the plan is outdated.
  [[nodiscard]] bool EndReverted(const std::string& name) TAVIX_EXCLUDES(_mutex);

  // Destroys what the trials that ended held; no lock is held.
  void DropReleased() TAVIX_EXCLUDES(_mutex);

  std::vector<std::string> FindPending() TAVIX_EXCLUDES(_mutex);
  std::vector<std::string> FindDue() TAVIX_EXCLUDES(_mutex);

  std::vector<std::string> FindKnown() TAVIX_EXCLUDES(_mutex);
  std::optional<Trial> FindTrial(const std::string& name) TAVIX_EXCLUDES(_mutex);
  Time GetTime() const { return _getTime(); }

  // At start.
  void Load(std::string_view lines) TAVIX_EXCLUDES(_mutex);

  // As TrialLines.
  std::string GetUnjournaled() TAVIX_EXCLUDES(_mutex);
  void OnJournaled() TAVIX_EXCLUDES(_mutex);
  std::string GetUnjournaledByNext() TAVIX_EXCLUDES(_mutex);
  void OnNextJournaled() TAVIX_EXCLUDES(_mutex);
  void Follow() TAVIX_EXCLUDES(_mutex);
  void FailSnapshot() TAVIX_EXCLUDES(_mutex);
  void DropLines() TAVIX_EXCLUDES(_mutex);

  // A snapshot's moment. Returns the lines of all trials that are pending then.
  std::string BeginSnapshot() TAVIX_EXCLUDES(_mutex);

 private:
  void SetTimer() TAVIX_REQUIRES(_mutex);

  const std::function<Time()> _getTime;
  const osa::Descriptor _timer;
  std::atomic<bool> _hasPending{false};
  std::atomic<size_t> _preparedBytes{0};
  osa::PlainMutex _mutex;
  Time _nextRetry TAVIX_GUARDED_BY(_mutex){};  // before which the timer does not go off
  TrialBook _book TAVIX_GUARDED_BY(_mutex);
  TrialLines _lines TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::daemon
