#include "programs/server/Connection.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "programs/server/SocketName.h"
#include "tavix/core/Logger.h"

namespace tavix::daemon {

namespace {

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("Connection");
  return logger;
}

constexpr int kRequestsInATurn = 64;
constexpr int kMostDropped = 64;  // parts of kDropped bytes
constexpr size_t kDropped = 64 * 1024;

// As the log says it, before a figure.
const char* TextOf(CutReason reason) {
  switch (reason) {
    case CutReason::kTls:
      return "TLS is not our protocol, bytes";
    case CutReason::kHttp:
      return "HTTP is not our protocol, bytes";
    case CutReason::kHardBacklog:
      return "more unread than is kept";
    case CutReason::kBacklog:
      return "too much unread for too long, bytes";
    case CutReason::kRequestTime:
      return "unfinished request, bytes";
    case CutReason::kLine:
      return "line too long, bytes";
    case CutReason::kRequest:
      return "request too long, bytes";
    case CutReason::kError:
    case CutReason::kCount:
      break;
  }
  return "";
}

// "METHOD target HTTP/...": a web page must not be able to write settings.
bool IsHttpRequestLine(std::string_view request) {
  const std::string_view line = request.substr(0, request.find_first_of("\r\n"));
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  return first != std::string_view::npos && first != last && line.substr(last + 1, 5) == "HTTP/";
}

// A TLS client would only wait.
bool IsTlsHandshake(std::string_view received) {
  return received.size() >= 2 && received[0] == '\x16' && received[1] == '\x03';
}

}  // namespace

Connection::Connection(int descriptor, int poll, int wakeLoop, settings::server::ServerEnv* env, const Limits& limits,
                       Counters& counters, DurabilityGate* gate)
    : _socket(osa::TcpSocket::Adopt(descriptor)),
      _descriptor(descriptor),
      _poll(poll),
      _wakeLoop(wakeLoop),
      _limits(limits),
      _counters(counters),
      _peer(PeerName(descriptor)),
      _output(std::make_shared<OutputQueue>(descriptor, limits.hardBacklogBytes, gate, [this] { OnKept(); })),
      _handler(std::in_place, env, &_request, &_output->GetOstream()) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = this;
  epoll_ctl(_poll, EPOLL_CTL_ADD, _descriptor, &event);
}

// The handler goes first: until it has, a notice may be written. A socket that is closed with bytes unread is reset,
// which would take back replies that are still on their way. So what came behind the last request is dropped, as far as
// it is there, and bounded. However it was found that too much was unread, it is told here.
Connection::~Connection() {
  if (_output->IsOverfull()) Cut(CutReason::kHardBacklog, _limits.hardBacklogBytes);
  _handler.reset();
  _output->Close();
  const auto drop = [this] { return recv(_descriptor, nullptr, kDropped, MSG_DONTWAIT | MSG_TRUNC) > 0; };
  for (int parts = 0; _inputEnded && parts < kMostDropped && drop();) ++parts;
}

bool Connection::OnReadable(char* scratch, size_t size) {
  if (_hasMore) return true;  // first what has come
  const ssize_t count = recv(_descriptor, scratch, size, MSG_DONTWAIT);
  if (count < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  ++_reads;
  if (_inputEnded) return count > 0 || _output->GetKeptBytes() > 0;
  if (count == 0) {
    HandleRest();
    return !EndsNow();
  }
  const std::string_view received(scratch, static_cast<size_t>(count));
  if (_input.empty()) return TakeInput(received);
  _input.append(received);
  return TakeInput(_input);
}

// received: all of _input, or what came while there was none.
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
  if (_first && IsTlsHandshake(received)) return Cut(CutReason::kTls, received.size());
  try {
    _hasMore = false;
    for (int turn = 0; _output->GetKeptBytes() <= _limits.pauseBytes; ++turn) {
      const std::string_view rest = received.substr(handled);
      const size_t length = _framer.FindEnd(rest);
      if (length == 0) break;
      if (_first && IsHttpRequestLine(rest.substr(0, length))) return Cut(CutReason::kHttp, length);
      _first = false;
      _request.SetText(rest.substr(0, length));
      if (!HandleOne()) break;
      handled += length;
      if (_handler->HasQuit()) return !EndsNow();
      _hasMore = turn + 1 == kRequestsInATurn && handled < received.size();
      if (_hasMore) break;
    }
  } catch (const std::exception& exception) {
    CountFailure(exception);
    return !EndsNow();
  }
  return !_output->IsBroken();
}

