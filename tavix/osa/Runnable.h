#pragma once

namespace tavix::osa {

// What a Thread executes.
//
// Threads: Run is called on the new thread, Stop on any.
class Runnable {
 public:
  virtual ~Runnable() = default;

  // The thread's work; runs once, on the new thread.
  virtual void Run() = 0;

  // Asks the work to end soon, from any thread. Optional: does nothing here.
  virtual void Stop() {}
};

}  // namespace tavix::osa
