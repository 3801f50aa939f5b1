#pragma once

#include <optional>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::conformance {

// Writes the events of watches to standard output, a JSON object a line. No state; one thread at a time.
class EventWriter {
 public:
  struct Change {
    std::string group;
    std::optional<std::string> key;
    std::optional<std::string> before;
    std::optional<std::string> after;
    bool gone = false;
  };

  void WriteChange(int watch, const Change& change) const;
  void WriteResync(int watch) const;

  // Writes what differs.
  void WriteDifferences(int watch, const core::IniFile& before, const core::IniFile& after) const;
};

}  // namespace tavix::conformance
