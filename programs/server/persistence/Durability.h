#pragma once

#include <chrono>

namespace tavix::daemon {

// What a power cut may take back.
struct Durability {
  enum class Kind {
    kAlways,    // nothing that anybody was shown
    kInterval,  // what was changed within the interval
    kNone,      // whatever the system had not written yet
  };

  Kind kind = Kind::kAlways;
  std::chrono::milliseconds interval{0};
};

}  // namespace tavix::daemon
