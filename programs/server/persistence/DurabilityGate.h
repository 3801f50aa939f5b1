#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeTicket.h"

namespace tavix::daemon {

// Output that waits for the disk.
class IHeldOutput {
 public:
  virtual ~IHeldOutput() = default;

  // A change that the output waited for is durable, or is not waited for any more. Called on the thread that found out,
  // which may hold the locks of the store and of the persister: they are not to be taken.
  virtual void OnDurable() = 0;
};

// Holds output back that shows a change which a power cut could still take away. Changes do not wait for one another,
// nor reads for the disk: only messages do.
//
// In order: a change is added before anybody can see it, and gets a ticket, one more than the change before. A message
// finds the last ticket of the groups that it shows, and its output waits for that one (Await). Tickets become durable
// in their order, by SetDurable, which calls the outputs that waited. The gate holds, or it does not:
//
//     holds        from the beginning, and from Hold on: a change is durable once SetDurable says so
//     does not     from StopHolding on, when the disk fails or is not to be waited for: a change is durable as soon as
//                  it is made, but for those that are held all the same
//
// The gate knows the last ticket of each group that is not durable. The groups of a few large changes are kept as they
// came, those of more are merged: what it takes depends on how many groups there are, not on how many changes.
//
// Threads: any.
// Locks:   its own mutex, inside all others. Outputs are called without it.
// Errors:  std::bad_alloc from Add of groups and from AddMany; then no ticket was given.
class DurabilityGate {
 public:
  using Ticket = settings::server::ChangeTicket;  // 0: durable for ever

  // holds: false for a gate that never holds anything.
  explicit DurabilityGate(bool holds) : _holds(holds) {}

  DurabilityGate(const DurabilityGate&) = delete;
  DurabilityGate& operator=(const DurabilityGate&) = delete;

  // The groups of a change, shared with others who need them.
  using Groups = std::shared_ptr<const std::set<std::string>>;

  // A change of these groups, made in memory and visible to nobody yet. null: any group may show it, and no memory is
  // asked for. isHeld: it is held even where nothing is.
  Ticket Add(const std::set<std::string>* groups, bool isHeld = false);

  // The same for many groups, which takes no longer than for a few. groups: not null.
  Ticket AddMany(Groups groups, bool isHeld = false);

  // All changes up to that one are durable. Calls the outputs that wait for them.
  void SetDurable(Ticket ticket);

  // From now on nothing is held, until Hold. Calls the outputs that wait for changes up to "last", by default all; the
  // others go on to wait.
  void StopHolding() { StopHolding(_last.load(std::memory_order_acquire)); }
  void StopHolding(Ticket last);
  void Hold();

  bool IsDurable(Ticket ticket) const { return ticket <= _durable.load(std::memory_order_acquire); }

  // The last change that a message shows which holds the matching groups; null: which shows anything.
  Ticket FindLast(const settings::common::GroupNameMatcher* groups) const;

  // Calls "output", once, when the change is durable. False, and no call comes, when it is already.
  [[nodiscard]] bool Await(Ticket ticket, std::shared_ptr<IHeldOutput> output);

 private:
  bool IsHeld(bool isAlwaysHeld) const TAVIX_REQUIRES(_mutex) { return _holds && (isAlwaysHeld || _isHolding); }
  Ticket Publish(Ticket ticket, bool isHeld) TAVIX_REQUIRES(_mutex);
  void NoteMany(Ticket ticket, Groups groups) TAVIX_REQUIRES(_mutex);
  void MergeOldest() TAVIX_REQUIRES(_mutex);
  void Release(Ticket ticket);

  const bool _holds;
  std::atomic<Ticket> _last{0};
  std::atomic<Ticket> _durable{0};
  mutable osa::PlainMutex _mutex;
  bool _isHolding TAVIX_GUARDED_BY(_mutex) = true;

  // The last change of each group, where it is not durable. Of the last large changes, each with its groups; in the
  // order of their tickets.
  std::map<std::string, Ticket> _groups TAVIX_GUARDED_BY(_mutex);
  std::list<std::pair<Ticket, Groups>> _manyGroups TAVIX_GUARDED_BY(_mutex);
  Ticket _lastOfAny TAVIX_GUARDED_BY(_mutex) = 0;  // the last change that any group may show

  // A list, so that its elements are released without asking for memory.
  std::list<std::pair<Ticket, std::shared_ptr<IHeldOutput>>> _waiting TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::daemon
