#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <thread>

namespace tavix::test {

// Many clients that send random requests inside the daemon's bounds: in one piece or in many, reading at once, slowly
// or not at all, staying or leaving in the middle. Whoever has left, or was cut, comes again.
//
// What they send depends on the seed alone; what the daemon has seen of it at a time depends on the machine, too.
//
// Threads: a few, each of which has its share of the clients.
class RandomClients {
 public:
  RandomClients(unsigned short port, size_t clients, unsigned int seed);

  // Stops them.
  ~RandomClients();

  RandomClients(const RandomClients&) = delete;
  RandomClients& operator=(const RandomClients&) = delete;

  // So far, by all together.
  size_t CountRequests() const { return _requests; }  // that were sent whole
  size_t CountConnections() const { return _connections; }

  // Ends their connections where they are.
  void Stop();

 private:
  void Run(unsigned short port, size_t clients, unsigned int seed);

  std::atomic<size_t> _requests{0};
  std::atomic<size_t> _connections{0};
  std::atomic<bool> _isStopping{false};
  std::list<std::thread> _threads;
};

}  // namespace tavix::test
