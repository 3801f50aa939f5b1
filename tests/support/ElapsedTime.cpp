#include "tests/support/ElapsedTime.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tavix::test {

namespace {

// Sleeps for short times, as long as it lives, and adds up by how much they became long ones.
class StandstillMeter {
 public:
  StandstillMeter() : _thread([this] { Measure(); }) {}

  ~StandstillMeter() {
    if (_thread.joinable()) Stop();
  }

  long Stop() {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _stop = true;
    }
    _changed.notify_one();
    _thread.join();
    return _milliseconds;
  }

 private:
  void Measure() {
    constexpr std::chrono::milliseconds kSleep{10};
    constexpr long kUsual = 250;  // and less, on a busy machine
    std::unique_lock<std::mutex> lock(_mutex);
    while (!_stop) {
      const long slept = MillisecondsOf([&] { _changed.wait_for(lock, kSleep); });
      if (slept > kUsual) _milliseconds += slept;
    }
  }

  std::mutex _mutex;
  std::condition_variable _changed;
  bool _stop = false;
  long _milliseconds = 0;
  std::thread _thread;
};

}  // namespace

ElapsedTime::ElapsedTime(const std::function<void()>& call) {
  StandstillMeter standstill;
  milliseconds = MillisecondsOf(call);
  undisturbed = milliseconds - standstill.Stop();
}

}  // namespace tavix::test
