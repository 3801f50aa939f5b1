#pragma once

#include <cstdint>

namespace tavix::daemon {

// Tells what the turns of connections cost that a loop serves one after the other. The processor time of the thread
// does not count what others run meanwhile, but asking the kernel for it takes as long as a good part of a short turn.
// So short turns cost the time that has passed, which is no less, and the processor time is asked for behind long ones.
//
// Threads: the loop's.
class TurnClock {
 public:
  static constexpr int64_t kMaxShort = 63;  // microseconds

  // Both in microseconds.
  struct Clocks {
    int64_t (*readTime)();
    int64_t (*readWork)();  // the calling thread's
  };

  enum class Kind {
    kPassed,  // the time that has passed counts for all
    kWork,
  };

  explicit TurnClock(Kind kind) noexcept;
  TurnClock(Kind kind, const Clocks& clocks) noexcept;

  // The microseconds of the turn that ends here. It began with the end of the one before, or with this object.
  unsigned int EndTurn() noexcept;

 private:
  const Clocks _clocks;
  const Kind _kind;
  int64_t _time;
  int64_t _work;            // at the end of the last long turn
  int64_t _shortTurns = 0;  // of all since
};

}  // namespace tavix::daemon
