#include "tests/support/RandomClients.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/ProtocolClient.h"
#include "tests/support/RandomRequests.h"

namespace tavix::test {

namespace {

constexpr size_t kThreads = 2;
constexpr std::chrono::milliseconds kPause{1};  // leaves time to others, after a step of each client in the mean

// One client. Each step does what can be done at once.
class RandomClient {
 public:
  RandomClient(unsigned short port, std::mt19937& random) : _port(port), _random(random) {}

  struct Progress {
    bool hasConnected = false;
    bool hasSent = false;  // a request, to its end
  };

  Progress Step() {
    Progress progress;
    if (!_connection) {
      progress.hasConnected = Connect();
    } else if (Is(0.002)) {
      Leave();
    } else {
      if (_unsent.empty()) _unsent = _requests->Make();
      progress.hasSent = Send();
      if (_connection) Read();
    }
    return progress;
  }

 private:
  enum class Reading { kAtOnce, kSlowly, kNever };

  bool Is(double probability) { return std::bernoulli_distribution(probability)(_random); }

  bool Connect() {
    try {
      _connection.emplace(_port, Is(0.1) ? 4096 : 0);
    } catch (const std::exception&) {
      return false;  // the daemon has no place for it
    }
    _requests.emplace(_random);
    _unsent.clear();
    _reading = Is(0.9) ? Reading::kAtOnce : Is(0.5) ? Reading::kSlowly : Reading::kNever;
    return true;
  }

  void Leave() {
    if (Is(0.3)) {
      _connection->Reset();
    } else if (Is(0.3)) {
      _connection->HalfClose();
    } else if (Is(0.3)) {
      send(_connection->GetDescriptor(), "\nquit\n", 6, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    _connection.reset();
  }

  // Whether the request is sent to its end.
  bool Send() {
    size_t size = _unsent.size();
    if (Is(0.1)) size = std::uniform_int_distribution<size_t>(1, size)(_random);
    const ssize_t count = send(_connection->GetDescriptor(), _unsent.data(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN && errno != EINTR) _connection.reset();
    if (count > 0) _unsent.erase(0, static_cast<size_t>(count));
    return count > 0 && _unsent.empty();
  }

  void Read() {
    static thread_local std::vector<char> part(256 * 1024);
    if (_reading == Reading::kNever || (_reading == Reading::kSlowly && Is(0.9))) return;
    const size_t size = _reading == Reading::kSlowly ? 4096 : part.size();
    const ssize_t count = recv(_connection->GetDescriptor(), part.data(), size, MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) _connection.reset();
  }

  const unsigned short _port;
  std::mt19937& _random;
  std::optional<ProtocolClient> _connection;
  std::optional<RandomRequests> _requests;  // of the connection
  std::string _unsent;
  Reading _reading = Reading::kAtOnce;
};

}  // namespace

RandomClients::RandomClients(unsigned short port, size_t clients, unsigned int seed) {
  for (unsigned int i = 0; i < kThreads; ++i) _threads.emplace_back([=] { Run(port, clients / kThreads, seed + i); });
}

RandomClients::~RandomClients() {
  Stop();
}

void RandomClients::Stop() {
  _isStopping = true;
  for (std::thread& thread : _threads) thread.join();
  _threads.clear();
}

void RandomClients::Run(unsigned short port, size_t clients, unsigned int seed) {
  std::mt19937 random(seed);
  std::list<RandomClient> all;
  std::vector<RandomClient*> places;
  for (size_t i = 0; i < clients; ++i) places.push_back(&all.emplace_back(port, random));
  std::uniform_int_distribution<size_t> place(0, clients - 1);
  while (!_isStopping) {
    for (size_t i = 0; i < clients && !_isStopping; ++i) {
      const RandomClient::Progress progress = places[place(random)]->Step();
      _connections += progress.hasConnected ? 1 : 0;
      _requests += progress.hasSent ? 1 : 0;
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace tavix::test
