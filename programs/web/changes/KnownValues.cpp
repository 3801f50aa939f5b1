#include "programs/web/changes/KnownValues.h"

#include <utility>

namespace tavix::web {

namespace {

// What the map and the allocator take beside the texts.
constexpr size_t kOverhead = 128;
constexpr char kMissing[] = "null";

}  // namespace

size_t KnownValues::Cost(const std::string& group, const std::string& values) {
  return group.size() + values.size() + kOverhead;
}

void KnownValues::Clear() {
  std::unordered_map<std::string, std::string>().swap(_values);
  _bytes = 0;
  _isComplete = true;
}

std::optional<std::string> KnownValues::Exchange(const std::string& group, const std::optional<std::string>& values) {
  std::optional<std::string> old;
  if (_isComplete) old = kMissing;
  const auto found = _values.find(group);
  if (found != _values.end()) {
    _bytes -= Cost(group, found->second);
    old = std::move(found->second);
    _values.erase(found);
  }
  if (!values) return old;
  if (_bytes + Cost(group, *values) > kMaxBytes) {
    _isComplete = false;
    return old;
  }
  _bytes += Cost(group, *values);
  _values.emplace(group, *values);
  return old;
}

}  // namespace tavix::web
