#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "programs/server/system/UnusedMemory.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// How many bytes all connections together may keep for one purpose, so that memory is bounded however much each of them
// may keep. A text that several of them keep is counted once.
//
// When the bound is passed, connections are picked, and their sockets shut down, until the rest is within it: first the
// one that keeps the most, shared texts included, then the next. So those that are furthest behind end, together if
// they share what they keep, for only then is its memory free; one that keeps little stays. A connection is spared in
// the end if the rest would be within the bound even with it. Departed clients are picked before the others.
//
// Threads: any.
// Locks:   its own mutex, inside all others but the log's.
class SharedBound {
  // How many parts keep a text, and how many of these are counted.
  struct Keepers {
    size_t all = 0;
    size_t counted = 0;
  };
  using Texts = std::unordered_map<const std::string*, Keepers>;

 public:
  explicit SharedBound(size_t max) : _max(max) {}

  SharedBound(const SharedBound&) = delete;
  SharedBound& operator=(const SharedBound&) = delete;

  // To be called when parts may have dropped texts, without a lock: they leave memory that nobody uses.
  void ReturnUnusedMemory() { _unused.Return(); }

  // What one connection keeps. A little is not counted, so that short requests and replies cost no lock.
  //
  // Threads: one at a time, but for GetPicked.
  class Part {
   public:
    // bound: outlives the part, or its end. descriptor: the connection's socket, borrowed until the end.
    Part(SharedBound& bound, int descriptor);
    ~Part() { End(); }

    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    // It keeps that many bytes of its own now. May pick this part or others.
    void Set(size_t bytes);

    // It keeps that text, too, which other parts may keep as well. Likewise. text: stays where it is until it is
    // dropped. Throws std::bad_alloc, and has not added it then.
    void AddText(const std::string& text);

    // Drops the text that it added first.
    void DropText();

    // It keeps nothing any more.
    void Clear();

    // Its client has left, and its socket is about to be closed. From now on a little counts, too. event: a
    // non-blocking eventfd, which is written when the part is picked; borrowed until the end.
    void Depart(int event);

    // It keeps nothing, and is not picked, any more.
    void End();

    // How many bytes it kept when it was picked: its connection is to be ended. 0: it was not.
    size_t GetPicked() const { return _picked; }

   private:
    friend class SharedBound;

    size_t GetSize() const { return _bytes + _textBytes; }

    SharedBound& _bound;
    bool _ended = false;
    int _descriptor;  // the socket's or the event's; written, as what follows, with the bound's lock, to be read by others
    bool _hasDeparted = false;
    size_t _bytes = 0;
    size_t _textBytes = 0;
    std::unique_ptr<std::deque<Texts::value_type*>> _texts;  // null when there are none: an idle part is small
    bool _isCounted = true;
    Part* _nextChosen = nullptr;  // while some are picked
    std::atomic<size_t> _picked{0};
  };

 private:
  void Enforce() TAVIX_REQUIRES(_mutex);
  Part* FindLargest() const TAVIX_REQUIRES(_mutex);
  void Pick(Part& part) TAVIX_REQUIRES(_mutex);
  void Count(Part& part) TAVIX_REQUIRES(_mutex);
  void Uncount(Part& part) TAVIX_REQUIRES(_mutex);
  void DropFirstText(Part& part) TAVIX_REQUIRES(_mutex);

  const size_t _max;
  UnusedMemory _unused;
  osa::PlainMutex _mutex;
  size_t _total TAVIX_GUARDED_BY(_mutex) = 0;  // of the counted parts, which are all that were not picked
  Texts _texts TAVIX_GUARDED_BY(_mutex);
  bool _keptMuch TAVIX_GUARDED_BY(_mutex) = false;  // since there were no texts
  std::vector<Part*> _parts TAVIX_GUARDED_BY(_mutex);
};

// What is bounded for all connections together.
struct SharedBounds {
  SharedBound requests;  // that are not finished
  SharedBound backlog;   // what they have not read, or what waits for the disk
};

}  // namespace tavix::daemon
