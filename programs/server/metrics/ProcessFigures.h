#pragma once

namespace tavix::daemon {

// What the kernel knows of this process.
struct ProcessFigures {
  unsigned long long residentBytes = 0;
  unsigned long long descriptors = 0;  // open now
};

// Reads /proc; what can't be read is 0.
ProcessFigures ReadProcessFigures();

}  // namespace tavix::daemon
