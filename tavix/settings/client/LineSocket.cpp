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
constexpr size_t kPartBytes = 64 * size_t{1024};
constexpr size_t kMaxLineBytes = protocol::kMaxLineBytes;
constexpr size_t kMaxRequestBytes = 4 * kMaxLineBytes;
constexpr size_t kMaxNameBytes = 4 * size_t{1024};
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

// Whether it is more than a server takes whose limits nobody has changed.
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

Milliseconds TimeUntil(LineSocket::Clock::time_point end) {
  return std::chrono::ceil<Milliseconds>(end - LineSocket::Clock::now());
}

}  // namespace

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
  if (_descriptor >= 0) return;
  if (!endpoint.path.empty() && result.error == ETIMEDOUT)
    Fail(Reason::kTimedOut, "the server at " + _address + " took no connection within " + ShowSeconds(limit),
         "it is busy with others, or stopped");
  Fail(Reason::kUnreachable, "no server at " + _address + ": " + result.reason);
}

void LineSocket::StartCall() {
  _wasSent = false;
  if (_descriptor < 0) Fail(Reason::kLost, "the connection to " + _address + " was closed after an earlier failure");
  _end.reset();
  if (_timeouts.call) _end = Clock::now() + std::min(*_timeouts.call, kMaxWait);
}

bool LineSocket::ReceiveAvailable() {
  constexpr int kMaxParts = 64;  // a peer may send faster than we read
  Received received = Received::kBytes;
  for (int parts = 0; parts < kMaxParts && received == Received::kBytes; ++parts) {
    if (_received.size() - _start > _maxMessageBytes) break;
    received = TryReceive();
  }
  return received != Received::kEnd;
}

void LineSocket::Send(const std::string& text, const Progress& progress) {
  if (IsLargeRequest(text)) _isLarge = true;
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count =
        send(_descriptor, text.data() + sent, std::min(text.size() - sent, kPartBytes), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      _wasSent = true;
      sent += static_cast<size_t>(count);
      if (progress) progress(sent, text.size());
    } else if (errno == EAGAIN) {
      const bool hasRoom = _received.size() - _start <= _maxMessageBytes;
      const short ready = AwaitProgress(hasRoom ? POLLIN | POLLOUT : POLLOUT);
      if ((ready & POLLIN) != 0) Receive();
    } else if (errno != EINTR) {
      FailLost();
    }
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
  const size_t end = _received.find('\n', _start + _scanned);
  const size_t bytes = std::min(end, _received.size()) - _start;
  if (_messageBytes + bytes > _maxMessageBytes)
    Fail(Reason::kTooLarge,
         "the reply of " + _address + " has more than " + std::to_string(_maxMessageBytes) + " bytes");
  if (end == std::string::npos) {
    _received.erase(0, _start);
    _start = 0;
    _scanned = bytes;
    return std::nullopt;
  }
  std::string line = _received.substr(_start, bytes);
  _start = end + 1;
  _scanned = 0;
  _messageBytes += bytes + 1;
  return line;
}

void LineSocket::PutBack(const std::string& line) {
  _start -= line.size() + 1;
  _messageBytes -= line.size() + 1;
}

bool LineSocket::ReceiveWithin(std::optional<Milliseconds> limit) {
  if (Await(POLLIN, limit) == 0) return false;
  Receive();
  return true;
}

LineSocket::Received LineSocket::TryReceive() {
  if (_start > _received.size() / 2) {
    _received.erase(0, _start);  // lines that were taken
    _start = 0;
  }
  char part[kPartBytes];
  const ssize_t count = recv(_descriptor, part, sizeof part, MSG_DONTWAIT);
  if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return Received::kEnd;
  if (count < 0) return Received::kNothing;
  _received.append(part, static_cast<size_t>(count));
  return Received::kBytes;
}

void LineSocket::Receive() {
  if (TryReceive() == Received::kEnd) FailLost();
}

// Waits for one of the events in spite of signals, and returns those that came; none when the time is up.
short LineSocket::Await(short events, std::optional<Milliseconds> limit) {
  const Clock::time_point end = Clock::now() + std::min(limit.value_or(kMaxWait), kMaxWait);
  while (true) {
    const Milliseconds left = std::max(TimeUntil(end), Milliseconds(0));
    pollfd wait{_descriptor, events, 0};
    const int count = poll(&wait, 1, limit ? static_cast<int>(left.count()) : -1);
    if (count > 0) return wait.revents;
    if (count < 0 && errno != EINTR) FailLost();
    if (limit && Clock::now() >= end) return 0;
  }
}

short LineSocket::AwaitProgress(short events) {
  Milliseconds limit = _timeouts.silence;
  if (_end) limit = std::min(limit, TimeUntil(*_end));
  const short ready = limit.count() < 0 ? short{0} : Await(events, limit);
  if (ready == 0) FailTimedOut(_end && Clock::now() >= *_end ? *_timeouts.call : _timeouts.silence);
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
  throw ProtocolException(reason, text, hint, _wasSent);
}

void LineSocket::Close() {
  if (_descriptor >= 0) close(_descriptor);
  _descriptor = -1;
}

}  // namespace tavix::settings::client
