#include "programs/web/http/Listener.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>

#include "programs/common/PassedSockets.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

constexpr char kUnix[] = "unix:";
constexpr int kBacklog = 128;
constexpr mode_t kSocketMode = 0660;

[[noreturn]] void Fail(const std::string& address, const char* reason) {
  throw osa::Exception("Failed to listen on '%s': %s", address.c_str(), reason);
}

sockaddr_un MakeUnixAddress(const std::string& address, const std::string& path) {
  sockaddr_un result{};
  result.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof result.sun_path) Fail(address, "the path is empty or too long");
  path.copy(result.sun_path, path.size());
  return result;
}

// Whether a socket's file is there that nobody listens on any more.
bool IsLeftOver(const sockaddr_un& address) {
  struct stat status {};
  if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  const osa::Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
         errno == ECONNREFUSED;
}

}  // namespace

Listener::Listener(const std::string& address) : _address(address) {
  if (address.compare(0, sizeof kUnix - 1, kUnix) == 0) {
    ListenOnPath(address.substr(sizeof kUnix - 1));
  } else {
    ListenOnHost(address);
  }
  FindAddress();
}

Listener::Listener(osa::Descriptor passed) : _socket(std::move(passed)) {
  fcntl(_socket.Get(), F_SETFL, O_NONBLOCK);
  FindAddress();
}

Listener::Listener(Listener&& other) noexcept
    : _socket(std::move(other._socket)),
      _address(other._address),
      _file(std::exchange(other._file, std::string())),
      _isUnix(other._isUnix),
      _isLoopback(other._isLoopback) {}

Listener::~Listener() {
  if (!_file.empty()) unlink(_file.c_str());
}

void Listener::ListenOnPath(const std::string& path) {
  const sockaddr_un address = MakeUnixAddress(_address, path);
  _socket.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (IsLeftOver(address)) unlink(path.c_str());
  if (bind(_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    Fail(_address, std::strerror(errno));
  _file = path;
  if (chmod(path.c_str(), kSocketMode) != 0 || listen(_socket.Get(), kBacklog) != 0)
    Fail(_address, std::strerror(errno));
}

void Listener::ListenOnHost(const std::string& address) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos) Fail(address, "expected HOST:PORT or unix:PATH");
  std::string host = address.substr(0, colon);
  if (host.size() > 1 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.empty() ? nullptr : host.c_str(), address.c_str() + colon + 1, &hints, &found);
  if (error != 0) Fail(address, gai_strerror(error));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  _socket.Reset(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  setsockopt(_socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(_socket.Get(), found->ai_addr, found->ai_addrlen) != 0 || listen(_socket.Get(), kBacklog) != 0)
    Fail(address, std::strerror(errno));
}

void Listener::FindAddress() {
  sockaddr_storage own{};
  socklen_t size = sizeof own;
  if (getsockname(_socket.Get(), reinterpret_cast<sockaddr*>(&own), &size) != 0) Fail(_address, std::strerror(errno));
  _isUnix = own.ss_family == AF_UNIX;
  if (_isUnix) {
    if (_address.empty()) _address = kUnix + std::string(reinterpret_cast<const sockaddr_un&>(own).sun_path);
    return;
  }
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&own), size, host, sizeof host, port, sizeof port,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    Fail(_address, "the socket has no address of IP");
  const bool isV6 = own.ss_family == AF_INET6;
  _isLoopback = std::strncmp(host, "127.", 4) == 0 || std::strcmp(host, "::1") == 0;
  _address = (isV6 ? "[" : "") + std::string(host) + (isV6 ? "]:" : ":") + port;
}

osa::Descriptor Listener::Accept() const {
  return osa::Descriptor(accept4(_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

std::vector<Listener> OpenListeners(const std::string& address) {
  std::vector<Listener> listeners;
  for (osa::Descriptor& passed : programs::TakePassedSockets()) listeners.emplace_back(std::move(passed));
  if (listeners.empty()) listeners.emplace_back(address);
  return listeners;
}

}  // namespace tavix::web
