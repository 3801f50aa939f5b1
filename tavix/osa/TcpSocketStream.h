#pragma once

#include <iostream>
#include <memory>

namespace tavix::osa {

class InputWatch;
class TcpSocket;

// A connected socket as standard streams.
//
// The stream itself reads; GetOstream() writes. Both are imbued with the classic locale. What is written leaves with
// the next flush, in one piece where the system takes it; a large message leaves in parts.
//
// Threads: the two share no state: one thread may read while others, one at a time, write. (The stream can also write
//          by itself, for one thread that does both.)
// Errors:  the end of the connection, a failed read and a failed write set the stream's state; nothing is thrown and no
//          SIGPIPE is raised. A write that fails or makes no progress for the time given shuts the socket down, so that
//          a reader wakes.
class TcpSocketStream : public std::iostream {
 public:
  // socket: connected, borrowed, outlives the stream. timeout: milliseconds that a read or a write may go without
  // progress; kWaitForever sets no limit.
  TcpSocketStream(TcpSocket* socket, unsigned int timeout);

  // As above with a limit of its own for each direction.
  TcpSocketStream(TcpSocket* socket, unsigned int readTimeout, unsigned int writeTimeout);

  // For writes from now on. Any thread may call.
  void SetWriteTimeout(unsigned int timeout) noexcept;

  // Watches the input; a write that has to wait for the peer resumes the watch. It is made by the first call, on the
  // thread that reads, and lives as long as the stream. Null when the system has no descriptors or no memory left.
  InputWatch* WatchInput();

  // Writes nothing: what was not flushed is gone.
  ~TcpSocketStream() override;

  // Lives as long as the stream.
  std::ostream& GetOstream();

 private:
  struct State;
  std::unique_ptr<State> _state;
};

}  // namespace tavix::osa
