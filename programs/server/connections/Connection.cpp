#include "programs/server/connections/Connection.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "programs/server/connections/CutText.h"
#include "programs/server/connections/LogPeer.h"
#include "programs/server/connections/TurnLimit.h"
#include "programs/server/system/SocketName.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"

namespace tavix::daemon {

using settings::server::ClientHandler;

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Connection");
  return logger;
}

constexpr size_t kLongText = 64 * 1024;  // bytes that are rather handed over than copied
constexpr size_t kMaxDropped = 4 * 1024 * 1024;

// The descriptor has an owner whatever throws.
std::unique_ptr<osa::TcpSocket> Adopt(osa::Descriptor& descriptor) {
  std::unique_ptr<osa::TcpSocket> socket = osa::TcpSocket::Adopt(descriptor.Get());
  descriptor.Release();
  return socket;
}

// Reads what has come, as far as it is there, for nobody. Not every kind of socket drops bytes without a place for
// them.
void DropInput(int descriptor) {
  char bytes[16 * 1024];
  size_t dropped = 0;
  for (ssize_t count = 1; count > 0 && dropped < kMaxDropped; dropped += static_cast<size_t>(count)) {
    count = recv(descriptor, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count <= 0) return;
  }
}

}  // namespace

Connection::Connection(osa::Descriptor descriptor, int poll, int wakeLoop, const Shared& shared)
    : _socket(Adopt(descriptor)),
      _descriptor(_socket->GetDescriptor()),
      _poll(poll),
      _wakeLoop(wakeLoop),
      _turnMilliseconds(shared.turnMilliseconds),
      _limits(shared.limits),
      _counters(shared.counters),
      _lane(shared.lane),
      _peer(PeerName(_descriptor)),
      _logPeer(PeerWithoutPort(_descriptor)),
      _inputPart(shared.bounds.requests, _descriptor),
      _output(std::make_shared<OutputQueue>(
          _descriptor, OutputQueue::Bounds{_limits.hardBacklogBytes, _limits.heldBacklogBytes, shared.bounds.backlog},
          shared.gate, [this] { OnKept(); })),
      _handler(std::in_place, shared.env, &_request, &_output->GetOstream()) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = this;
  if (epoll_ctl(_poll, EPOLL_CTL_ADD, _descriptor, &event) != 0) {
    _output->Close();
    throw osa::Exception("%s: Failed to watch it: %s", _peer.c_str(), std::strerror(errno));
  }
  Log()->Information("%s: connected", _peer.c_str());
}

// The handler goes first: until it has, a notice may be written. A socket that is closed with bytes unread is reset,
// which would take back replies that are still on their way. So what came behind the last request is dropped, as far as
// it is there, and bounded. However it was found that a bound was passed, it is told here.
Connection::~Connection() {
  if (_isInLane && _lane) _lane->Withdraw(*this);
  _handler.reset();
  TellWhyItEnds();
  Log()->Information("%s: disconnected", _peer.c_str());
  _output->Close();
  if (_inputEnded) DropInput(_descriptor);
}

bool Connection::IsCut() const {
  return _output->GetEnd() > OutputQueue::End::kPeer || _output->GetPicked() > 0 || _inputPart.GetPicked() > 0;
}

