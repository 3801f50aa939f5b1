#pragma once

#include <memory>

namespace tavix::osa {

// One end of a TCP connection, or of a connection through a unix socket. Its descriptor is closed on exec and by the
// destructor; a dead peer is found within two minutes; small messages leave at once (TCP_NODELAY).
//
// Threads: Connect belongs to one thread; Shutdown may be called from any thread while others read and write.
class TcpSocket {
 public:
  // An unconnected client socket. port: a number for the owner's use; nothing is bound to it.
  explicit TcpSocket(unsigned short port);

  // Takes over a connected descriptor, for example an accepted one, and sets it up as above. When it throws, the
  // descriptor is still the caller's.
  static std::unique_ptr<TcpSocket> Adopt(int descriptor);

  ~TcpSocket();

  TcpSocket(const TcpSocket&) = delete;
  TcpSocket& operator=(const TcpSocket&) = delete;

  // Connects to "host", found by FindServiceEndpoint, trying each of its addresses in the time given; unix:PATH is a
  // unix socket.
  // timeout: milliseconds; less than a second counts as a second, kWaitForever leaves it to the system.
  // Throws Exception that names host and port, or path, and the reason; the socket then is unconnected and may try
  // again.
  void Connect(const char* host, unsigned short port, unsigned int timeout);

  // Ends both directions: readers see the end of the connection, writers fail. Harmless when not connected.
  void Shutdown() noexcept;

  // -1 when not connected.
  int GetDescriptor() const { return _descriptor; }

 private:
  struct AdoptTag {};
  TcpSocket(AdoptTag, int descriptor);

  void Close() noexcept;

  int _descriptor = -1;
};

}  // namespace tavix::osa
