#pragma once

#include <unistd.h>

#include <string>

namespace tavix::test {

// An address of loopback, without a port, that no other process uses at the same time: nobody takes a port there that a
// test gives up for a moment.
inline std::string OwnLoopbackAddress() {
  const pid_t id = getpid();
  return "127." + std::to_string(1 + (id >> 16 & 0x7f)) + "." + std::to_string(id >> 8 & 0xff) + "." +
         std::to_string(id & 0xff);
}

}  // namespace tavix::test