bool Connection::OnReadable(char* scratch, size_t size) {
  if (_hasMore || _peerEnded || _isInLane) return true;  // first what has come
  const ssize_t count = recv(_descriptor, scratch, size, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
  ++_reads;
  if (count < 0) _output->OnPeerGone();
  if (_inputEnded) return count > 0 || _output->GetKeptBytes() > 0;
  if (count <= 0) {
    _peerEnded = true;
    return TakeInput(_input);
  }
  const std::string_view received(scratch, static_cast<size_t>(count));
  if (_input.empty()) return TakeInput(received);
  _input.append(received);
  return TakeInput(_input);
}

bool Connection::TakeInput(std::string_view received) {
  const bool wasUnfinished = !_input.empty();
  size_t handled = 0;
  if (!HandleRequests(received, handled)) return false;
  received.remove_prefix(_inputEnded ? received.size() : handled);
  if (received.empty()) {
    _input.clear();
    _input.shrink_to_fit();
    return CheckInput();
  }
  if (handled > 0 || !wasUnfinished) {
    _unfinishedSince = Clock::now();
    _input = std::string(received);
    eventfd_write(_wakeLoop, 1);
  }
  return CheckInput();
}

bool Connection::HandleRequests(std::string_view received, size_t& handled) {
  if (_opening.IsTls(received)) return Cut(CutReason::kTls, received.size());
  _hasMore = _isPaused = false;
  try {
    if (!HandleWhole(received, handled)) return false;
    if (_hasMore || _isPaused || _isInLane) return true;
  } catch (const std::exception& exception) {
    OnFailure(exception);
    return !EndsNow();
  }
  if (_peerEnded || _handler->HasQuit()) return !EndsNow();
  return !IsCut();
}

// Those of a turn, as long as there is room for their replies. Where nobody reads these, there is.
bool Connection::HandleWhole(std::string_view received, size_t& handled) {
  for (TurnLimit limit(_turnMilliseconds); !_hasMore && !_isInLane && !_handler->HasQuit();) {
    _isPaused = !HasRoom();
    if (_isPaused) break;
    const std::string_view rest = received.substr(handled);
    size_t length = _framer.FindEnd(rest);
    // What the end cut off is handled as far as that is right: lists are answered, changes are not made.
    if (length == 0 && _peerEnded) length = rest.size();
    if (length == 0) break;
    if (_opening.IsHttp(rest.substr(0, length), _framer.IsCommand())) return Cut(CutReason::kHttp, length, rest);
    _request.SetText(rest.substr(0, length));
    const bool isFollowed = length < rest.size();
    if (isFollowed) limit.Begin();
    const ClientHandler::Attempt attempt = HandleOne();
    if (attempt == ClientHandler::Attempt::kEnded) break;
    if (attempt == ClientHandler::Attempt::kTooLong) LeaveToLane(received, handled, length);
    handled += length;
    _hasMore = isFollowed && !_isInLane && !_handler->HasQuit() && limit.IsOver();
  }
  return true;
}

// After a request for a change, the output is held until what was asked for is durable, also if others had asked for it
// before: a reply proves what came before it.
template <class Work>
auto Connection::HoldingChanges(Work work) {
  const LogPeer peer(_logPeer);
  DurabilityGate::TakeLastOfThisThread();  // of other connections
  const auto result = work();
  const DurabilityGate::Ticket last = DurabilityGate::TakeLastOfThisThread();
  if (last != 0) _output->HoldFromNowOn(last);
  if (const settings::server::RefusedChange* refusal = _handler->GetRefusal()) ReportRefusal(*refusal);
  ReportChange();
  return result;
}

ClientHandler::Attempt Connection::HandleOne() {
  using Attempt = ClientHandler::Attempt;
  return HoldingChanges([this] {
    if (_lane) return _handler->HandleNextIfShort();
    return _handler->HandleNext() ? Attempt::kHandled : Attempt::kEnded;
  });
}

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
  _isLaneDone = false;
  _isInLane = true;
}

void Connection::EnterLane() {
  try {
    _lane->Add(*this);
  } catch (const std::exception&) {
    _isInLane = false;
    throw;
  }
}

// On the lane's thread. Giving a long text's memory back takes a while, too.
void Connection::Run(const std::function<bool()>& isStopped) noexcept {
  try {
    HoldingChanges([&] { return _handler->HandleNextInParts(isStopped); });
  } catch (...) {
    _laneFailure = std::current_exception();
  }
  std::string().swap(_laneText);
  _isLaneDone.store(true, std::memory_order_release);
}

bool Connection::OnLaneDone() {
  _isInLane = false;
  _isLaneDone = false;
  WatchAgain();
  if (const std::exception_ptr failure = std::exchange(_laneFailure, nullptr)) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& exception) {
      OnFailure(exception);
    }
    return !EndsNow();
  }
  if (!TakeInput(_input)) return false;
  if (!_inputEnded) UpdateInterest();
  return true;
}

void Connection::WatchAgain() {
  if (!std::exchange(_isUnwatched, false)) return;
  osa::PlainMutexLock lock(_interestMutex);
  Watch(EPOLL_CTL_ADD);
}

void Connection::Abandon() {
  _isAbandoned = true;
  Unwatch();
}

// A socket whose peer is gone would be reported without end.
void Connection::Unwatch() {
  if (!std::exchange(_isUnwatched, true)) epoll_ctl(_poll, EPOLL_CTL_DEL, _descriptor, nullptr);
}

void Connection::ReportRefusal(const settings::server::RefusedChange& refusal) {
  _counters.Count(refusal.GetReason());
  Log()->Warning("%s: change refused: %s", _peer.c_str(), refusal.what());
}

void Connection::ReportChange() const {
  core::LogLevel level = core::kLogInformation;
  for (const std::string& line : _handler->GetChangeLines()) {
    if (level == core::kLogInformation) {
      Log()->Information("%s: %s", _peer.c_str(), line.c_str());
    } else {
      Log()->Trace("%s: %s", _peer.c_str(), line.c_str());
    }
    level = core::kLogTrace;
  }
}

// After the last request, which ends the subscription: whether everything was sent. If not, the rest goes out first.
bool Connection::EndsNow() {
  _inputEnded = true;
  _hasMore = false;
  _handler.reset();
  UpdateInterest();
  return _output->GetKeptBytes() == 0;
}

bool Connection::OnTurn() {
  return _inputEnded || TakeInput(_input);
}

bool Connection::OnWritable() {
  _output->Send();
  if (IsCut()) return false;
  UpdateInterest();
  return !_inputEnded || _output->GetKeptBytes() > 0;
}

