#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>

#include "bench/DescriptorIo.h"
#include "bench/Loopback.h"
#include "bench/OwnProcess.h"
#include "bench/Placement.h"

namespace tavix::bench {

// How many bytes go to and fro in one exchange.
struct ExchangeSize {
  size_t request;
  size_t reply;
};

// The least that a server can do: a process of its own that takes requests of one size on a loopback port and answers
// each with bytes of another size, without looking at either.
class FloorServer {
 public:
  // core: the only one that it may use.
  static FloorServer WithThreadPerConnection(ExchangeSize size, int core = kAnyCore);
  static FloorServer WithEventLoop(ExchangeSize size);

  // Passes each request of its first connection on as one message to each of the next "receivers" connections.
  static FloorServer Relay(ExchangeSize size, int receivers, int core);

  pid_t GetId() const { return _process->GetId(); }
  osa::Descriptor Connect() const { return ConnectToLoopback(_port); }

 private:
  using Serve = std::function<void(const LoopbackListener&)>;

  FloorServer(int core, const Serve& serve);

  int _port;
  std::unique_ptr<OwnProcess> _process;
};

}  // namespace tavix::bench
