#pragma once

#include <sys/types.h>

#include "tests/support/ProtocolClient.h"

namespace tavix::test {

// A process of its own that reads a connection to its end and drops what it reads: a client that can be stopped as an
// operator stops one.
//
// Threads: made on the test's main thread: the child is killed when the thread that made it ends.
class ReaderProcess {
 public:
  // client: handed over; nothing of what it received may be left unread.
  explicit ReaderProcess(ProtocolClient client);

  // Kills the process.
  ~ReaderProcess();

  ReaderProcess(const ReaderProcess&) = delete;
  ReaderProcess& operator=(const ReaderProcess&) = delete;

  // Stops it by SIGSTOP; returns once it stands.
  void Stop();

  // Lets it go on and waits until it has found the connection's end.
  void AwaitEnd();

 private:
  pid_t _id;
};

}  // namespace tavix::test
