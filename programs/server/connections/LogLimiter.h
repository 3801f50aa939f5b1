#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tavix/core/Logger.h"
#include "tavix/osa/Descriptor.h"
#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// Bounds the lines that peers have the daemon log: for each peer and cause 10 in a second and 100 in a minute, counted
// over any second and minute. Lines beyond that are left out, and counted: one line reports how many they were, as soon
// as the cause may log again. A cause is a place in the code that logs. Only warnings and errors that are logged while
// a LogPeer lives are bounded.
//
// It keeps a bounded number of causes. When there are more, those of all further peers share one bound.
//
// Threads: any, but for the constructor and the destructor. One limiter at a time may be installed.
// Locks:   its own mutex, inside all others; never held while something is logged.
class LogLimiter {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr size_t kMaxInASecond = 10;
  static constexpr size_t kMaxInAMinute = 100;
  static constexpr size_t kMaxCauses = 256;

  // Limits the log of the process until the destructor.
  LogLimiter();

  // Reports everything that was left out. No thread logs for a peer any more.
  ~LogLimiter();

  LogLimiter(const LogLimiter&) = delete;
  LogLimiter& operator=(const LogLimiter&) = delete;

  // Readable when ReportDue has something to report; borrowed. -1: the system has none.
  int GetDescriptor() const { return _timer.Get(); }

  // Reports what was left out of causes that may log again.
  void ReportDue(Clock::time_point now) TAVIX_EXCLUDES(_mutex);

  // Whether a line may be written. format, kind: its cause. text: the line.
  bool TakeLine(const std::string& peer, const char* format, int kind, const std::string& text, Clock::time_point now)
      TAVIX_EXCLUDES(_mutex);

 private:
  using Key = std::tuple<std::string, const char*, int>;

  struct Cause {
    bool MayLog(Clock::time_point now) const { return now >= GetNextTime(); }
    Clock::time_point GetNextTime() const;
    Clock::time_point GetLastTime() const { return times[(next + times.size() - 1) % times.size()]; }
    void NoteLine(Clock::time_point now);

    std::vector<Clock::time_point> times;  // of its last lines, a ring
    size_t next = 0;                       // its place in the ring
    size_t leftOut = 0;
    std::string example;  // the last line that was written
  };

  static bool FilterLine(core::LogLevel level, const char* format, const std::string& text);
  static void Report(const std::vector<std::string>& lines);

  Cause& FindCause(const std::string& peer, const char* format, int kind, Clock::time_point now) TAVIX_REQUIRES(_mutex);
  void RemoveOld(Clock::time_point now) TAVIX_REQUIRES(_mutex);
  static std::string TakeReport(const std::string& peer, Cause& cause);
  void SetTimer(Clock::time_point now, Clock::time_point due) TAVIX_REQUIRES(_mutex);

  const osa::Descriptor _timer;
  osa::PlainMutex _mutex;
  std::map<Key, Cause> _causes TAVIX_GUARDED_BY(_mutex);
  bool _isTimerSet TAVIX_GUARDED_BY(_mutex) = false;
};

}  // namespace tavix::daemon
