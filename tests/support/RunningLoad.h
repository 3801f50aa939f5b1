#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <thread>

#include "tests/support/Loads.h"
#include "tests/support/ProtocolClient.h"

namespace tavix::test {

// The clients of a load at work, from the construction to the end. They don't mind what the daemon does to them: who is
// cut comes again, and the end of the daemon ends nothing here.
//
// Threads: one for all subscribers, and one for each client that sends again and again.
// Errors:  the construction throws what ProtocolClient throws.
class RunningLoad {
 public:
  // Returns when all that is subscribed before the load begins is subscribed. load: copied.
  RunningLoad(const Load& load, unsigned short port);

  // Ends what is left of it.
  ~RunningLoad();

  RunningLoad(const RunningLoad&) = delete;
  RunningLoad& operator=(const RunningLoad&) = delete;

  // How many requests have been answered so far, or were ended with their connection. A client that leaves counts when
  // it has left.
  size_t CountDone() const { return _done; }

  // Has every client stop where it is; returns when none is left.
  void Stop();

 private:
  void Subscribe(const LoadClients& clients);
  void ReadNotices();
  void Repeat(const LoadClients& clients, size_t client);
  void RepeatOnOneConnection(const LoadClients& clients, size_t client, size_t& round);
  void Leave(const LoadClients& clients, size_t client);
  bool Send(const ProtocolClient& connection, const std::string& text, bool isPatient);
  bool AwaitReply(const ProtocolClient& connection);

  const Load _load;
  const unsigned short _port;
  std::atomic<size_t> _done{0};
  std::atomic<bool> _isStopping{false};
  std::list<ProtocolClient> _subscribers;  // read by their thread once it runs
  std::list<std::thread> _threads;
};

}  // namespace tavix::test
