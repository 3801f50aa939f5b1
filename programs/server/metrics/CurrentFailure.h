#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tavix/osa/PlainMutex.h"
#include "tavix/osa/ThreadAnnotations.h"

namespace tavix::daemon {

// Why something fails at the moment, for those who ask. Asks for no memory once it is made: that may be what failed.
//
// Threads: any.
// Locks:   its own mutex, inside all others, for a copy.
class CurrentFailure {
 public:
  static constexpr size_t kMaxBytes = 512;  // of a reason; the rest is cut off

  CurrentFailure() { _reason.reserve(kMaxBytes); }

  CurrentFailure(const CurrentFailure&) = delete;
  CurrentFailure& operator=(const CurrentFailure&) = delete;

  // reason: empty: nothing fails any more.
  void Set(std::string_view reason) TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    _reason.assign(reason.substr(0, kMaxBytes));
  }

  std::string Get() const TAVIX_EXCLUDES(_mutex) {
    osa::PlainMutexLock lock(_mutex);
    return _reason;
  }

 private:
  mutable osa::PlainMutex _mutex;
  std::string _reason TAVIX_GUARDED_BY(_mutex);
};

}  // namespace tavix::daemon
