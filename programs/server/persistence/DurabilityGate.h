#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::daemon {

// Output that waits for the disk.
class IHeldOutput {
 public:
  virtual ~IHeldOutput() = default;

  // Something that was waited for is durable, or is waited for no more. On the thread that found out. It may hold the
  // locks of the store and of the persister, which are not to be taken.
  virtual void OnDurable() = 0;
};

// Keeps back what would tell somebody of a change that a power cut could still take away. Every change has a ticket;
// tickets become durable in their order. Changes need not wait for one another, nor reads for the disk: only messages
// do.
//
// Threads: any.
// Locks:   its own mutex, inside all others.
class DurabilityGate {
 public:
  using Ticket = uint64_t;  // 0: durable for ever

  // holds: whether anything is kept back at all.
  explicit DurabilityGate(bool holds) : _holds(holds) {}

  DurabilityGate(const DurabilityGate&) = delete;
  DurabilityGate& operator=(const DurabilityGate&) = delete;

  // The groups of a change. Not copied again for the next owner.
  using Groups = std::shared_ptr<const std::set<std::string>>;

  // A change of these groups, made in memory by this thread and visible to nobody yet. null: any group may show it, and
  // no memory is asked for. isHeld: it is held even where nothing is.
  Ticket Add(const std::set<std::string>* groups, bool isHeld = false);

  // The same for many groups, which takes no longer than for a few. groups: not null.
  Ticket AddMany(Groups groups, bool isHeld = false);

  // All changes up to that one are durable. Tells who waits for them.
  void SetDurable(Ticket ticket);

  // The disk fails, or is not to be waited for: from now on nothing is kept back, until Hold. Tells who waits; those
  // for changes behind "last" go on to wait.
  void LetGo() { LetGo(_last.load(std::memory_order_acquire)); }
  void LetGo(Ticket last);
  void Hold();

  bool IsDurable(Ticket ticket) const { return ticket <= _durable.load(std::memory_order_acquire); }

  // The last change that a message shows which holds the matching groups; null: which shows anything.
  Ticket FindLast(const settings::common::GroupNameMatcher* groups) const;

  // This thread relies on the changes of these groups, whoever made them, as on its own.
  void NoteReliance(const settings::common::GroupNameMatcher& groups);

  // The last change that this thread made through any gate, or relies on.
  static Ticket GetLastOfThisThread() { return lastOfThisThread; }

  // The same since the last call.
  static Ticket TakeLastOfThisThread() { return std::exchange(lastOfThisThread, 0); }

  // Has "output" told, once, when the change is durable. False, and nobody is told, when it is already.
  [[nodiscard]] bool Await(Ticket ticket, std::shared_ptr<IHeldOutput> output);

 private:
  bool IsHeld(bool isAlwaysHeld) const TAVIX_REQUIRES(_mutex) { return _holds && (isAlwaysHeld || !_letsGo); }
  Ticket Publish(Ticket ticket, bool isHeld) TAVIX_REQUIRES(_mutex);
  void Release(Ticket ticket);

  static thread_local Ticket lastOfThisThread;

  const bool _holds;
  std::atomic<Ticket> _last{0};
  std::atomic<Ticket> _durable{0};
  mutable osa::PlainMutex _mutex;
  bool _letsGo TAVIX_GUARDED_BY(_mutex) = false;
  std::map<std::string, Ticket> _groups TAVIX_GUARDED_BY(_mutex);  // the last change of each, where it is not durable
  std::list<std::pair<Ticket, Groups>> _manyGroups TAVIX_GUARDED_BY(_mutex);  // the same of changes of many groups
  Ticket _lastOfAny TAVIX_GUARDED_BY(_mutex) = 0;                             // the last change that any group may show
  std::list<std::pair<Ticket, std::shared_ptr<IHeldOutput>>> _waiting
      TAVIX_GUARDED_BY(_mutex);  // to be let go without memory
};

}  // namespace tavix::daemon
