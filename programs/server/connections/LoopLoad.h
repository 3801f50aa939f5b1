#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tavix::daemon {

// How busy a thread is that waits for events and handles them round by round.
//
// Threads: one has the rounds; the rest may be called from any.
class LoopLoad {
 public:
  static constexpr int kFull = 1000;
  static constexpr uint32_t kWindow = 500;        // milliseconds
  static constexpr uint32_t kMaxShortRound = 20;  // likewise

  struct Clocks {
    uint32_t (*readMilliseconds)();  // since any time; may start again from 0
    int64_t (*readWork)();           // microseconds of processor time that the calling thread has used
  };

  LoopLoad();
  explicit LoopLoad(const Clocks& clocks) : _clocks(clocks) {}

  void BeginRound() noexcept;
  void EndRound() noexcept { _isInRound.store(false, std::memory_order_relaxed); }

  // How much of the last second the thread has worked, as a window in it tells.
  int GetPermille() const noexcept;

  // Whether it is in a round that is not short: who waits for it may wait for long.
  bool IsStuck() const noexcept;

 private:
  const Clocks _clocks;
  int64_t _work = 0;  // at the end of the window
  std::atomic<uint32_t> _windowEnd{0};
  std::atomic<int> _permille{0};  // in the window
  std::atomic<uint32_t> _roundBegin{0};
  std::atomic<bool> _isInRound{false};
};

// What tells which loop is to have a new connection. A plain value.
struct LoopBurden {
  static constexpr size_t kMaxMoreConnections = 128;

  bool isStuck;
  int permille;
  size_t connections;

  // Loops whose loads are in the same quarter are alike, and differ by the connections that they have.
  bool IsLessThan(const LoopBurden& other) const;

  // Whether a burst goes on at this loop, although "least" is the least burden of all. Not when this loop is stuck, in
  // a busier quarter, or has kMaxMoreConnections more; nor when it has no more than the other: then the connection that
  // came before may have ended.
  bool MayHaveAnother(const LoopBurden& least) const;
};

}  // namespace tavix::daemon
