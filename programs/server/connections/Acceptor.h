#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "programs/server/connections/Listener.h"
#include "programs/server/connections/LoopChoice.h"
#include "programs/server/connections/LoopPoll.h"
#include "programs/server/connections/Places.h"
#include "programs/server/metrics/Counters.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

class EventLoop;

// The listening sockets, and who accepts connections from them. At any time that is one of two:
//
//     the loops   as long as all goes well. Each loop watches all listeners, and the kernel wakes one that waits: a
//                 loop that is busy keeps nobody waiting to be accepted. The connection goes to the
//                 loop that LoopChoice names. Another one that has accepted it passes it on, and watches the
//                 listeners anew, so that the others are woken before it from then on.
//     main        from the connection on that a loop can't take, for want of a place or a descriptor, until
//                 connections can be taken again. It waits and refuses, as Entry says, for which loops have no time.
//
// Threads: one thread, main, constructs, watches, serves, closes and destroys it. Loops call its sources. They end
//          before it is destroyed, and none before all have come round after Close: until then one may give a
//          connection to another one.
// Locks:   its own mutex. A loop accepts with it held, so that it does not while main has the right to; it is not held
//          while a connection is given to a loop, nor for the log.
// Errors:  what is refused is logged and counted, also where memory runs out.
class Acceptor {
 public:
  // allowedUsers: on unix sockets; empty: all. maxConnections: at a time.
  Acceptor(std::vector<Listener> listeners, std::vector<uid_t> allowedUsers, size_t maxConnections, Counters& counters);

  // Calls Close, which does nothing once it is closed.
  ~Acceptor();

  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  // One is taken for each connection; its loop frees it.
  Places& GetPlaces() { return _places; }

  // Every address as bound, HOST:PORT or unix:PATH. Not after Close.
  std::vector<std::string> GetAddresses() const;

  // Who is to take connections: one at least.
  void SetLoops(std::vector<EventLoop*> loops) { _loops = std::move(loops); }

  // Has the loops accept, if that is possible, and adds what main has to wait for. Returns for how long, in
  // milliseconds; -1: without end.
  int Watch(std::vector<pollfd>& watched) TAVIX_EXCLUDES(_mutex);

  // watched: what Watch added, as poll left it. Listeners are asked anew, as connections may have been taken since.
  void Serve(const pollfd* watched) TAVIX_EXCLUDES(_mutex);

  // Takes no connection any more, and closes the listeners; a second call does nothing.
  void Close() TAVIX_EXCLUDES(_mutex);

 private:
  using Clock = std::chrono::steady_clock;

  // A connection that finds no place waits for one: peers that come and reset at once have places until their loops
  // have seen it. When none was freed for long, connections are refused until there is one again. Main's.
  enum class Entry {
    kOpen,      // there are places, as far as is known
    kWaiting,   // connections wait in the listeners' queues
    kRefusing,  // they are refused
  };

  enum class Outcome {
    kAccepted,
    kNobody,   // nobody waits
    kGone,     // the peer has gone; another may wait
    kNoPlace,  // somebody waits
    kFailed,   // likewise; the error tells why
  };

  // A connection that was accepted, and has a place.
  struct Arrival {
    osa::Descriptor descriptor;
    SocketAddress peer;
    bool isUnix = false;
    int error = 0;
  };

  // A listener, as the loops see it.
  class Door : public LoopPoll::ISource {
   public:
    Door(Acceptor& acceptor, Listener listener) : _acceptor(acceptor), _listener(std::move(listener)) {}

    void OnReadable(EventLoop& loop, size_t max) override { _acceptor.AcceptOnLoop(*this, loop, max); }

    const Listener& GetListener() const { return *_listener; }
    void Close() { _listener.reset(); }

   private:
    Acceptor& _acceptor;
    std::optional<Listener> _listener;  // loops use it with the mutex, as long as they accept
  };

  void AcceptOnLoop(const Door& door, EventLoop& loop, size_t max) TAVIX_EXCLUDES(_mutex);
  Outcome AcceptOneOnLoop(const Door& door, Arrival& arrival) TAVIX_EXCLUDES(_mutex);
  Outcome AcceptOne(const Listener& listener, Arrival& arrival);
  bool GiveToLoop(Arrival arrival, EventLoop* caller);
  bool MayEnter(const Arrival& arrival) const noexcept;
  EventLoop& ChooseLoop(EventLoop* caller);
  bool DoLoopsAccept() TAVIX_EXCLUDES(_mutex);
  void LetLoopsAccept() TAVIX_EXCLUDES(_mutex);
  void LeaveToMain() TAVIX_REQUIRES(_mutex);
  void WatchAnew(EventLoop& loop) TAVIX_EXCLUDES(_mutex);
  bool WatchOn(EventLoop& loop) TAVIX_REQUIRES(_mutex);
  void UnwatchOn(EventLoop& loop) TAVIX_REQUIRES(_mutex);
  void UnwatchAll() TAVIX_REQUIRES(_mutex);
  int FindTimeout() const;
  void AcceptOnMain();
  bool AcceptFrom(const Listener& listener);
  bool OnNoPlace(const Listener& listener);
  bool RefuseQueue(const Listener& listener);
  bool RefuseOne(const Listener& listener, int error);

  const std::vector<uid_t> _allowedUsers;
  const size_t _maxConnections;
  Counters& _counters;
  Places _places;
  const osa::Descriptor _callOfMain;  // an eventfd: main is to accept
  std::deque<Door> _doors;            // the same from the construction on
  std::vector<EventLoop*> _loops;     // set before any of them watches
  LoopChoice _choice;
  osa::Descriptor _spare;   // main's, as what follows: given up for a moment when descriptors run out, so
                            // that the queue can be emptied
  bool _mustPause = false;  // a connection is waiting that can be neither taken nor refused
  bool _pauses = false;     // until the next Watch
  Entry _entry = Entry::kOpen;
  Clock::time_point _waitsSince{};  // for a place
  osa::PlainMutex _mutex;
  bool _doLoopsAccept TAVIX_GUARDED_BY(_mutex) = false;
  const EventLoop* _lastWatched TAVIX_GUARDED_BY(_mutex) = nullptr;  // is woken last
};

}  // namespace tavix::daemon
