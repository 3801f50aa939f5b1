#include "programs/bridge/control/ControlSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tavix/osa/Exception.h"

namespace tavix::bridge {

namespace {

constexpr int kBacklog = 16;
constexpr mode_t kForGroup = 0660;
constexpr Milliseconds kAcceptRetry{1'000};

// end: of the time of a client that has not asked yet.
constexpr Milliseconds GetCrowdedEnd(Milliseconds end) {
  return end - ControlSocket::kRequestTime + ControlSocket::kCrowdedTime;
}

[[noreturn]] void Fail(const std::string& path) {
  throw osa::Exception("Failed to listen on '%s': %s", path.c_str(), std::strerror(errno));
}

void RemoveStaleSocket(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path.c_str());
}

// Nobody can connect before it listens.
osa::Descriptor Listen(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw osa::Exception("Failed to listen on '%s': the path has more than %zu bytes", path.c_str(),
                         sizeof address.sun_path - 1);
  }
  path.copy(address.sun_path, path.size());
  osa::Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  RemoveStaleSocket(path);
  const bool isBound = bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (!isBound || chmod(path.c_str(), kForGroup) != 0 || listen(listener.Get(), kBacklog) != 0) Fail(path);
  return listener;
}

bool IsForLater(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

ControlSocket::ControlSocket(const std::string& path, Answer answer, std::string tooLong)
    : _path(path), _answer(std::move(answer)), _tooLong(std::move(tooLong)), _listener(Listen(path)) {}

ControlSocket::~ControlSocket() {
  unlink(_path.c_str());
}

void ControlSocket::AddTo(std::vector<pollfd>& watched) const {
  if (HasPlace(_now) && _acceptAfter == Milliseconds(0)) watched.push_back({_listener.Get(), POLLIN, 0});
  for (const Client& client : _clients) {
    const short events = client.answer.empty() ? POLLIN : POLLOUT;
    watched.push_back({client.socket.Get(), events, 0});
  }
}

std::optional<Milliseconds> ControlSocket::GetNext() const {
  std::optional<Milliseconds> next;
  if (_acceptAfter > Milliseconds(0)) next = _acceptAfter;
  for (const Client& client : _clients) next = std::min(next.value_or(client.end), client.end);
  const auto silent = FindSilent();
  if (IsFull() && silent != _clients.end() && GetCrowdedEnd(silent->end) > _now) {
    next = std::min(*next, GetCrowdedEnd(silent->end));
  }
  return next;
}

// A request that is there is answered before its client has to make room for others.
void ControlSocket::Run(Milliseconds now) {
  _now = now;
  ServeAll(now);
  Accept(now);
  ServeAll(now);
}

// The one that has kept silent for longest; end(): none does.
ControlSocket::Clients::const_iterator ControlSocket::FindSilent() const {
  return std::find_if(_clients.begin(), _clients.end(), [](const Client& client) { return client.answer.empty(); });
}

bool ControlSocket::HasPlace(Milliseconds now) const {
  const auto silent = FindSilent();
  return now >= _acceptAfter && (!IsFull() || (silent != _clients.end() && now >= GetCrowdedEnd(silent->end)));
}

void ControlSocket::ServeAll(Milliseconds now) {
  for (auto client = _clients.begin(); client != _clients.end();) {
    client = Serve(*client, now) ? std::next(client) : _clients.erase(client);
  }
}

void ControlSocket::Accept(Milliseconds now) {
  while (HasPlace(now)) {
    _acceptAfter = Milliseconds(0);
    osa::Descriptor socket(accept4(_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
      // What has no descriptor stays in the queue, which would wake this again at once.
      const bool isExhausted = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
      if (isExhausted) _acceptAfter = now + kAcceptRetry;
      return;
    }
    if (IsFull()) _clients.erase(FindSilent());
    _clients.push_back({std::move(socket), now + kRequestTime, {}, {}});
  }
}

// Returns whether the connection goes on. A request that is there is in time, however late it is looked for.
bool ControlSocket::Serve(Client& client, Milliseconds now) const {
  if (client.answer.empty() && !Receive(client, now)) return false;
  if (now >= client.end) return false;
  return client.answer.empty() || Send(client);
}

bool ControlSocket::Receive(Client& client, Milliseconds now) const {
  char bytes[kMaxRequest + 1];
  const ssize_t size = recv(client.socket.Get(), bytes, sizeof bytes, 0);
  if (size < 0) return IsForLater(errno);
  client.request.append(bytes, static_cast<size_t>(size));
  const size_t end = client.request.find('\n');
  const bool isTooLong = std::min(end, client.request.size()) > kMaxRequest;
  if (end == std::string::npos && !isTooLong) return size > 0;
  client.answer = (isTooLong ? _tooLong : _answer(client.request.substr(0, end))) + "\n";
  client.end = now + kAnswerTime;
  return true;
}

// Returns whether there is more to send.
bool ControlSocket::Send(Client& client) {
  while (client.sent < client.answer.size()) {
    const ssize_t size =
        send(client.socket.Get(), client.answer.data() + client.sent, client.answer.size() - client.sent, MSG_NOSIGNAL);
    if (size < 0) return IsForLater(errno);
    client.sent += static_cast<size_t>(size);
  }
  DropRest(client);
  return false;
}

// Bytes that nobody has read when a socket is closed would take the answer away from its client.
void ControlSocket::DropRest(const Client& client) {
  char bytes[4096];
  shutdown(client.socket.Get(), SHUT_RD);
  while (recv(client.socket.Get(), bytes, sizeof bytes, 0) > 0) continue;
}

}  // namespace tavix::bridge
