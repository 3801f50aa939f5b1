#include "tavix/settings/client/LineSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <utility>

#include "tavix/osa/ConnectEndpoint.h"
#include "tavix/osa/ServiceEndpoint.h"
#include "tavix/osa/Time.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::settings::client {

namespace {

using Milliseconds = LineSocket::Milliseconds;
using Reason = ProtocolException::Reason;

constexpr char kLabel[] = "tavix-settings-server";
constexpr Milliseconds kMaxWait{1000 * 1000 * 1000};  // what poll(2) takes at a time, and more than any time-out
constexpr size_t kSendBytes = 64 * size_t{1024};      // at a time
constexpr size_t kReceiveBytes = 16 * size_t{1024};   // at a time
constexpr size_t kMaxLineBytes = protocol::kMaxLineBytes;
constexpr size_t kMaxRequestBytes = 4 * kMaxLineBytes;
constexpr size_t kMaxNameBytes = 4 * size_t{1024};
constexpr char kBusyHint[] = "it is busy with others, or stopped";
constexpr char kDroppedHint[] = "its host is off or busy, or something on the way drops what is sent to it";
constexpr char kLimitsHint[] =
    "a server takes names of 4 KiB, lines of 16 MiB and requests of 64 MiB, unless its --max-name, --max-line and "
    "--max-request say otherwise";

osa::ServiceEndpoint FindEndpoint(const ProtocolOptions& options) {
  try {
    if (!options.address.empty()) return osa::ParseEndpoint(options.address, options.addressSource);
    return osa::FindServiceEndpoint(kLabel, 0);
  } catch (const osa::Exception& exception) {
    throw ProtocolException(Reason::kUsage, exception.what(), {}, false);
  }
}

std::string ShowEndpoint(const osa::ServiceEndpoint& endpoint) {
  if (!endpoint.path.empty()) return "unix:" + endpoint.path;
  const bool isV6 = endpoint.host.find(':') != std::string::npos;
  return (isV6 ? "[" + endpoint.host + "]" : endpoint.host) + ":" + std::to_string(endpoint.port);
}

std::string ShowSeconds(Milliseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", static_cast<double>(time.count()) / 1000);
  return text;
}

// Of a line of a list or of settings text, as it is spelled.
size_t CountNameBytes(std::string_view line) {
  const bool isGroup = !line.empty() && line.front() == '[';
  return isGroup ? line.size() - std::min<size_t>(2, line.size()) : std::min(line.find('='), line.size());
}

// Whether it is beyond the default limits of a server.
bool IsLargeRequest(std::string_view request) {
  size_t longestLine = 0;
  size_t longestName = 0;
  for (size_t at = 0; at < request.size();) {
    const std::string_view line = request.substr(at, request.find('\n', at) - at);
    longestLine = std::max(longestLine, line.size());
    longestName = std::max(longestName, CountNameBytes(line));
    at += line.size() + 1;
  }
  return longestName > kMaxNameBytes || longestLine > kMaxLineBytes || request.size() > kMaxRequestBytes;
}

int PollTimeout(LineSocket::Clock::time_point end) {
  const auto left = std::chrono::ceil<Milliseconds>(end - LineSocket::Clock::now());
  return static_cast<int>(std::clamp(left, Milliseconds(0), kMaxWait).count());
}

}  // namespace

LineSocket::Clock::time_point LineSocket::After(Clock::time_point start, Milliseconds time) {
  return start + std::clamp(time, Milliseconds(0), kMaxWait);
}

LineSocket::LineSocket(const ProtocolOptions& options)
    : _timeouts(options.timeouts), _maxMessageBytes(options.maxMessageBytes) {
  Connect(options);
}

void LineSocket::Connect(const ProtocolOptions& options) {
  const osa::ServiceEndpoint endpoint = FindEndpoint(options);
  _address = ShowEndpoint(endpoint);
  const Milliseconds limit = std::min({_timeouts.silence, _timeouts.call.value_or(kMaxWait), kMaxWait});
  const osa::Deadline deadline(static_cast<unsigned int>(std::max<Milliseconds::rep>(limit.count(), 0)));
  osa::ConnectResult result = osa::ConnectEndpoint(endpoint, deadline);
  _descriptor = result.descriptor;
  _receivedAt = Clock::now();
  if (_descriptor >= 0) return;
  if (result.error == ETIMEDOUT)
    Fail(Reason::kTimedOut, "the server at " + _address + " took no connection within " + ShowSeconds(limit),
         endpoint.path.empty() ? kDroppedHint : kBusyHint);
  if (osa::IsShortage(result.error))
    Fail(Reason::kNoResources, "no connection to " + _address + " can be made: " + result.reason);
  Fail(Reason::kUnreachable, "no server at " + _address + ": " + result.reason);
}

void LineSocket::StartCall() {
  _wasSent = false;
  _hasReceived = false;
  if (_descriptor < 0) Fail(Reason::kLost, "the connection to " + _address + " was closed after an earlier failure");
  _end.reset();
  if (_timeouts.call) _end = After(Clock::now(), *_timeouts.call);
}