// The socket takes nothing any more, and would say so without end while output waits for the disk. What has come before
// is still to be read.
bool Connection::OnHangUp() {
  if (_inputEnded) return false;
  _output->OnPeerGone();
  if (_isInLane) Unwatch();
  UpdateInterest();
  return true;
}

bool Connection::OnTick(Clock::time_point now) {
  if (IsCut()) return false;
  const size_t unread = _output->GetSendableBytes();
  if (unread > _limits.backlogBytes && now - _output->GetLastProgress() > std::chrono::seconds(_limits.backlogSeconds))
    return Cut(CutReason::kBacklog, unread);
  const bool unfinished = !_input.empty() && !_hasMore && !_isPaused && !_isInLane && HasRoom();
  if (unfinished && now - _unfinishedSince > std::chrono::seconds(_limits.requestSeconds))
    return Cut(CutReason::kRequestTime, _input.size(), _input);
  return true;
}

bool Connection::NeedsTicks() const {
  return !_input.empty() || _output->GetKeptBytes() > 0 || IsCut();
}

bool Connection::CheckInput() {
  _inputPart.Set(_input.size() + _laneText.size());
  if (IsCut()) return false;
  if (_inputEnded || _hasMore) return true;  // that may be many requests
  if (_isPaused || _isInLane) {
    UpdateInterest();
    return true;
  }
  if (_framer.GetUnfinishedLine(_input) > _limits.lineBytes) return Cut(CutReason::kLine, _input.size(), _input);
  if (_input.size() > _limits.requestBytes) return Cut(CutReason::kRequest, _input.size(), _input);
  return true;
}

// Returns false. A line that can't be written for want of memory is left out.
bool Connection::Cut(CutReason reason, size_t figure, std::string_view sent) noexcept {
  const LogPeer peer(_logPeer, static_cast<int>(reason));
  _isTold = true;
  _counters.Count(reason);
  try {
    Log()->Warning("%s: connection cut: %s %zu%s", _peer.c_str(), TextOf(reason), figure,
                   DescribeSent(reason, sent, _limits).c_str());
  } catch (const std::exception&) {
  }
  return false;
}

void Connection::OnFailure(const std::exception& exception) noexcept {
  if (dynamic_cast<const std::bad_alloc*>(&exception)) {
    Cut(CutReason::kMemory, _input.size());
    return;
  }
  const LogPeer peer(_logPeer);
  _isTold = true;
  _counters.Count(CutReason::kError);
  try {
    Log()->Warning("%s: connection ended: %s", _peer.c_str(), exception.what());
  } catch (const std::exception&) {
  }
}

void Connection::TellWhyItEnds() noexcept {
  using End = OutputQueue::End;
  const End end = _output->GetEnd();
  if (_isTold) return;
  if (_inputPart.GetPicked() > 0) {
    Cut(CutReason::kAllRequests, _inputPart.GetPicked());
  } else if (_output->GetPicked() > 0) {
    Cut(CutReason::kAllBacklog, _output->GetPicked());
  } else if (end == End::kUnread) {
    Cut(CutReason::kHardBacklog, _limits.hardBacklogBytes);
  } else if (end == End::kHeld) {
    Cut(CutReason::kHeldBacklog, _limits.heldBacklogBytes);
  } else if (end == End::kMemory) {
    Cut(CutReason::kMemory, _input.size());
  }
}

// On any thread, with the output locked. A loop that waits for the peer already is told when it takes something.
void Connection::OnKept() {
  {
    osa::PlainMutexLock lock(_interestMutex);
    if (_interest.write) return;
    _interest.write = true;
    Watch(EPOLL_CTL_MOD);
  }
  eventfd_write(_wakeLoop, 1);
}

// On the loop's thread. What others send or keep between the look and the lock must not be forgotten: then it looks
// again. Requests that were left for want of room go on as soon as there is some, whoever made it.
void Connection::UpdateInterest() {
  bool hasRoom = false;
  bool sends = false;
  do {
    hasRoom = HasRoom();
    sends = _output->GetSendableBytes() > 0;
    _output->TellWhenSent(!hasRoom || _inputEnded);
    const bool reads = hasRoom && !_inputEnded && !_peerEnded && !_isInLane;
    osa::PlainMutexLock lock(_interestMutex);
    if (!_interest.read && reads) _unfinishedSince = Clock::now();
    _interest = {reads, sends};
    Watch(EPOLL_CTL_MOD);
  } while (HasRoom() != hasRoom || (_output->GetSendableBytes() > 0) != sends);
  if (hasRoom && _isPaused && !_inputEnded && !_isInLane) _hasMore = true;
}

void Connection::Watch(int operation) {
  epoll_event event{};
  event.events = (_interest.read ? EPOLLIN : 0u) | (_interest.write ? EPOLLOUT : 0u);
  event.data.ptr = this;
  epoll_ctl(_poll, operation, _descriptor, &event);
}

}  // namespace tavix::daemon
