#pragma once

#include <atomic>
#include <memory>
#include <streambuf>
#include <vector>

#include "tavix/osa/Time.h"

namespace tavix::osa {

class InputWatch;
class TcpSocket;

// Writes to a socket: collects until it is synchronised, then sends. The buffer grows with the message and is given
// back when it has grown large.
//
// Threads: one at a time; SetTimeout and ResumeWhenFull any.
class SocketOutputBuf : public std::streambuf {
 public:
  explicit SocketOutputBuf(TcpSocket& socket) : _socket(socket) {}

  // How long a write waits for room, in milliseconds; kWaitForever, as at first: for ever.
  void SetTimeout(unsigned int timeout) { _timeout.store(timeout, std::memory_order_relaxed); }

  // Before a write waits for room, the watch is resumed: the peer may make room only once its output is read.
  void ResumeWhenFull(InputWatch& watch) { _watch = &watch; }

 protected:
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;
  int sync() override;

 private:
  bool Grow(size_t atLeast);
  bool SendAll(const char* bytes, size_t count);
  bool AwaitRoom() const;
  size_t Pending() const { return static_cast<size_t>(pptr() - pbase()); }

  TcpSocket& _socket;
  std::vector<char> _buffer;
  bool _failed = false;
  std::atomic<unsigned int> _timeout{kWaitForever};
  std::atomic<InputWatch*> _watch{nullptr};
};

// Reads from a socket; what is written to it goes on to the output side. The buffer grows while the peer fills it.
//
// Threads: one at a time, which may be another one than the output side's as long as it writes nothing.
class SocketDuplexBuf : public std::streambuf {
 public:
  SocketDuplexBuf(TcpSocket& socket, SocketOutputBuf& output) : _socket(socket), _output(output) {}

 protected:
  int_type underflow() override;
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;
  int sync() override;

 private:
  TcpSocket& _socket;
  SocketOutputBuf& _output;
  std::unique_ptr<char[]> _buffer;
  size_t _capacity = 0;
  size_t _lastRead = 0;
};

}  // namespace tavix::osa
