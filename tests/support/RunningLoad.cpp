#include "tests/support/RunningLoad.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <exception>
#include <string>
#include <vector>

namespace tavix::test {

namespace {

using Manner = LoadClients::Manner;

constexpr int kLookMilliseconds = 20;  // between two looks whether to stop
constexpr char kMarker[] = "get delimited\n.\n";
constexpr char kMarkersReply[] = "data\n.\n";

bool IsReady(int descriptor, short event) {
  pollfd wait{descriptor, event, 0};
  return poll(&wait, 1, kLookMilliseconds) > 0;
}

// Whether the connection still is one. Whatever arrived is added to "text".
bool ReceiveWhatIsThere(int descriptor, std::string& text) {
  thread_local std::vector<char> part(256 * 1024);
  const ssize_t count = recv(descriptor, part.data(), part.size(), MSG_DONTWAIT);
  if (count > 0) text.append(part.data(), static_cast<size_t>(count));
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

RunningLoad::RunningLoad(const Load& load, unsigned short port) : _load(load), _port(port) {
  for (const LoadClients& clients : _load.clients) {
    if (clients.manner == Manner::kSubscribe) Subscribe(clients);
  }
  if (!_subscribers.empty()) _threads.emplace_back([this] { ReadNotices(); });
  for (const LoadClients& clients : _load.clients) {
    for (size_t i = 0; i < clients.count; ++i) {
      if (clients.manner == Manner::kRepeat) _threads.emplace_back([this, &clients, i] { Repeat(clients, i); });
      if (clients.manner == Manner::kLeave) _threads.emplace_back([this, &clients, i] { Leave(clients, i); });
    }
  }
}

RunningLoad::~RunningLoad() {
  Stop();
}

void RunningLoad::Stop() {
  _isStopping = true;
  for (std::thread& thread : _threads) thread.join();
  _threads.clear();
  _subscribers.clear();
}

void RunningLoad::Subscribe(const LoadClients& clients) {
  for (size_t i = 0; i < clients.count; ++i) {
    _subscribers.emplace_back(_port).Send(clients.makeRequest(i, 0));
    _subscribers.back().AwaitHandled();
  }
}

void RunningLoad::ReadNotices() {
  std::vector<pollfd> waits;
  for (const ProtocolClient& client : _subscribers) waits.push_back({client.GetDescriptor(), POLLIN, 0});
  std::string dropped;
  while (!_isStopping) {
    if (poll(waits.data(), waits.size(), kLookMilliseconds) <= 0) continue;
    for (pollfd& wait : waits) {
      if (wait.revents != 0 && !ReceiveWhatIsThere(wait.fd, dropped)) wait.fd = -1;
      dropped.clear();
    }
  }
}

void RunningLoad::Repeat(const LoadClients& clients, size_t client) {
  size_t round = 0;
  while (!_isStopping) {
    try {
      RepeatOnOneConnection(clients, client, round);
    } catch (const std::exception&) {
      IsReady(-1, 0);  // the daemon may have ended, or have too many clients: not at once again
    }
  }
}

void RunningLoad::RepeatOnOneConnection(const LoadClients& clients, size_t client, size_t& round) {
  const ProtocolClient connection(_port);
  bool lives = true;
  while (lives && !_isStopping) {
    lives = Send(connection, clients.makeRequest(client, round++) + kMarker, true) && AwaitReply(connection);
    if (!_isStopping) ++_done;
  }
}

void RunningLoad::Leave(const LoadClients& clients, size_t client) {
  try {
    Send(ProtocolClient(_port), clients.makeRequest(client, 0), false);
  } catch (const std::exception&) {
    // The daemon has no place for it.
  }
  ++_done;
}

// False when the connection ended or the load is to stop before all was sent. isPatient: whether it waits while the
// daemon takes nothing.
bool RunningLoad::Send(const ProtocolClient& connection, const std::string& text, bool isPatient) {
  size_t sent = 0;
  while (sent < text.size() && !_isStopping) {
    if (!IsReady(connection.GetDescriptor(), POLLOUT)) {
      if (isPatient) continue;
      return false;
    }
    const ssize_t count =
        send(connection.GetDescriptor(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN && errno != EINTR) return false;
    if (count > 0) sent += static_cast<size_t>(count);
  }
  return sent == text.size();
}

// False when the connection ended or the load is to stop before the marker's reply was there. Only the end of what came
// is kept.
bool RunningLoad::AwaitReply(const ProtocolClient& connection) {
  std::string received = "\n";
  while (!_isStopping) {
    if (!IsReady(connection.GetDescriptor(), POLLIN)) continue;
    if (!ReceiveWhatIsThere(connection.GetDescriptor(), received)) return false;
    if (EndsWith(received, std::string("\n") + kMarkersReply)) return true;
    if (received.size() > sizeof kMarkersReply) received.erase(0, received.size() - sizeof kMarkersReply);
  }
  return false;
}

}  // namespace tavix::test
