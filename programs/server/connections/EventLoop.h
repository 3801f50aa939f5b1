#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "programs/common/LoopThread.h"
#include "programs/server/connections/Connection.h"
#include "programs/server/connections/LoopPoll.h"
#include "programs/server/connections/TurnClock.h"
#include "programs/server/persistence/ChangeBatch.h"
#include "programs/server/system/SocketName.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// A thread that serves many connections, each when there is something to do for it. It goes round, and a round is:
//
//     wait      for events, or, where connections are queued for a turn, only look for them
//     sources   that were reported are called, which bring new connections
//     serve     the connections with events: few in the order in which they came, many in that of Turn. When that takes
//               long, the rest is reported again in the next round, where it has waited longest
//     lane      connections whose requests the slow lane has carried out go on, if the loop was woken
//     turns     those that were queued go on with the requests that they have left; what the time does not suffice for
//               comes first in the next round
//     sync      the changes of the round are one batch for the disk, whose end may be a sync, see below
//     tick      once a second, while any connection has something to watch, bounds of time are checked
//
// A connection that still has requests behind its turn is queued (Turn::isQueued), in _busy for the next round. One
// whose request takes long is in _inLane until the lane has finished with it; when it ends meanwhile, it is abandoned.
//
// A loop whose only connection waits for the disk has nothing else to do, and lets the batch be synced on its own
// thread: that is quicker than to wake another one, if the sync is short. As it may turn out long, there must be
// another loop, which gets all connections that come meanwhile.
//
// Threads: its own has all connections. TryAdd, IsSyncing, GetPoll, Probe, HasFailed and CountConnections may be called
//          from any thread.
// Locks:   its own mutex; not held while a connection is served.
// Errors:  what a connection's work throws ends that connection. Anything else ends the loop with all of its
//          connections.
// Methods: many; each step of a round is one, and all work on the lists of connections that one thread owns.
class EventLoop {
 public:
  // Starts the thread. shared: what it refers to outlives the loop. onFailure: called when the loop has ended by
  // itself, on its thread.
  EventLoop(const Connection::Shared& shared, std::function<void()> onFailure);

  // Ends the thread and every connection.
  ~EventLoop();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Takes a connected descriptor over. False while the loop may be waiting for the disk; then it stays the caller's.
  // From any thread.
  [[nodiscard]] bool TryAdd(osa::Descriptor& descriptor) TAVIX_EXCLUDES(_mutex);

  // The same, on the loop's own thread, by a source. peer: its address.
  void TakeAccepted(osa::Descriptor descriptor, const SocketAddress& peer) noexcept;

  // Watches descriptors for their sources. From any thread.
  const LoopPoll& GetPoll() const { return _poll; }

  // Returns once the loop has come round after the call, waits for the disk, which is no fault of its own, or has
  // failed. From any thread, while nobody ends the loop.
  void Probe() TAVIX_EXCLUDES(_mutex);

  bool HasFailed() const { return _failed; }

  // Whether it may be waiting for the disk.
  bool IsSyncing() const { return _syncs; }

  // How many connections there are, those on their way included.
  size_t CountConnections() const { return _count; }

 private:
  struct Event {
    Connection* connection;
    unsigned int events;  // as of epoll
  };

  void Run();
  void ServeUntilStopped();
  bool ServeRound(const epoll_event* events, size_t count);
  bool ServeEvents(const epoll_event* events, size_t count);
  void ServeInOrder();
  bool MaySync(const ChangeBatch& batch) const;
  void EndBatch(ChangeBatch& batch) TAVIX_EXCLUDES(_mutex);
  bool TryToWaitForDisk() TAVIX_EXCLUDES(_mutex);
  bool TakeCall();
  void Fail(const char* reason);
  void TakeNewConnections();
  void TakeNew(osa::Descriptor descriptor, Peer peer);
  void CallSources(const epoll_event* events, size_t count);
  bool ReadFirst(Connection* connection);
  template <class Work>
  bool Serve(Connection* connection, Work work);
  template <class Work>
  bool ServeTimed(Connection* connection, TurnClock& clock, Work work);
  bool HandleEvent(Connection* connection, unsigned int events, bool isAlone);
  bool ReadOn(Connection* connection);
  void EnterLane(Connection* connection);
  void TakeBackFromLane();
  void GiveTurns();
  void Tick();
  void End(Connection* connection);
  void FreePlace(Connection* connection);
  void Refuse(const char* reason) noexcept;
  void FreeOnePlace();

  const Connection::Shared _shared;
  const std::function<void()> _onFailure;
  LoopPoll _poll;
  std::unique_ptr<char[]> _scratch;
  std::map<Connection*, std::unique_ptr<Connection>> _connections;  // the loop's thread's
  std::vector<Connection*> _busy;             // likewise: requests have come that are left for the next turn
  std::vector<Connection*> _turns;            // likewise: who has a turn in this round. Both have room for all
  std::vector<Event> _waiting;                // likewise: events of this round. Has room for those of one wait
  unsigned long long _round = 0;              // likewise
  std::vector<Connection*> _inLane;           // likewise: whose request the slow lane has. Has room for all
  bool _wasWoken = false;                     // likewise: in this round
  int _readsToLeaveOut = 0;                   // likewise: how many events to wait for before the next look without one
  int _firstReadsToLeaveOut = 0;              // likewise, of new connections
  Connection* _newest = nullptr;              // likewise: taken from a source in this round
  bool _ticks = false;                        // likewise
  Connection::Clock::time_point _nextTick{};  // likewise
  std::atomic<size_t> _count{0};
  std::atomic<bool> _failed{false};
  std::atomic<bool> _syncs{false};  // written with the mutex held
  osa::PlainMutex _mutex;
  std::vector<osa::Descriptor> _new TAVIX_GUARDED_BY(_mutex);
  bool _stop TAVIX_GUARDED_BY(_mutex) = false;
  unsigned long long _probes TAVIX_GUARDED_BY(_mutex) = 0;
  unsigned long long _answers TAVIX_GUARDED_BY(_mutex) = 0;  // how many of the probes are answered
  std::condition_variable _answered;
  programs::LoopThread _thread;
};

}  // namespace tavix::daemon
