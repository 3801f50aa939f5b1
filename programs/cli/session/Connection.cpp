#include "programs/cli/session/Connection.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "programs/cli/text/Failure.h"
#include "programs/cli/text/Spelling.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/ServiceEndpoint.h"
#include "tavix/settings/client/ProtocolConstants.h"

namespace tavix::cli {

namespace {

using std::chrono::milliseconds;

constexpr char kLabel[] = "tavix-settings-server";
constexpr char kVariable[] = "TAVIX_SETTINGS_SERVER";
constexpr char kUnix[] = "unix:";
constexpr long long kLongestWait = 1000 * 1000 * 1000;  // milliseconds, what poll(2) takes at a time
constexpr size_t kMostAtOnce = 64 * size_t{1024};
constexpr size_t kMaxLineBytes = settings::client::protocol::kMaxLineBytes;
constexpr size_t kMaxRequestBytes = 4 * kMaxLineBytes;
constexpr size_t kMaxNameBytes = 4 * size_t{1024};
constexpr char kLimits[] =
    "a server takes names of 4 KiB, lines of 16 MiB and requests of 64 MiB, unless its --max-name, --max-line and "
    "--max-request say otherwise";

bool IsUnix(const std::string& server) {
  return server.rfind(kUnix, 0) == 0;
}

osa::ServiceEndpoint FindEndpoint(const std::string& server) {
  try {
    if (!server.empty()) return osa::ParseEndpoint(server, "--server");
    return osa::FindServiceEndpoint(kLabel, 0);
  } catch (const osa::Exception& exception) {
    throw Failure(kExitUsage, exception.what());
  }
}

// Of a line of a list or of settings text, as it is spelled.
size_t CountName(std::string_view line) {
  const bool isGroup = !line.empty() && line.front() == '[';
  return isGroup ? line.size() - std::min<size_t>(2, line.size()) : std::min(line.find('='), line.size());
}

// Whether that is more than a server takes whose limits nobody has changed.
bool IsMuch(std::string_view request) {
  size_t longestLine = 0;
  size_t longestName = 0;
  for (size_t at = 0; at < request.size();) {
    const std::string_view line = request.substr(at, request.find('\n', at) - at);
    longestLine = std::max(longestLine, line.size());
    longestName = std::max(longestName, CountName(line));
    at += line.size() + 1;
  }
  return longestName > kMaxNameBytes || longestLine > kMaxLineBytes || request.size() > kMaxRequestBytes;
}

// A peer that is gone without a farewell is found within a minute.
void SetUpTcp(int descriptor) {
  const auto set = [&](int level, int name, int value) { setsockopt(descriptor, level, name, &value, sizeof value); };
  set(IPPROTO_TCP, TCP_NODELAY, 1);
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 30);
  set(IPPROTO_TCP, TCP_KEEPINTVL, 10);
  set(IPPROTO_TCP, TCP_KEEPCNT, 3);
}

// A unix socket whose queue is full refuses at once who does not block, and no event tells when there is room.
void SetUpUnix(int descriptor, milliseconds timeout) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
  const timeval limit{static_cast<time_t>(seconds.count()),
                      static_cast<suseconds_t>(std::chrono::microseconds(timeout - seconds).count())};
  setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  fcntl(descriptor, F_SETFL, O_RDWR);
}

// Waits for the event in spite of signals; false when the time is up.
bool Await(int descriptor, short events, std::optional<milliseconds> limit) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + limit.value_or(milliseconds(0));
  while (true) {
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now()).count();
    pollfd waiting{descriptor, events, 0};
    const int count = poll(&waiting, 1, limit ? static_cast<int>(std::clamp<long long>(left, 0, kLongestWait)) : -1);
    if (count > 0) return true;
    if (count == 0 && left <= kLongestWait) return false;
    if (count < 0 && errno != EINTR) return false;
  }
}

}  // namespace

Connection::Connection(const std::string& server, milliseconds timeout, Trace trace)
    : _timeout(timeout), _trace(std::move(trace)) {
  Connect(server);
}

Connection::~Connection() {
  if (_descriptor >= 0) close(_descriptor);
}

void Connection::Connect(const std::string& server) {
  const char* variable = std::getenv(kVariable);
  if (IsUnix(server)) {
    ConnectUnix(server.substr(sizeof kUnix - 1));
  } else if (server.empty() && variable != nullptr && IsUnix(variable)) {
    ConnectUnix(variable + sizeof kUnix - 1);
  } else {
    const osa::ServiceEndpoint endpoint = FindEndpoint(server);
    ConnectTcp(endpoint.host, endpoint.port);
  }
  if (_descriptor < 0) FailToConnect();
}

