#include "programs/server/connections/SharedBound.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace tavix::daemon {

namespace {

constexpr size_t kNotCounted = 64 * 1024;

}  // namespace

SharedBound::Part::Part(SharedBound& bound, int descriptor) : _bound(bound), _descriptor(descriptor) {
  std::lock_guard<std::mutex> lock(_bound._mutex);
  _bound._parts.push_back(this);
}

void SharedBound::Part::Set(size_t bytes) {
  const size_t counted = bytes > kNotCounted ? bytes : 0;
  if (counted == _bytes || _ended) return;
  std::lock_guard<std::mutex> lock(_bound._mutex);
  const size_t before = std::exchange(_bytes, counted);
  if (_picked > 0) return;  // it is counted no more
  _bound._total = _bound._total - before + counted;
  while (_bound._total > _bound._most) _bound.PickLargest();
}

void SharedBound::Part::End() {
  if (std::exchange(_ended, true)) return;
  std::lock_guard<std::mutex> lock(_bound._mutex);
  if (_picked == 0) _bound._total -= _bytes;
  _bytes = 0;
  _bound._parts.erase(std::find(_bound._parts.begin(), _bound._parts.end(), this));
}

// The caller holds the lock. There is a largest: what exceeds a bound are the bytes of parts that are not picked. Its
// loop is told by the socket.
void SharedBound::PickLargest() {
  const auto kept = [](const Part* part) { return part->_picked > 0 ? 0 : part->_bytes; };
  Part* const largest =
      *std::max_element(_parts.begin(), _parts.end(), [&](const Part* a, const Part* b) { return kept(a) < kept(b); });
  _total -= largest->_bytes;
  largest->_picked = largest->_bytes;
  shutdown(largest->_descriptor, SHUT_RDWR);
}

}  // namespace tavix::daemon
