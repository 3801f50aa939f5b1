#pragma once

#include "bench/DescriptorIo.h"

namespace tavix::bench {

// A listening loopback socket on a port that the kernel picks.
class LoopbackListener {
 public:
  LoopbackListener();

  int GetPort() const { return _port; }
  const osa::Descriptor& GetDescriptor() const { return _descriptor; }

  // The next connection, without Nagle's delay.
  osa::Descriptor Accept() const;

 private:
  osa::Descriptor _descriptor;
  int _port;
};

// A connection without Nagle's delay.
osa::Descriptor ConnectToLoopback(int port);

}  // namespace tavix::bench
