#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "tavix/osa/Descriptor.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

// Stands between a client and a server on 127.0.0.1, and does to their connections what networks do.
//
// Threads: any; a thread of its own carries the bytes.
class TcpProxy {
 public:
  enum class Mode {
    kPass,     // bytes go on as they come
    kDribble,  // bytes go on one by one
    kStall,    // connections are accepted and stay, and no byte goes on
    kRefuse,   // connections are closed as soon as they are accepted
  };

  // target: the server's port.
  explicit TcpProxy(unsigned short target);
  ~TcpProxy();

  TcpProxy(const TcpProxy&) = delete;
  TcpProxy& operator=(const TcpProxy&) = delete;

  unsigned short GetPort() const { return _listener.GetPort(); }

  // Of those there are and those that come. kPass and kDribble also send what was held up.
  void SetMode(Mode mode);

  // Closes the connections there are.
  void CutAll();

  // Ends what goes from the servers to the clients of the connections there are; the other direction goes on.
  void HalfCloseAll();

  // Connections accepted so far.
  std::size_t GetAcceptedCount() const { return _accepted; }

  // Bytes that were carried so far, of both directions.
  std::size_t GetByteCount() const { return _bytes; }

 private:
  // What goes from one socket to the other.
  struct Direction {
    std::string held;
    bool hasEnded = false;  // nothing more comes
  };
  struct Pair {
    osa::Descriptor client;
    osa::Descriptor server;
    Direction up;    // to the server
    Direction down;  // to the client
  };

  void Run();
  void RunRound(Mode mode);
  void Accept(Mode mode);
  bool Carry(Pair& pair, Mode mode);
  bool Move(const osa::Descriptor& from, const osa::Descriptor& to, Direction& direction, Mode mode);
  void Wake() const;

  const unsigned short _target;
  ListeningSocket _listener;
  osa::Descriptor _wake;
  std::atomic<std::size_t> _accepted{0};
  std::atomic<std::size_t> _bytes{0};
  std::mutex _mutex;  // guards what follows
  Mode _mode = Mode::kPass;
  bool _isEnding = false;
  std::list<Pair> _pairs;
  std::thread _thread;
};

}  // namespace tavix::test
