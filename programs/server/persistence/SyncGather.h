#pragma once

#include <chrono>
#include <cstdint>

namespace tavix::daemon {

// Decides when the next sync begins, so that it takes many changes along. The clients whose changes a sync took along
// ask again at almost the same time. If the next sync began with the first of them, the others would wait for the one
// after.
//
// So a sync that took long is followed by one that waits until as many changes came behind its end as it took along.
// Some of these clients may not come again: it waits for a small share of that sync's time at most. Where nobody asked
// for that long, a change is synced at once.
//
// In order: OnBegun and OnEnded enclose a sync; OnReleased comes once the output is sent that waited for it.
//
// Without threads, clocks and locks: the caller knows what time it is.
//
// Threads: one at a time.
class SyncGather {
 public:
  using Clock = std::chrono::steady_clock;
  using Ticket = uint64_t;  // of a change, as UserLayerState has it

  struct Rule {
    Clock::duration minSync = std::chrono::microseconds(300);  // a shorter sync is followed by the next one at once
    double maxShare = 1.0 / 8;                                 // of the time of the sync before

    // A loop syncs by itself where the sync before took no longer. To wake another thread for longer ones costs next to
    // nothing beside them.
    Clock::duration maxInBatch = std::chrono::milliseconds(1);
  };

  explicit SyncGather(const Rule& rule) : _rule(rule) {}

  // A sync begins that covers the changes up to "last".
  void OnBegun(Clock::time_point now, Ticket last) {
    _begun = now;
    _tookAlong = last - _last;
    _last = last;
  }

  // It has ended; "written" is the last change that was made by now.
  void OnEnded(Clock::time_point now, Ticket written) {
    const Clock::duration time = now - _begun;
    _mayBeInBatch = time <= _rule.maxInBatch;
    _maxWait = time > _rule.minSync ? std::chrono::duration_cast<Clock::duration>(time * _rule.maxShare) : time.zero();
    _target = written + _tookAlong;
  }

  void OnReleased(Clock::time_point now) { _end = now + _maxWait; }

  // Whether the last sync was so short that a loop may make the next one.
  bool MayBeInBatch() const { return _mayBeInBatch; }

  // When the next sync is to begin, in the past for at once; "written" is the last change.
  Clock::time_point FindBegin(Ticket written) const { return written >= _target ? Clock::time_point() : _end; }

 private:
  const Rule _rule;
  Clock::time_point _begun{};
  Ticket _last = 0;       // that a sync has covered
  Ticket _tookAlong = 0;  // how many changes the last sync covered that none before had
  bool _mayBeInBatch = false;
  Clock::duration _maxWait{};
  Ticket _target = 0;  // the change that completes the next sync
  Clock::time_point _end{};
};

}  // namespace tavix::daemon