// Bounded, as a server may send faster than its client reads.
bool LineSocket::ReceiveAvailable() {
  Received received = Received::kBytes;
  const size_t maxBytes = _buffer.GetBytes() + kMaxAvailableBytes;
  while (received == Received::kBytes && HasRoom() && _buffer.GetBytes() + kReceiveBytes <= maxBytes)
    received = TryReceive();
  return received != Received::kEnd;
}

void LineSocket::StartRequest(std::string_view request, bool isWrite) {
  _isWrite = isWrite;
  if (IsLargeRequest(request)) _isLarge = true;
}

size_t LineSocket::SendSome(std::string_view rest) {
  while (true) {
    const ssize_t count =
        send(_descriptor, rest.data(), std::min(rest.size(), kSendBytes), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) {
      _wasSent = true;
      if (_isWrite) _hasUnconfirmedWrites = true;
      return static_cast<size_t>(count);
    }
    if (count < 0 && errno == EAGAIN) {
      const short ready = AwaitProgress(HasRoom() ? POLLIN | POLLOUT : POLLOUT);
      if ((ready & POLLIN) != 0) Receive();
      return 0;
    }
    if (count < 0 && errno != EINTR) FailLost();
  }
}

std::string LineSocket::ReadLine() {
  while (true) {
    if (std::optional<std::string> line = TakeLine()) return std::move(*line);
    AwaitProgress(POLLIN);
    Receive();
  }
}

std::optional<std::string> LineSocket::TakeLine() {
  if (_messageBytes + _buffer.CountLineBytes() > _maxMessageBytes)
    Fail(Reason::kTooLarge,
         "the reply of " + _address + " has more than " + std::to_string(_maxMessageBytes) + " bytes");
  std::optional<std::string> line = _buffer.TakeLine();
  if (line) _messageBytes += line->size() + 1;
  return line;
}

void LineSocket::PutBack(const std::string& line) {
  _buffer.PutBack(line);
  _messageBytes -= line.size() + 1;
}

bool LineSocket::ReceiveUntil(std::optional<Clock::time_point> end, bool hasMessageBegun) {
  const Clock::time_point silent = After(_receivedAt, _timeouts.silence);
  if (_end) end = std::min(*_end, end.value_or(*_end));
  const bool isOver = _hasReceived && end && Clock::now() >= *end;
  if (!isOver && Await(POLLIN, hasMessageBegun ? std::min(silent, end.value_or(silent)) : end) != 0) {
    ReceiveSome();
    return true;
  }
  if (hasMessageBegun && !isOver && Clock::now() >= silent) FailTimedOut(_timeouts.silence);
  if (hasMessageBegun && _end && Clock::now() >= *_end) FailTimedOut(*_timeouts.call);
  return false;
}

LineSocket::Received LineSocket::TryReceive() {
  char* const room = _buffer.MakeRoom(kReceiveBytes);
  const ssize_t count = recv(_descriptor, room, kReceiveBytes, MSG_DONTWAIT);
  if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return Received::kEnd;
  if (count < 0) return Received::kNothing;
  _buffer.AddWritten(static_cast<size_t>(count));
  _receivedAt = Clock::now();
  return Received::kBytes;
}

void LineSocket::Receive() {
  if (TryReceive() == Received::kEnd) FailLost();
}

// The end of the connection counts only when nothing has come before it.
void LineSocket::ReceiveSome() {
  const size_t before = _buffer.GetBytes();
  if (!ReceiveAvailable() && _buffer.GetBytes() == before) FailLost();
  _hasReceived = true;
}

// Waits for one of the events in spite of signals, and returns those that came; none at "end".
short LineSocket::Await(short events, std::optional<Clock::time_point> end) {
  while (true) {
    pollfd wait{_descriptor, events, 0};
    const int count = poll(&wait, 1, end ? PollTimeout(*end) : -1);
    if (count > 0) return wait.revents;
    if (count < 0 && errno != EINTR) FailLost();
    if (end && Clock::now() >= *end) return 0;
  }
}

// A server that never stops sending makes progress for ever: then the end of the call is looked at here.
short LineSocket::AwaitProgress(short events) {
  if (_end && Clock::now() >= *_end) FailTimedOut(*_timeouts.call);
  const Clock::time_point silent = After(Clock::now(), _timeouts.silence);
  const bool isCallSooner = _end && *_end < silent;
  const short ready = Await(events, isCallSooner ? *_end : silent);
  if (ready == 0) FailTimedOut(isCallSooner ? *_timeouts.call : _timeouts.silence);
  return ready;
}

void LineSocket::FailTimedOut(Milliseconds limit) {
  Fail(Reason::kTimedOut, "no answer from " + _address + " within " + ShowSeconds(limit));
}

void LineSocket::FailLost() {
  Fail(Reason::kLost, "the connection to " + _address + " was lost", _isLarge ? kLimitsHint : "");
}

void LineSocket::Fail(Reason reason, const std::string& text, const std::string& hint) {
  Close();
  throw ProtocolException(reason, text, hint, WasSent());
}

void LineSocket::Close() {
  if (_descriptor >= 0) close(_descriptor);
  _descriptor = -1;
}

}  // namespace tavix::settings::client
