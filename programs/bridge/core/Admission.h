#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "programs/bridge/core/Limits.h"
#include "programs/bridge/core/Report.h"

namespace tavix::bridge {

// Which groups are mirrored: the first ones, as many as the limits allow. Others are left out and reported, until one
// of the first is gone.
//
// Threads: one.
class Admission {
 public:
  // report: outlives the object.
  Admission(const Limits& limits, Report& report) : _limits(limits), _report(report) {}

  // bytes: of the group at present. Returns whether it is mirrored.
  bool Admit(const std::string& group, size_t bytes);

  // The group is gone at both ends. Returns whether there is room now for groups that were left out.
  bool Release(const std::string& group);

  bool IsAdmitted(const std::string& group) const { return _bytes.count(group) > 0; }
  size_t CountAdmitted() const { return _bytes.size(); }
  size_t CountLeftOut() const { return _leftOut.size(); }

 private:
  const Limits _limits;
  Report& _report;
  std::map<std::string, size_t> _bytes;  // of each group that is mirrored
  size_t _allBytes = 0;
  std::set<std::string> _leftOut;
};

}  // namespace tavix::bridge
