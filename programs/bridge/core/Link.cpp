#include "programs/bridge/core/Link.h"

#include <variant>

namespace tavix::bridge {

void Link::OnEvent(const EngineEvent& event, Milliseconds now) {
  if (std::holds_alternative<Connected>(event)) {
    _state = State::kConnected;
    _since = now;
    _backoff.OnConnected(now);
  } else if (const auto* lost = std::get_if<Lost>(&event)) {
    _reason = lost->reason;
    if (_state == State::kConnected) _since = now;
    _state = State::kWaiting;
    _nextAttempt = now + _backoff.OnLost(now);
  }
}

void Link::Run(const ConnectOptions& options, Milliseconds now) {
  if (_state != State::kWaiting || now < _nextAttempt) return;
  _state = State::kConnecting;
  _engine.Connect(options);
}

void Link::Break(const std::string& reason, Milliseconds now) {
  _engine.Close();
  OnEvent(Lost{reason}, now);
}

std::optional<Milliseconds> Link::GetNext() const {
  if (_state != State::kWaiting) return std::nullopt;
  return _nextAttempt;
}

}  // namespace tavix::bridge
