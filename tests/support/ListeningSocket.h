#pragma once

#include <string>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// A socket on 127.0.0.1, at a port that the kernel picks: the peer of a test, in plain system calls.
class ListeningSocket {
 public:
  // backlog: how many connections wait for Accept; kNotListening only occupies the port, so that a connect is refused.
  static constexpr int kNotListening = -1;
  explicit ListeningSocket(int backlog = 16);

  int GetDescriptor() const { return _socket.Get(); }
  unsigned short GetPort() const { return _port; }

  // The next connection.
  osa::Descriptor Accept() const;

 private:
  osa::Descriptor _socket;
  unsigned short _port = 0;
};

// Reads that many bytes, fewer at the end of the connection.
std::string Receive(const osa::Descriptor& peer, size_t count);

// Reads to the end of the connection.
std::string ReceiveAll(const osa::Descriptor& peer);

// What one recv(2) gets: at most 1 MiB, empty at the end of the connection.
std::string ReceiveOnce(const osa::Descriptor& peer);

// Writes all of it; false when the peer is gone.
bool Send(const osa::Descriptor& peer, const std::string& text);

}  // namespace tavix::test
