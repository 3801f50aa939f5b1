#include "tests/support/ProtocolClient.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tests/support/Patience.h"

namespace tavix::test {

namespace {

int Require(int result, const char* call) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), call);
  return result;
}

// A socket with a time limit is interrupted by what only stops the process for a while. Linux goes on where it was.
void ConnectTo(int descriptor, const sockaddr* address, socklen_t size) {
  int result = 0;
  do {
    result = connect(descriptor, address, size);
  } while (result < 0 && errno == EINTR);
  Require(result, "connect");
}

void SetOption(int descriptor, int level, int name, int value) {
  Require(setsockopt(descriptor, level, name, &value, sizeof value), "setsockopt");
}

// seconds: 0 waits for ever.
void SetTimeLimit(int descriptor, time_t seconds) {
  const timeval limit{seconds, 0};
  Require(setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), "setsockopt");
  Require(setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit), "setsockopt");
}

void SetUp(int descriptor, int receiveBuffer) {
  SetTimeLimit(descriptor, kPatience.count());
  SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
  if (receiveBuffer > 0) SetOption(descriptor, SOL_SOCKET, SO_RCVBUF, receiveBuffer);
}

}  // namespace

ProtocolClient::ProtocolClient(unsigned short port, int receiveBuffer) {
  Connect("127.0.0.1", std::to_string(port), receiveBuffer);
}

ProtocolClient::ProtocolClient(const std::string& address, int receiveBuffer) {
  if (address.rfind("unix:", 0) == 0) {
    ConnectToPath(address.substr(5));
    return;
  }
  const size_t colon = address.rfind(':');
  const bool bracketed = address.front() == '[';
  const std::string host = bracketed ? address.substr(1, colon - 2) : address.substr(0, colon);
  Connect(host, address.substr(colon + 1), receiveBuffer);
}

void ProtocolClient::Connect(const std::string& host, const std::string& port, int receiveBuffer) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) throw std::runtime_error("No address: " + host);
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> address(found, freeaddrinfo);
  _socket = osa::Descriptor(Require(socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  SetUp(_socket.Get(), receiveBuffer);
  ConnectTo(_socket.Get(), address->ai_addr, address->ai_addrlen);
}

void ProtocolClient::ConnectToPath(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  _socket = osa::Descriptor(Require(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  SetTimeLimit(_socket.Get(), kPatience.count());
  ConnectTo(_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
}

void ProtocolClient::Send(const std::string& text) {
  if (!TrySend(text)) throw std::system_error(errno, std::generic_category(), "send");
}

bool ProtocolClient::TrySend(const std::string& text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count = send(_socket.Get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) sent += static_cast<size_t>(count);
  }
  return true;
}

// False at the end of the connection.
bool ProtocolClient::Receive() {
  char part[64 * 1024];
  const ssize_t count = recv(_socket.Get(), part, sizeof part, 0);
  if (count > 0) {
    _received.append(part, static_cast<size_t>(count));
  } else if (count < 0 && errno == EAGAIN) {
    throw std::runtime_error("Nothing came in time, and before that only: " + _received);
  } else if (count < 0 && errno != EINTR && errno != ECONNRESET) {
    throw std::system_error(errno, std::generic_category(), "recv");
  }
  return count > 0 || (count < 0 && errno == EINTR);
}

std::string ProtocolClient::Read(size_t count) {
  while (_received.size() < count) {
    if (!Receive()) throw std::runtime_error("The connection ended behind: " + _received);
  }
  const std::string text = _received.substr(0, count);
  _received.erase(0, count);
  return text;
}

std::string ProtocolClient::ReadUntil(const std::string& ending) {
  size_t from = 0;
  size_t found = 0;
  while ((found = _received.find(ending, from)) == std::string::npos) {
    from = _received.size() < ending.size() ? 0 : _received.size() - ending.size() + 1;
    if (!Receive()) throw std::runtime_error("The connection ended behind: " + _received);
  }
  return Read(found + ending.size());
}

std::string ProtocolClient::ReadToEnd() {
  while (Receive()) continue;
  return std::exchange(_received, std::string());
}

std::string ProtocolClient::ReadFor(int milliseconds) {
  pollfd wait{_socket.Get(), POLLIN, 0};
  if (_received.empty() && poll(&wait, 1, milliseconds) > 0) Receive();
  return std::exchange(_received, std::string());
}

std::string ProtocolClient::Get(const std::string& groups) {
  Send("get delimited\n" + groups + ".\n");
  return ReadUntil("\n.\n");
}

void ProtocolClient::AwaitHandled() {
  const std::string reply = Get("");
  if (reply != "data\n.\n") throw std::runtime_error("Expected an empty reply, got: " + reply);
}

void ProtocolClient::HalfClose() {
  if (shutdown(_socket.Get(), SHUT_WR) < 0 && errno != ENOTCONN)
    throw std::system_error(errno, std::generic_category(), "shutdown");
}

void ProtocolClient::Reset() {
  const linger atOnce{1, 0};
  Require(setsockopt(_socket.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce), "setsockopt");
  _socket.Reset();
}

void ProtocolClient::WaitForEver() {
  SetTimeLimit(_socket.Get(), 0);
}

std::string Converse(unsigned short port, const std::string& requests) {
  ProtocolClient client(port);
  client.Send(requests);
  client.HalfClose();
  return client.ReadToEnd();
}

}  // namespace tavix::test
