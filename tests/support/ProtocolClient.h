#pragma once

#include <string>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

// One connection to a daemon, in plain blocking system calls. It knows next to nothing of the protocol: what it sends
// and what it reads are bytes. What is sent leaves at once, in packets of its own.
//
// Errors: what waits for kPatience, and sending to a peer that is gone, throws std::runtime_error.
class ProtocolClient {
 public:
  // receiveBuffer: a wish for the kernel, 0 for its default.
  explicit ProtocolClient(unsigned short port, int receiveBuffer = 0);

  // address: HOST:PORT or [V6]:PORT, in figures, or unix:PATH, as the daemon prints it.
  explicit ProtocolClient(const std::string& address, int receiveBuffer = 0);

  void Send(const std::string& text);

  // The same; false when the peer is gone or takes nothing.
  bool TrySend(const std::string& text);

  // That many bytes.
  std::string Read(size_t count);

  // What comes up to the first line feed, or that text, included.
  std::string ReadLine() { return ReadUntil("\n"); }
  std::string ReadUntil(const std::string& ending);

  // What comes up to the end of the connection. A reset is an end, too.
  std::string ReadToEnd();

  // What is there within that time; empty at the end of the connection, too.
  std::string ReadFor(int milliseconds);

  // Asks for groups, names or patterns with a line feed each, and returns the whole reply.
  std::string Get(const std::string& groups);

  // Returns when all requests so far were carried out. Nothing else may be on its way to the client.
  void AwaitHandled();

  // No more will be sent; what comes can still be read. The peer may be gone already.
  void HalfClose();

  // Ends the connection without a farewell, by a reset.
  void Reset();

  void Close() { _socket.Reset(); }

  // For what only the kernel can do with it. WaitForEver takes the limits of time off it.
  int GetDescriptor() const { return _socket.Get(); }
  void WaitForEver();

 private:
  void Connect(const std::string& host, const std::string& port, int receiveBuffer);
  void ConnectToPath(const std::string& path);
  bool Receive();

  osa::Descriptor _socket;
  std::string _received;  // and not yet asked for
};

// A whole connection: sends that, says that no more comes, and returns all that the daemon sends until it closes.
std::string Converse(unsigned short port, const std::string& requests);

}  // namespace tavix::test
