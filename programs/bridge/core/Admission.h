#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>

#include "programs/bridge/core/Limits.h"
#include "programs/bridge/core/Report.h"

namespace tavix::bridge {

// Which groups are mirrored: the first ones, as many as the limits allow. Others are left out and reported, until the
// first ones leave room for them.
//
// Threads: one.
class Admission {
 public:
  // report: outlives the object.
  Admission(const Limits& limits, Report& report) : _limits(limits), _report(report) {}

  // bytes: of the group at present. Returns whether it is mirrored.
  bool Admit(const std::string& group, size_t bytes);

  // The group is gone at both ends.
  void Release(const std::string& group);

  // Groups that were left out and that there is room for since others became smaller or went, each room once. They are
  // to be admitted as others are.
  std::set<std::string> TakeFitting();

  // Whether more groups were left out than are remembered, and all that are remembered have found room since; once.
  bool TakeForgotten();

  bool IsAdmitted(const std::string& group) const { return _bytes.count(group) > 0; }
  size_t CountAdmitted() const { return _bytes.size(); }
  size_t CountLeftOut() const { return _leftOut.size(); }

 private:
  void LeaveOut(const std::string& group, size_t bytes);

  const Limits _limits;
  Report& _report;
  std::map<std::string, size_t> _bytes;  // of each group that is mirrored
  size_t _allBytes = 0;
  std::map<std::string, size_t> _leftOut;  // likewise; as many as may be mirrored
  bool _hasForgotten = false;              // more were left out
  bool _hasRoom = false;                   // more than at the last look
};

}  // namespace tavix::bridge
