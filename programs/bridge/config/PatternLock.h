#pragma once

#include <string>
#include <vector>

#include "programs/bridge/core/Rules.h"
#include "tavix/osa/Descriptor.h"

namespace tavix::bridge {

// Keeps two bridges of a device from changing the same groups: each has a list of its patterns that take something from
// outside, RUNTIME/bridge-NAME.patterns, locked as long as it runs. A list that nobody has locked is of no bridge.
//
// Threads: one makes and destroys it.
// Errors:  ConfigurationError, which names both bridges and both patterns, when a pattern overlaps one of another
//          bridge, and when a bridge of that name runs; osa::Exception when the directory can't be written to.
class PatternLock {
 public:
  PatternLock(const std::string& runtime, const std::string& name, const std::vector<MapRule>& maps);
  ~PatternLock();

  PatternLock(const PatternLock&) = delete;
  PatternLock& operator=(const PatternLock&) = delete;

 private:
  std::vector<std::string> ListOthers() const;
  void RequireApart(const std::string& file, const std::vector<std::string>& own) const;
  void Write(const std::vector<std::string>& patterns) const;

  const std::string _runtime;
  const std::string _name;
  const std::string _path;
  osa::Descriptor _file;
};

}  // namespace tavix::bridge
