#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <vector>

namespace tavix::daemon {

// How many bytes all connections together may keep for one purpose. When that is passed, those that keep the most are
// picked, and their sockets shut down, until the others are within it: what many keep is bounded by itself, however
// much each of them may keep.
//
// Threads: any.
// Locks:   its own mutex, inside all others but the log's.
class SharedBound {
 public:
  explicit SharedBound(size_t most) : _most(most) {}

  SharedBound(const SharedBound&) = delete;
  SharedBound& operator=(const SharedBound&) = delete;

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

    // It keeps that many bytes now. May pick this part or others.
    void Set(size_t bytes);

    // It keeps nothing, and is not picked, any more.
    void End();

    // How many bytes it kept when it was picked: its connection is to be ended. 0: it was not.
    size_t GetPicked() const { return _picked; }

   private:
    friend class SharedBound;

    SharedBound& _bound;
    const int _descriptor;
    bool _ended = false;
    size_t _bytes = 0;  // written with the bound's lock, which others need to read it
    std::atomic<size_t> _picked{0};
  };

 private:
  void PickLargest();

  const size_t _most;
  std::mutex _mutex;  // guards what follows
  size_t _total = 0;
  std::vector<Part*> _parts;
};

// What is bounded for all connections together.
struct SharedBounds {
  SharedBound requests;  // that are not finished
  SharedBound backlog;   // what they have not read, or what waits for the disk
};

}  // namespace tavix::daemon
