#pragma once

#include <memory>
#include <thread>

#include "tests/support/PacedCalls.h"

namespace tavix::test {

// What the machine allows at the time: a thread that sends back each byte that another one sends, at the pace of
// PacedCalls. Limits of time are above what this takes.
class EchoFloor {
 public:
  EchoFloor();
  ~EchoFloor();

  EchoFloor(const EchoFloor&) = delete;
  EchoFloor& operator=(const EchoFloor&) = delete;

  // Ends it. Once.
  CallFigures Stop();

 private:
  struct Sockets;

  const std::unique_ptr<const Sockets> _sockets;
  std::thread _echo;
  PacedCalls _calls;
};

}  // namespace tavix::test
