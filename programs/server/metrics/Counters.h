#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <ctime>

#include "programs/server/metrics/CurrentFailure.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::daemon {

// Why a connection was not taken.
enum class Refusal { kTooMany, kDescriptors, kUser, kSetup, kCount };

// Why a connection was ended by the daemon.
enum class CutReason {
  kTls,
  kHttp,
  kError,
  kMemory,
  kHardBacklog,
  kHeldBacklog,
  kAllBacklog,
  kBacklog,
  kRequestTime,
  kLine,
  kRequest,
  kAllRequests,
  kCount
};

// A layer's size.
struct LayerSize {
  size_t groups = 0;
  size_t keys = 0;
};

// A number.
//
// Threads: any. None waits for another, and changes are not announced.
class Counter {
 public:
  void Add(unsigned long long more = 1) { _value.fetch_add(more, std::memory_order_relaxed); }
  void Subtract() { _value.fetch_sub(1, std::memory_order_relaxed); }
  void Set(unsigned long long value) { _value.store(value, std::memory_order_relaxed); }
  unsigned long long Get() const { return _value.load(std::memory_order_relaxed); }

 private:
  std::atomic<unsigned long long> _value{0};
};

// What the daemon counts beside its work. Reasons are kept in the order of their enumerations.
//
// Threads: any. Figures that are read together may stem from slightly different moments.
struct Counters {
  const std::time_t startTime = std::time(nullptr);

  Counter clients;   // connected now
  Counter accepted;  // connections taken
  std::array<Counter, static_cast<size_t>(Refusal::kCount)> refused;
  std::array<Counter, static_cast<size_t>(CutReason::kCount)> cut;

  Counter refusedByFullStore;  // changes
  Counter refusedByDeletedPatterns;

  Counter saved;  // changes of the user settings that reached the file
  Counter notSaved;
  Counter lastSave;        // when, in seconds since the epoch; 0: never
  Counter unsavedSince;    // likewise, when the oldest change was made that the disk lacks; 0: there is none
  Counter userFileBytes;   // as it was last loaded or saved
  CurrentFailure failure;  // why changes are not kept

  Counter defaultGroups;  // as they were last loaded
  Counter defaultKeys;
  Counter restrictedGroups;
  Counter restrictedKeys;

  void Count(Refusal reason) { refused[static_cast<size_t>(reason)].Add(); }
  void Count(CutReason reason) { cut[static_cast<size_t>(reason)].Add(); }

  void Count(settings::server::RefusedChange::Reason reason) {
    using Reason = settings::server::RefusedChange::Reason;
    if (reason == Reason::kStoreFull) refusedByFullStore.Add();
    if (reason == Reason::kDeletedPatterns) refusedByDeletedPatterns.Add();
  }

  void CountSave(size_t fileBytes) {
    saved.Add();
    lastSave.Set(static_cast<unsigned long long>(std::time(nullptr)));
    if (fileBytes > 0) userFileBytes.Set(fileBytes);
  }
  void CountFailedSave() { notSaved.Add(); }
};

// As metrics name them.
const char* NameOf(Refusal reason);
const char* NameOf(CutReason reason);

}  // namespace tavix::daemon
