#include "programs/bridge/core/Admission.h"

#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

bool Admission::Admit(const std::string& group, size_t bytes) {
  const auto known = _bytes.find(group);
  const size_t before = known == _bytes.end() ? 0 : known->second;
  const bool isTooMuch = (known == _bytes.end() && _bytes.size() >= _limits.maxGroups) ||
                         (bytes > before && _allBytes - before + bytes > _limits.maxPendingBytes);
  if (isTooMuch) {
    if (_leftOut.size() < _limits.maxGroups && _leftOut.insert(group).second) {
      ++_report.counters.leftOut;
      _report.Fail("[" + programs::SpellName(group) + "] is left out: " + std::to_string(_bytes.size()) +
                   " groups of " + std::to_string(_allBytes) + " bytes are mirrored already");
    }
    return false;
  }
  _leftOut.erase(group);
  _allBytes += bytes - before;
  _bytes[group] = bytes;
  return true;
}

bool Admission::Release(const std::string& group) {
  _leftOut.erase(group);
  const auto known = _bytes.find(group);
  if (known == _bytes.end()) return false;
  _allBytes -= known->second;
  _bytes.erase(known);
  return !_leftOut.empty();
}

}  // namespace tavix::bridge
