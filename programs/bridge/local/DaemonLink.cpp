#include "programs/bridge/local/DaemonLink.h"

namespace tavix::bridge {

namespace {

Limits MakeWaits() {
  Limits limits;
  limits.reconnectMin = Milliseconds(1'000);
  limits.reconnectMax = Milliseconds(10'000);
  limits.reconnectStable = Milliseconds(10'000);
  return limits;
}

}  // namespace

DaemonLink::DaemonLink(DaemonStore& store, uint64_t seed) : _store(store), _backoff(MakeWaits(), seed) {}

bool DaemonLink::Run(Milliseconds now) {
  if (_store.IsConnected() || now < _nextAttempt) return false;
  try {
    _store.Connect();
    _backoff.OnConnected(now);
    return true;
  } catch (const LocalLost& lost) {
    OnLost(lost.what(), now);
    return false;
  }
}

void DaemonLink::OnLost(const std::string& reason, Milliseconds now) {
  _store.Close();
  _reason = reason;
  _nextAttempt = now + _backoff.OnLost(now);
}

std::optional<Milliseconds> DaemonLink::GetNext() const {
  if (_store.IsConnected()) return std::nullopt;
  return _nextAttempt;
}

}  // namespace tavix::bridge
