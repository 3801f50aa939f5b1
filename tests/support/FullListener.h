#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <stdexcept>
#include <vector>

#include "tavix/osa/Descriptor.h"
#include "tests/support/ListeningSocket.h"

namespace tavix::test {

// A peer whose queue of connections is full answers nothing: connects to it end by their limit alone.
class FullListener {
 public:
  static constexpr int kFillers = 3;  // the connections that fill its queue, until there is room

  FullListener() : _listener(0) {
    for (int i = 0; i < kFillers; ++i) {
      _fillers.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address.sin_port = htons(_listener.GetPort());
      (void)connect(_fillers.back().Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
      if (i == 0) AwaitFirst();
    }
  }

  unsigned short GetPort() const { return _listener.GetPort(); }

  // From now on it answers: a connect that still tries gets through.
  void MakeRoom() {
    _fillers.clear();
    (void)_listener.Accept();
  }

 private:
  // There is room until the first connection is in the queue.
  void AwaitFirst() const {
    pollfd wait{_listener.GetDescriptor(), POLLIN, 0};
    if (poll(&wait, 1, -1) != 1) throw std::runtime_error("No connection came");
  }

  ListeningSocket _listener;
  std::vector<osa::Descriptor> _fillers;
};

}  // namespace tavix::test
