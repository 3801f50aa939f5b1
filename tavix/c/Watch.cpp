#include "tavix/c/Watch.h"

#include <poll.h>

#include <algorithm>
#include <utility>

#include "tavix/c/CallResult.h"

namespace tavix::c {

using settings::client::ProtocolClient;
using settings::client::ProtocolException;
using Milliseconds = std::chrono::milliseconds;

namespace {

constexpr Milliseconds kFirstDelay{100};
constexpr Milliseconds kMaxDelay{5000};
constexpr Milliseconds kMaxSleep{1000 * 1000};
constexpr int kMaxAvailable = 4096;  // notices at a time: a server may send faster than its client reads

Milliseconds LeftUntil(Watch::Clock::time_point end) {
  return std::max(std::chrono::ceil<Milliseconds>(end - Watch::Clock::now()), Milliseconds(0));
}

bool IsOver(std::optional<Watch::Clock::time_point> end) {
  return end && Watch::Clock::now() >= *end;
}

// A half of the delay and a share of the other one. The clock's last digits are random enough to spread clients.
Milliseconds Spread(Milliseconds delay) {
  const auto digits = Watch::Clock::now().time_since_epoch().count() / 64 % 1024;
  return delay / 2 + delay / 2 * digits / 1024;
}

// May end early, by a signal.
void SleepUntil(Watch::Clock::time_point end) {
  poll(nullptr, 0, static_cast<int>(std::min(LeftUntil(end), kMaxSleep).count()));
}

}  // namespace

Watch::Watch(const settings::client::ProtocolOptions& options, Names names, bool reportsFirst)
    : _options(options), _names(std::move(names)), _content(reportsFirst), _delay(kFirstDelay) {
  ProtocolClient::RequireSendable(_names);
  Connect();
}

int Watch::GetDescriptor() {
  if (!_wake) {
    _wake.emplace();
    try {
      if (_connection) _wake->Follow(_connection->GetDescriptor());
    } catch (...) {
      _wake.reset();
      throw;
    }
  }
  const WakeGuard guard(*this);
  TakeReceived();
  return _wake->Get();
}

std::optional<WatchedChange> Watch::AwaitChange(std::optional<Clock::time_point> end) {
  const WakeGuard guard(*this);
  std::optional<WatchedChange> change;
  if (_connection && (_content.HasPending() || _mayHaveMore)) {
    TakeNotice(Clock::time_point());
    TakeReceived();
  }
  bool canGoOn = true;
  while (!(change = _content.TakeChange()) && canGoOn) canGoOn = Step(end) && !IsOver(end);
  return change;
}

// Does the next thing. False: nothing came until the end. What came may change nothing, so that the end has to be
// looked at behind it, too.
bool Watch::Step(std::optional<Clock::time_point> end) {
  const bool hasGoneOn = _connection ? TakeNotice(end) : ComeBack(end);
  if (hasGoneOn) TakeReceived();
  return hasGoneOn;
}

// So that changes of one key that have come are one, and as a descriptor shows what its connection will receive, not
// what it has.
void Watch::TakeReceived() {
  int taken = 0;
  while (taken < kMaxAvailable && _connection && _connection->HasReceived() && TakeNotice(Clock::time_point())) ++taken;
  _mayHaveMore = taken == kMaxAvailable;
}

// False: none came until the end.
bool Watch::TakeNotice(std::optional<Clock::time_point> end) {
  try {
    std::optional<Milliseconds> limit;
    if (end) limit = LeftUntil(*end);
    const auto notice = _connection->AwaitNotice(limit);
    if (!notice) return !IsOver(end);
    _content.TakeNotice(*notice);
  } catch (const ProtocolException& exception) {
    Drop(exception.what());
  } catch (...) {
    Drop("memory ran out");
    throw;
  }
  return true;
}

// False: it is too early for the next attempt until the end. Every attempt is in vain that fails, whatever the reason.
bool Watch::ComeBack(std::optional<Clock::time_point> end) {
  while (Clock::now() < _nextAttempt) {
    if (IsOver(end)) return false;
    SleepUntil(end ? std::min(*end, _nextAttempt) : _nextAttempt);
  }
  try {
    Connect();
  } catch (const ProtocolException& exception) {
    Drop(exception.what());
  } catch (...) {
    Drop("memory or descriptors ran out, or the server refused the subscription");
    throw;
  }
  return true;
}

void Watch::Connect() {
  auto connection = std::make_unique<ProtocolClient>(_options);
  core::IniFile reading = connection->Subscribe(_names);
  const std::string refusal = connection->TakeRefusal();
  if (!refusal.empty()) throw CallFailure(TAVIX_REFUSED, "the server refused the subscription: " + refusal);
  if (_wake) _wake->Follow(connection->GetDescriptor());
  _content.TakeReading(std::move(reading));
  _connection = std::move(connection);
  _delay = kFirstDelay;
  _failure.clear();
}

// Takes no memory but for the reason.
void Watch::Drop(const char* reason) {
  _connection.reset();
  _mayHaveMore = false;
  if (_wake) _wake->Follow(-1);
  _nextAttempt = Clock::now() + Spread(_delay);
  _delay = std::min(2 * _delay, kMaxDelay);
  try {
    _failure = reason;
  } catch (const std::bad_alloc&) {
    _failure.clear();
  }
}

// Behind a part of a notice the server may not be silent for ever: the call that is woken finds that it was.
void Watch::SetWake() noexcept {
  if (_content.HasPending() || _mayHaveMore) {
    _wake->WakeAt(Clock::time_point());
  } else if (_connection) {
    _wake->WakeAt(_connection->HasReceived() ? std::optional(Clock::now() + _options.timeouts.silence) : std::nullopt);
  } else {
    _wake->WakeAt(_nextAttempt);
  }
}

}  // namespace tavix::c
