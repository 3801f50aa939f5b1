#pragma once

#include <string>

#include "tavix/osa/Descriptor.h"
#include "tests/support/PacedCalls.h"

namespace tavix::test {

// What the disk allows at the time: appends a few bytes to a file and syncs it, again and again. Rarely enough to cost
// others little.
class DiskFloor {
 public:
  // path: of a file that is made, on the disk that matters.
  explicit DiskFloor(const std::string& path);

  // Ends it. Once.
  CallFigures Stop() { return Summarise(_calls.Stop()); }

 private:
  std::string Append() const;

  const osa::Descriptor _file;
  PacedCalls _calls;
};

}  // namespace tavix::test
