#include <sys/eventfd.h>
#include <sys/socket.h>

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "programs/server/connections/Connection.h"
#include "programs/server/connections/LogPeer.h"

// What a connection does for the slow lane and behind it.

namespace tavix::daemon {

namespace {

constexpr size_t kLongText = 64 * 1024;  // bytes that are rather handed over than copied
constexpr size_t kOwnBytes = 16 * 1024;  // that a connection takes beside its input, at most

}  // namespace

// A text that is long, and therefore kept in memory of its own, is handed over as it is; then "received" stays valid.
void Connection::LeaveToLane(std::string_view received, size_t begin, size_t length) {
  const bool isOwn = received.data() == _input.data() && received.size() > kLongText;
  if (isOwn) {
    _laneText = std::move(_input);
    _input.clear();
    _request.SetText(std::string_view(_laneText).substr(begin, length));
  } else {
    _laneText = received.substr(begin, length);
    _request.SetText(_laneText);
  }
  _laneBytes = _laneText.size();
  _isForPeerOnly = _handler->IsForClientOnly(_request.GetRest());
  _isLaneDone = false;
  _progress = Progress::kInLane;
}

void Connection::EnterLane() {
  if (IsUseless()) return SkipInLane();
  try {
    if (_output->CanReachPeer()) {
      _lane->Add(*this);
    } else if (std::exchange(_wasInLaneAsDeparted, true)) {
      _lane->AddNextForDeparted(*this);
    } else {
      _lane->AddForDeparted(*this);
    }
  } catch (const std::exception&) {
    _progress = Progress::kCaughtUp;  // the connection is destroyed
    throw;
  }
}

bool Connection::TrySkipInLane() {
  const bool isNeeded = !_isForPeerOnly && _inputPart.GetPicked() == 0;
  if (isNeeded || !_lane->TryWithdraw(*this)) return false;
  SkipInLane();
  return true;
}

void Connection::SkipInLane() noexcept {
  _isSkipped = true;
  EndInLane();
  eventfd_write(_wakeLoop, 1);
}

// On the lane's thread. An answer that nobody will read any more is given up, which is no failure.
void Connection::Run(const std::function<bool()>& isStopped) noexcept {
  try {
    const LogPeer peer(_report.GetLogPeer());
    const std::function<bool()> isToEnd = [&] { return isStopped() || IsUseless(); };
    static_cast<void>(_handler->HandleNextInParts(isToEnd));  // HasQuit is asked behind it
    ReportOutcome();
  } catch (...) {
    if (!IsUseless()) _laneFailure = std::current_exception();
  }
  EndInLane();
}

// Giving a long text's memory back takes a while, too.
void Connection::EndInLane() noexcept {
  std::string().swap(_laneText);
  _isLaneDone.store(true, std::memory_order_release);
}

// Many connections may skip their requests at once: then each waits for a turn.
bool Connection::OnLaneDone() {
  const bool isSkipped = std::exchange(_isSkipped, false);
  _progress = isSkipped ? Progress::kNextTurn : Progress::kCaughtUp;
  _isLaneDone = false;
  _laneBytes = 0;
  if (const std::exception_ptr failure = std::exchange(_laneFailure, nullptr)) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& exception) {
      OnFailure(exception);
    }
    DropReceived();
    _inputPart.Set(0);
    return !EndsNow();
  }
  if (!isSkipped && !TakeInput(_input)) return false;
  if (_state != State::kDone) UpdateInterest();
  return true;
}

// A change of a peer that is gone is in the lane, or about to enter it, and many may be behind it. All that has come is
// read. Then nothing can come or go any more, and neither a descriptor nor a place is needed.
void Connection::Depart(char* scratch, size_t size) {
  if (_lane->MoveToDeparted(*this)) _wasInLaneAsDeparted = true;  // else EnterLane is still to add it
  while (!_hasReadAll) {
    const ssize_t count = recv(_descriptor, scratch, size, MSG_DONTWAIT);
    _hasReadAll = count <= 0;
    if (count > 0) _input.append(scratch, static_cast<size_t>(count));
  }
  _input.shrink_to_fit();
  if (_state == State::kOpen) _state = State::kPeerEnded;
  CloseSocket();
}

// The output's own reason to end, if it has one, is known no more once it is closed.
void Connection::Abandon() noexcept {
  if (IsAbandoned()) return;
  _state = State::kAbandoned;
  ReportEnd();
  DropReceived();
  CloseSocket();
}

// The kernel watches it no longer then.
void Connection::CloseSocket() noexcept {
  {
    osa::PlainMutexLock lock(_interestMutex);
    _interest.isWatched = false;
  }
  _output->Close();
  _inputPart.Depart(_wakeLoop);
  _socket.Reset();
  CountInput();
}

// Connections without a socket need no place, so all that they take is counted.
void Connection::CountInput() noexcept {
  _inputPart.Set(_input.size() + _laneBytes + (HasSocket() ? 0 : kOwnBytes));
}

}  // namespace tavix::daemon
