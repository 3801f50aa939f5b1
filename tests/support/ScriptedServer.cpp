#include "tests/support/ScriptedServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "tests/support/Patience.h"

namespace tavix::test {

namespace {

bool IsReadable(int descriptor, std::chrono::milliseconds limit) {
  pollfd wait{descriptor, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&wait, 1, static_cast<int>(limit.count()));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

}  // namespace

ServerEnd::ServerEnd(osa::Descriptor socket) : _socket(std::move(socket)) {
  const timeval limit{kPatience.count(), 0};
  const int atOnce = 1;
  setsockopt(_socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  setsockopt(_socket.Get(), IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
}

// False at the end of the connection.
bool ServerEnd::Receive() {
  AwaitBytes();
  char part[64 * 1024];
  const ssize_t count = recv(_socket.Get(), part, sizeof part, 0);
  if (count > 0) _received.append(part, static_cast<size_t>(count));
  return count > 0 || (count < 0 && errno == EINTR);
}

void ServerEnd::AwaitBytes() {
  if (!IsReadable(_socket.Get(), kPatience)) throw std::runtime_error("Nothing came in time behind: " + _received);
}

std::string ServerEnd::ReadThrough(const std::string& last) {
  const std::string line = last + '\n';
  for (size_t begin = 0;;) {
    const size_t end = _received.find('\n', begin);
    if (end == std::string::npos) {
      if (!Receive()) throw std::runtime_error("The connection ended behind: " + _received);
    } else if (_received.compare(begin, end + 1 - begin, line) == 0) {
      const std::string text = _received.substr(0, end + 1);
      _received.erase(0, end + 1);
      return text;
    } else {
      begin = end + 1;
    }
  }
}

std::string ServerEnd::ReadLine() {
  size_t end = 0;
  while ((end = _received.find('\n')) == std::string::npos) {
    if (!Receive()) throw std::runtime_error("The connection ended behind: " + _received);
  }
  const std::string line = _received.substr(0, end + 1);
  _received.erase(0, end + 1);
  return line;
}

std::string ServerEnd::ReadToEnd() {
  while (Receive()) continue;
  return std::exchange(_received, std::string());
}

void ServerEnd::Send(const std::string& text) {
  if (!test::Send(_socket, text)) throw std::runtime_error("The peer takes nothing");
}

void ServerEnd::HalfClose() {
  shutdown(_socket.Get(), SHUT_WR);
}

// Without giving up the descriptor, which another thread may be about to shut down.
void ServerEnd::Reset() const {
  sockaddr nobody{};
  nobody.sa_family = AF_UNSPEC;
  connect(_socket.Get(), &nobody, sizeof nobody);
}

void ServerEnd::Shutdown() const {
  shutdown(_socket.Get(), SHUT_RDWR);
}

ScriptedServer::ScriptedServer(int backlog)
    : _listener(backlog),
      _local("TAVIX_SETTINGS_LOCALFILE", nullptr),
      _endpoint("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(GetPort())).c_str()) {}

void ScriptedServer::Listen() {
  listen(_listener.GetDescriptor(), 16);
}

ServerEnd ScriptedServer::Accept() const {
  if (!IsReadable(_listener.GetDescriptor(), kPatience)) throw std::runtime_error("Nobody connected in time");
  return ServerEnd(_listener.Accept());
}

bool ScriptedServer::HasWaitingConnection() const {
  return IsReadable(_listener.GetDescriptor(), std::chrono::milliseconds(0));
}

void ScriptedServer::StopListening() const {
  shutdown(_listener.GetDescriptor(), SHUT_RDWR);
}

ServerThreads::ServerThreads(const ScriptedServer& server, Script script)
    : _server(server), _script(std::move(script)), _acceptor(&ServerThreads::AcceptAll, this) {}

ServerThreads::~ServerThreads() {
  _server.StopListening();
  _acceptor.join();
  {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const ServerEnd& peer : _peers) peer.Shutdown();
  }
  for (std::thread& thread : _threads) thread.join();
}

void ServerThreads::AcceptAll() {
  try {
    while (true) {
      ServerEnd accepted = _server.Accept();
      std::lock_guard<std::mutex> lock(_mutex);
      ServerEnd& peer = _peers.emplace_back(std::move(accepted));
      _threads.emplace_back([this, &peer, number = _peers.size() - 1] {
        try {
          _script(peer, number);
        } catch (const std::runtime_error&) {  // the peer is gone
        }
        std::lock_guard<std::mutex> closing(_mutex);
        peer.Close();
      });
    }
  } catch (const std::exception&) {  // nobody listens any more
  }
}

}  // namespace tavix::test
