#pragma once

#include <functional>
#include <utility>

#include "tavix/osa/Runnable.h"
#include "tavix/osa/Thread.h"

namespace tavix::programs {

// A thread that runs one loop from the object's construction on: the last member of the class whose loop it is, so that
// the loop finds the other members made. To end, the owner has its loop return, and then waits for that here.
//
// Threads: one thread makes, joins and destroys it.
class LoopThread {
 public:
  // name: outlives the thread.
  LoopThread(const char* name, std::function<void()> loop);

  // Joins the thread.
  ~LoopThread();

  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  // Returns when the loop has. A second call does nothing.
  void Join() { _thread.Join(); }

 private:
  class Loop : public osa::Runnable {
   public:
    explicit Loop(std::function<void()> run) : _run(std::move(run)) {}
    void Run() override { _run(); }

    // A call at the start: at the first one a sanitizer looks what the object is, for which it needs a descriptor.
    osa::Runnable* AsRunnable() { return this; }

   private:
    const std::function<void()> _run;
  };

  Loop _loop;
  osa::Thread _thread;
};

}  // namespace tavix::programs
