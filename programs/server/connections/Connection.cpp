#include "programs/server/connections/Connection.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "programs/server/connections/LogPeer.h"
#include "programs/server/connections/TurnLimit.h"
#include "programs/server/connections/UnreadInput.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

using settings::server::ClientHandler;

Connection::Connection(Peer peer, osa::Descriptor&& descriptor, int poll, int wakeLoop, const Shared& shared)
    : _socket(std::move(descriptor)),
      _descriptor(_socket.Get()),
      _poll(poll),
      _wakeLoop(wakeLoop),
      _turnMilliseconds(shared.turnMilliseconds),
      _limits(shared.limits),
      _lane(shared.lane),
      _report(peer, shared.counters, shared.limits),
      _inputPart(shared.bounds.requests, _descriptor),
      _output(std::make_shared<OutputQueue>(
          _descriptor, OutputQueue::Bounds{_limits.hardBacklogBytes, _limits.heldBacklogBytes, shared.bounds.backlog},
          shared.gate, [this] { OnKept(); })),
      _handler(std::in_place, shared.env, &_request, _output.get()) {
  _handler->SetClient(peer.identity, std::move(peer.groups));
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = this;
  if (epoll_ctl(_poll, EPOLL_CTL_ADD, _descriptor, &event) != 0) {
    _output->Close();
    throw osa::Exception("%s: Failed to watch it: %s", _report.GetPeer().c_str(), std::strerror(errno));
  }
  _report.Connect();
}

// The handler goes first: until it has, a notice may be written. A socket that is closed with bytes unread is reset,
// which would take back replies that are still on their way. So what came behind the last request is dropped, as far as
// it is there, and bounded. However it was found that a bound was passed, it is logged here. The lane is asked also
// when its work was taken back: it may not have written the loop's event yet, which the loop closes after this.
Connection::~Connection() {
  if (_lane) _lane->Withdraw(*this);
  _handler.reset();
  ReportEnd();
  _report.Disconnect();
  _output->Close();
  if (_state == State::kDone && !_hasReadAll) DropUnreadInput(_descriptor);
}

bool Connection::IsCut() const {
  return _output->GetEnd() > OutputQueue::End::kPeer || _output->GetPicked() > 0 || _inputPart.GetPicked() > 0;
}

