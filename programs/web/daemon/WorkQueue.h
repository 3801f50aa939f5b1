#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <set>
#include <vector>

#include "programs/common/LoopThread.h"
#include "programs/web/http/Message.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::web {

// Has answers made by threads of its own, in the order in which they were asked for; but what only reads, and waits, is
// begun together, so that all of it costs one question.
//
// Threads: Add, Cancel and TakeDone belong to one thread, the loop's.
// Locks:   "_mutex" guards what waits and what is done. No work runs under it.
class WorkQueue {
 public:
  using Number = uint64_t;

  // Is given the number of the thread that it runs on, from 0 on. Throws nothing.
  using Work = std::function<Response(size_t thread)>;

  // What work reads, and until when that is wanted.
  struct Reading {
    std::string name;
    std::chrono::steady_clock::time_point end;
  };

  // Is called before work that reads, on its thread, with all that is begun together; and before other work, with
  // nothing. Throws nothing.
  using Prepare = std::function<void(size_t thread, const std::vector<Reading>& readings)>;

  struct Done {
    Number number;
    Response response;
  };

  enum class Cancelled {
    kUnknown,  // it is done
    kWaiting,  // nothing of it was done
    kRunning   // it goes on, and its answer is dropped
  };

  // threadName: outlives this. maxWaiting: of the work that no thread has begun. wake: called on a thread of the queue
  // when something is done; has no lock held.
  WorkQueue(const char* threadName, size_t threads, size_t maxWaiting, std::function<void()> wake,
            Prepare prepare = nullptr);

  // Ends the threads. Work that waits is dropped.
  ~WorkQueue();

  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  // False when too much waits. number: of the caller's choice, and never used again.
  [[nodiscard]] bool Add(Number number, Work work, std::optional<Reading> reading = std::nullopt)
      TAVIX_EXCLUDES(_mutex);

  Cancelled Cancel(Number number) TAVIX_EXCLUDES(_mutex);

  // The same for work that no thread has begun, or that was begun with others; false when there is none of that number.
  bool CancelWaiting(Number number) TAVIX_EXCLUDES(_mutex);

  // All that is done since the last call, but for what was cancelled.
  std::vector<Done> TakeDone() TAVIX_EXCLUDES(_mutex);

 private:
  struct Item {
    Number number;
    Work work;
    std::optional<Reading> reading;
  };

  void Run(size_t thread) TAVIX_EXCLUDES(_mutex);
  bool RemoveWaiting(Number number) TAVIX_REQUIRES(_mutex);
  bool TakeNext(size_t thread, std::vector<Item>& batch) TAVIX_EXCLUDES(_mutex);
  void TakeReadings(std::vector<Item>& batch) TAVIX_REQUIRES(_mutex);
  size_t CountWaiting() const TAVIX_REQUIRES(_mutex);
  void PrepareAll(size_t thread, const std::vector<Item>& batch) const;
  bool Deliver(size_t thread, std::vector<Done>& done) TAVIX_EXCLUDES(_mutex);

  const size_t _maxWaiting;
  const std::function<void()> _wake;
  const Prepare _prepare;
  osa::PlainMutex _mutex;
  std::condition_variable _changed;
  bool _ends TAVIX_GUARDED_BY(_mutex) = false;
  std::deque<Item> _waiting TAVIX_GUARDED_BY(_mutex);
  std::vector<std::set<Number>> _running TAVIX_GUARDED_BY(_mutex);  // of each thread
  std::vector<Done> _done TAVIX_GUARDED_BY(_mutex);
  std::list<programs::LoopThread> _threads;
};

}  // namespace tavix::web
