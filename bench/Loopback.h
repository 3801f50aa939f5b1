#pragma once

#include "bench/Descriptor.h"

namespace tavix::bench {

// A listening loopback socket on a port that the kernel picks.
class LoopbackListener {
 public:
  LoopbackListener();

  int GetPort() const { return _port; }
  const Descriptor& GetDescriptor() const { return _descriptor; }

  // The next connection, without Nagle's delay.
  Descriptor Accept() const;

 private:
  Descriptor _descriptor;
  int _port;
};

// A connection without Nagle's delay.
Descriptor ConnectToLoopback(int port);

}  // namespace tavix::bench