bool Connection::OnReadable(char* scratch, size_t size) {
  if (HasMore() || IsInLane() || _state == State::kPeerEnded) return true;  // first what has come
  const ssize_t count = recv(_descriptor, scratch, size, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
  ++_reads;
  if (count < 0) _output->OnPeerGone();
  if (count <= 0) _hasReadAll = true;
  if (_state == State::kDone) return count > 0 || _output->GetKeptBytes() > 0;  // dropped
  if (count <= 0) {
    _state = State::kPeerEnded;
    return TakeInput(_input);
  }
  const std::string_view received(scratch, static_cast<size_t>(count));
  if (_input.empty()) return TakeInput(received);
  _input.append(received);
  return TakeInput(_input);
}

// received: what was not handled yet, in the scratch memory or in _input. What is left of it is kept in _input.
bool Connection::TakeInput(std::string_view received) {
  const bool wasUnfinished = !_input.empty();
  size_t handled = 0;
  if (!HandleRequests(received, handled)) return false;
  received.remove_prefix(_state == State::kDone ? received.size() : handled);
  if (received.empty()) {
    DropReceived();
    return CheckInput();
  }
  // A request that was begun before has not moved: its time goes on to count. Ticks see that it ends.
  if (handled > 0 || !wasUnfinished) {
    _unfinishedSince = Clock::now();
    _input = std::string(received);
    eventfd_write(_wakeLoop, 1);
  }
  return CheckInput();
}

void Connection::DropReceived() {
  _input.clear();
  _input.shrink_to_fit();
}

// A failure ends the connection behind the replies that were made before.
bool Connection::HandleRequests(std::string_view received, size_t& handled) {
  if (_opening.IsTls(received)) return Cut(CutReason::kTls, received.size());
  _progress = Progress::kCaughtUp;
  try {
    if (!HandleWhole(received, handled)) return false;
    if (_progress != Progress::kCaughtUp) return true;
  } catch (const std::exception& exception) {
    OnFailure(exception);
    return !EndsNow();
  }
  if (_state == State::kPeerEnded || _handler->HasQuit()) return !EndsNow();
  return !IsCut();
}

// The whole requests of a turn, as long as there is room for their replies; for a peer that is gone there always is, as
// replies to it are not kept. Sets _progress when it stops before the last. False: the connection is cut.
bool Connection::HandleWhole(std::string_view received, size_t& handled) {
  for (TurnLimit limit(_turnMilliseconds); _progress == Progress::kCaughtUp && !_handler->HasQuit();) {
    if (!HasRoom()) {
      _progress = Progress::kPaused;
      break;
    }
    const std::string_view rest = received.substr(handled);
    size_t length = _framer.FindEnd(rest);
    // What the end cut off is handled as far as that is right: lists are answered, changes are not made.
    if (length == 0 && _state == State::kPeerEnded) length = rest.size();
    if (length == 0) break;
    if (_opening.IsHttp(rest.substr(0, length), _framer.IsCommand())) return Cut(CutReason::kHttp, length, rest);
    _request.SetText(rest.substr(0, length));
    const bool isFollowed = length < rest.size();
    if (isFollowed) limit.Begin();
    const ClientHandler::Attempt attempt = HandleOne();
    if (attempt == ClientHandler::Attempt::kEnded) break;
    if (attempt == ClientHandler::Attempt::kTooLong) LeaveToLane(received, handled, length);
    handled += length;
    const bool goesOn = _progress == Progress::kCaughtUp && !_handler->HasQuit();
    if (goesOn && isFollowed && limit.IsOver()) _progress = Progress::kNextTurn;
  }
  return true;
}

ClientHandler::Attempt Connection::HandleOne() {
  using Attempt = ClientHandler::Attempt;
  // Skipped, a request that passes a bound does not end the connection: the changes behind it are made.
  if (!_output->CanReachPeer() && _handler->IsForClientOnly(_request.GetRest())) return Attempt::kHandled;
  const LogPeer peer(_report.GetLogPeer());
  Attempt attempt = Attempt::kEnded;
  if (_lane) {
    attempt = _handler->HandleNextIfShort();
  } else if (_handler->HandleNext()) {
    attempt = Attempt::kHandled;
  }
  ReportOutcome();
  return attempt;
}

// Of the request that was handled last.
void Connection::ReportOutcome() {
  if (const auto* const refusal = _handler->GetRefusal()) _report.Refuse(*refusal);
  _report.Change(_handler->GetChangeLines());
}

// After the last request, which ends the subscription: whether everything was sent. If not, the rest goes out first.
bool Connection::EndsNow() {
  _state = State::kDone;
  _progress = Progress::kCaughtUp;
  _handler.reset();
  if (_output->GetKeptBytes() == 0) return true;
  UpdateInterest();
  return _output->GetKeptBytes() == 0;
}

bool Connection::OnTurn() {
  return _state == State::kDone || TakeInput(_input);
}

bool Connection::OnWritable() {
  _output->Send();
  if (IsCut()) return false;
  UpdateInterest();
  return _state != State::kDone || _output->GetKeptBytes() > 0;
}

// The socket takes nothing any more, and epoll would report that without end while output waits for the disk. What has
// come before is still to be read.
bool Connection::OnHangUp(char* scratch, size_t size) {
  if (_state == State::kDone) return false;
  _output->OnPeerGone();
  if (IsInLane() && !TrySkipInLane()) Depart(scratch, size);
  UpdateInterest();
  return !IsCut();
}

bool Connection::OnTick(Clock::time_point now) {
  if (IsCut()) return false;
  const size_t unread = _output->GetSendableBytes();
  if (unread > _limits.backlogBytes && now - _output->GetLastProgress() > std::chrono::seconds(_limits.backlogSeconds))
    return Cut(CutReason::kBacklog, unread);
  const bool isUnfinished = !_input.empty() && _progress == Progress::kCaughtUp && HasRoom();
  if (isUnfinished && now - _unfinishedSince > std::chrono::seconds(_limits.requestSeconds))
    return Cut(CutReason::kRequestTime, _input.size(), _input);
  return true;
}

bool Connection::NeedsTicks() const {
  return !_input.empty() || _output->GetKeptBytes() > 0 || IsCut();
}

bool Connection::CheckInput() {
  CountInput();
  if (IsCut()) return false;
  if (_state == State::kDone || HasMore()) return true;  // what is left may be many requests
  if (_progress != Progress::kCaughtUp) {
    UpdateInterest();  // nothing is read meanwhile
    return true;
  }
  if (_framer.GetUnfinishedLine(_input) > _limits.lineBytes) return Cut(CutReason::kLine, _input.size(), _input);
  if (_input.size() > _limits.requestBytes) return Cut(CutReason::kRequest, _input.size(), _input);
  return true;
}

// Returns false.
bool Connection::Cut(CutReason reason, size_t figure, std::string_view sent) noexcept {
  _report.Cut(reason, figure, sent);
  return false;
}

void Connection::OnFailure(const std::exception& exception) noexcept {
  if (dynamic_cast<const std::bad_alloc*>(&exception)) {
    _report.Cut(CutReason::kMemory, _input.size());
  } else {
    _report.Fail(exception);
  }
}

// When a bound was passed by what others did, nobody has called Cut.
void Connection::ReportEnd() noexcept {
  using End = OutputQueue::End;
  const End end = _output->GetEnd();
  if (_report.HasEnd()) return;
  if (_inputPart.GetPicked() > 0) {
    _report.Cut(CutReason::kAllRequests, _inputPart.GetPicked());
  } else if (_output->GetPicked() > 0) {
    _report.Cut(CutReason::kAllBacklog, _output->GetPicked());
  } else if (end == End::kUnread) {
    _report.Cut(CutReason::kHardBacklog, _limits.hardBacklogBytes);
  } else if (end == End::kHeld) {
    _report.Cut(CutReason::kHeldBacklog, _limits.heldBacklogBytes);
  } else if (end == End::kMemory) {
    _report.Cut(CutReason::kMemory, _input.size());
  }
}

// On any thread, with the output locked. A loop that waits for the peer already hears when it takes something.
void Connection::OnKept() {
  {
    osa::PlainMutexLock lock(_interestMutex);
    if (_interest.writes) return;
    _interest.writes = true;
    Watch();
  }
  eventfd_write(_wakeLoop, 1);
}

// On the loop's thread. What others send or keep between the look and the lock must not be forgotten: then it looks
// again. Requests that were left for want of room go on as soon as there is some, whichever thread made it.
void Connection::UpdateInterest() {
  bool hasRoom = false;
  bool sends = false;
  do {
    hasRoom = HasRoom();
    sends = _output->GetSendableBytes() > 0;
    _output->ReportSent(!hasRoom || _state == State::kDone);
    const bool reads = hasRoom && _state == State::kOpen && !IsInLane();
    osa::PlainMutexLock lock(_interestMutex);
    if (!_interest.reads && reads) _unfinishedSince = Clock::now();
    _interest.reads = reads;
    _interest.writes = sends;
    Watch();
  } while (HasRoom() != hasRoom || (_output->GetSendableBytes() > 0) != sends);
  if (hasRoom && _progress == Progress::kPaused) _progress = Progress::kNextTurn;
}

void Connection::Watch() {
  if (!_interest.isWatched) return;
  epoll_event event{};
  event.events = (_interest.reads ? EPOLLIN : 0u) | (_interest.writes ? EPOLLOUT : 0u);
  event.data.ptr = this;
  epoll_ctl(_poll, EPOLL_CTL_MOD, _descriptor, &event);
}

}  // namespace tavix::daemon
