#include "programs/bridge/core/Admission.h"

#include <utility>

#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

bool Admission::Admit(const std::string& group, size_t bytes) {
  const auto known = _bytes.find(group);
  const size_t before = known == _bytes.end() ? 0 : known->second;
  const bool isTooMuch = (known == _bytes.end() && _bytes.size() >= _limits.maxGroups) ||
                         (bytes > before && _allBytes - before + bytes > _limits.maxPendingBytes);
  if (isTooMuch) {
    LeaveOut(group, bytes);
    return false;
  }
  _leftOut.erase(group);
  _allBytes += bytes - before;
  _bytes[group] = bytes;
  _hasRoom = _hasRoom || bytes < before;
  return true;
}

void Admission::LeaveOut(const std::string& group, size_t bytes) {
  const auto known = _leftOut.find(group);
  if (known != _leftOut.end()) {
    known->second = bytes;
  } else if (_leftOut.size() >= _limits.maxGroups) {
    _hasForgotten = true;
  } else {
    _leftOut[group] = bytes;
    ++_report.counters.leftOut;
    _report.Fail(programs::Join({"[", programs::SpellName(group), "] is left out: ", std::to_string(_bytes.size()),
                                 " groups of ", std::to_string(_allBytes), " bytes are mirrored already"}));
  }
}

void Admission::Release(const std::string& group) {
  _leftOut.erase(group);
  const auto known = _bytes.find(group);
  if (known == _bytes.end()) return;
  _allBytes -= known->second;
  _bytes.erase(known);
  _hasRoom = true;
}

std::set<std::string> Admission::TakeFitting() {
  std::set<std::string> fitting;
  if (!std::exchange(_hasRoom, false)) return fitting;
  size_t groups = _bytes.size();
  size_t all = _allBytes;
  for (const auto& [group, bytes] : _leftOut) {
    const auto known = _bytes.find(group);
    const size_t before = known == _bytes.end() ? 0 : known->second;
    const size_t places = known == _bytes.end() ? 1 : 0;
    if (groups + places > _limits.maxGroups || all - before + bytes > _limits.maxPendingBytes) continue;
    groups += places;
    all += bytes - before;
    fitting.insert(group);
  }
  return fitting;
}

bool Admission::TakeForgotten() {
  return _leftOut.empty() && std::exchange(_hasForgotten, false);
}

}  // namespace tavix::bridge