// Who made a change hears nothing more before it is durable: a reply proves what came before it.
bool Connection::HandleOne() {
  const DurabilityGate::Ticket before = DurabilityGate::GetLastOfThisThread();
  const bool goesOn = _handler->HandleNext();
  const DurabilityGate::Ticket after = DurabilityGate::GetLastOfThisThread();
  if (after != before) _output->HoldFromNowOn(after);
  return goesOn;
}

// What the input's end cut off is handled as far as that is right: lists are answered, changes are not made.
void Connection::HandleRest() {
  try {
    _request.SetText(_input);
    while (HandleOne()) continue;
  } catch (const std::exception& exception) {
    CountFailure(exception);
  }
  _input.clear();
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
  const size_t left = _output->Send();
  if (_output->IsBroken()) return false;
  if (_inputEnded) {
    UpdateInterest();
    return _output->GetKeptBytes() > 0;
  }
  const bool resumes = left <= _limits.pauseBytes && !_input.empty();
  if (resumes && !TakeInput(_input)) return false;
  UpdateInterest();
  return true;
}

// The socket takes nothing any more, and would say so without end while output waits for the disk.
bool Connection::OnHangUp() {
  return !_inputEnded;
}

bool Connection::OnTick(Clock::time_point now) {
  if (_output->IsBroken()) return false;
  const size_t kept = _output->GetKeptBytes();
  const size_t unread = _output->GetSendableBytes();
  if (unread > _limits.backlogBytes && now - _output->GetLastProgress() > std::chrono::seconds(_limits.backlogSeconds))
    return Cut(CutReason::kBacklog, unread);
  const bool unfinished = !_input.empty() && kept <= _limits.pauseBytes;
  if (unfinished && now - _unfinishedSince > std::chrono::seconds(_limits.requestSeconds))
    return Cut(CutReason::kRequestTime, _input.size());
  return true;
}

bool Connection::NeedsTicks() const {
  return !_input.empty() || _output->GetKeptBytes() > 0 || _output->IsBroken();
}

bool Connection::CheckInput() {
  if (_hasMore) return true;  // that may be many requests
  if (_output->GetKeptBytes() > _limits.pauseBytes) {
    UpdateInterest();
    return true;
  }
  if (_framer.GetUnfinishedLine(_input) > _limits.lineBytes) return Cut(CutReason::kLine, _input.size());
  if (_input.size() > _limits.requestBytes) return Cut(CutReason::kRequest, _input.size());
  return true;
}

bool Connection::Cut(CutReason reason, size_t figure) {
  _counters.Count(reason);
  Log()->Warning("%s: connection cut: %s %zu", _peer.c_str(), TextOf(reason), figure);
  return false;
}

void Connection::CountFailure(const std::exception& exception) {
  _counters.Count(CutReason::kError);
  Log()->Warning("%s: connection ended: %s", _peer.c_str(), exception.what());
}

// On any thread, with the output locked.
void Connection::OnKept() {
  {
    std::lock_guard<std::mutex> lock(_interestMutex);
    _interest.write = true;
    Announce();
  }
  eventfd_write(_wakeLoop, 1);
}

Connection::Interest Connection::FindInterest() const {
  return {!_inputEnded && _output->GetKeptBytes() <= _limits.pauseBytes, _output->GetSendableBytes() > 0};
}

// On the loop's thread. What others send or keep between the look and the lock must not be forgotten: then it looks
// again.
void Connection::UpdateInterest() {
  Interest wanted;
  do {
    wanted = FindInterest();
    _output->TellWhenSent(!wanted.read);
    std::lock_guard<std::mutex> lock(_interestMutex);
    if (!_interest.read && wanted.read) _unfinishedSince = Clock::now();
    _interest = wanted;
    Announce();
  } while (!(FindInterest() == wanted));
}

// The caller holds the interest's lock.
void Connection::Announce() {
  epoll_event event{};
  event.events = (_interest.read ? EPOLLIN : 0u) | (_interest.write ? EPOLLOUT : 0u);
  event.data.ptr = this;
  epoll_ctl(_poll, EPOLL_CTL_MOD, _descriptor, &event);
}

}  // namespace tavix::daemon