void Connection::ConnectUnix(const std::string& path) {
  _address = kUnix + path;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    throw Failure(kExitUsage, "'" + _address + "' is no address: a path has 1 to " +
                                  std::to_string(sizeof address.sun_path - 1) + " bytes");
  std::memcpy(address.sun_path, path.data(), path.size());
  TryConnect(AF_UNIX, &address, sizeof address);
  if (_error == EAGAIN)
    throw Failure(kExitNoServer, "the server at " + _address + " took no connection within " + ShowTimeout(),
                  "it is busy with others, or stopped");
}

void Connection::ConnectTcp(const std::string& host, unsigned short port) {
  const bool isV6 = host.find(':') != std::string::npos;
  _address = (isV6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (result != 0) throw Failure(kExitNoServer, "no server at " + _address + ": " + gai_strerror(result));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
    if (TryConnect(at->ai_family, at->ai_addr, at->ai_addrlen)) return;
  }
}

bool Connection::TryConnect(int family, const void* address, unsigned int size) {
  _descriptor = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  _error = errno;
  if (_descriptor < 0) return false;
  if (family == AF_UNIX) {
    SetUpUnix(_descriptor, _timeout);
  } else {
    SetUpTcp(_descriptor);
  }
  _error = connect(_descriptor, static_cast<const sockaddr*>(address), size) == 0 ? 0 : errno;
  if (_error == EINPROGRESS) {
    socklen_t length = sizeof _error;
    if (!Await(_descriptor, POLLOUT, _timeout)) {
      _error = ETIMEDOUT;
    } else if (getsockopt(_descriptor, SOL_SOCKET, SO_ERROR, &_error, &length) != 0) {
      _error = errno;
    }
  }
  if (_error == 0 && fcntl(_descriptor, F_SETFL, O_RDWR | O_NONBLOCK) != 0) _error = errno;
  if (_error == 0) return true;
  close(_descriptor);
  _descriptor = -1;
  return false;
}

void Connection::Send(const std::string& text, const Progress& progress) {
  ShowLines('>', text);
  if (IsMuch(text)) _hasSentMuch = true;
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count =
        send(_descriptor, text.data() + sent, std::min(text.size() - sent, kMostAtOnce), MSG_NOSIGNAL);
    if (count >= 0) {
      sent += static_cast<size_t>(count);
      if (progress) progress(sent, text.size());
    } else if (errno == EAGAIN) {
      if (!Await(_descriptor, POLLOUT, _timeout)) FailTimedOut();
    } else if (errno != EINTR) {
      FailLost();
    }
  }
}

std::string Connection::ReadLine() {
  size_t end = 0;
  size_t from = _start;
  while ((end = _received.find('\n', from)) == std::string::npos) {
    from = _received.size() - _start;
    _received.erase(0, _start);
    _start = 0;
    Receive();
  }
  std::string line = _received.substr(_start, end - _start);
  _start = end + 1;
  ShowLines('<', line + "\n");
  return line;
}

void Connection::Receive() {
  if (!AwaitInput(_timeout)) FailTimedOut();
  char part[kMostAtOnce];
  const ssize_t count = recv(_descriptor, part, sizeof part, 0);
  if (count > 0) {
    _received.append(part, static_cast<size_t>(count));
  } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
    FailLost();
  }
}

bool Connection::AwaitInput(std::optional<milliseconds> limit) const {
  return _received.size() > _start || Await(_descriptor, POLLIN, limit);
}

void Connection::ShowLines(char direction, const std::string& text) const {
  if (!_trace) return;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    // What is on the wire is spelled already, but for what would upset a terminal: backslashes stay as they are.
    std::string line;
    for (size_t i = at; i < end; ++i) {
      const size_t next = std::min(text.find('\\', i), end);
      line += SpellValue(text.substr(i, next - i));
      if (next < end) line += '\\';
      i = next;
    }
    _trace(direction, line);
    at = end + 1;
  }
}

void Connection::FailToConnect() const {
  throw Failure(kExitNoServer, "no server at " + _address + ": " + std::strerror(_error),
                "start one with 'tavix-settings-server', name another with --server, or use --local FILE");
}

void Connection::FailLost() const {
  throw Failure(kExitNoServer, "the connection to " + _address + " was lost", _hasSentMuch ? kLimits : "");
}

void Connection::FailTimedOut() const {
  throw Failure(kExitNoServer, "no answer from " + _address + " within " + ShowTimeout());
}

std::string Connection::ShowTimeout() const {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", static_cast<double>(_timeout.count()) / 1000);
  return text;
}

}  // namespace tavix::cli
