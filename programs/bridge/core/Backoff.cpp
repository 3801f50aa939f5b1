#include "programs/bridge/core/Backoff.h"

#include <algorithm>

namespace tavix::bridge {

Backoff::Backoff(const Limits& limits, uint64_t seed)
    : _min(limits.reconnectMin),
      _max(limits.reconnectMax),
      _stable(limits.reconnectStable),
      _random(seed),
      _limit(limits.reconnectMin) {}

void Backoff::OnConnected(Milliseconds now) {
  _connectedSince = now;
}

Milliseconds Backoff::OnLost(Milliseconds now) {
  if (_connectedSince && now - *_connectedSince >= _stable) _limit = _min;
  _connectedSince.reset();

  std::uniform_int_distribution<Milliseconds::rep> within(0, _limit.count());
  const Milliseconds wait(within(_random));
  _limit = std::min(2 * _limit, _max);
  return wait;
}

}  // namespace tavix::bridge
