#pragma once

#include <cstdint>

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/InputWatch.h"

namespace tavix::osa {

// Watches the input of a socket. Takes two descriptors.
//
// Threads: as InputWatch.
class SocketWatch final : public InputWatch {
 public:
  // socket: outlives the watch.
  explicit SocketWatch(int socket);
  ~SocketWatch();

  SocketWatch(const SocketWatch&) = delete;
  SocketWatch& operator=(const SocketWatch&) = delete;

  // False when the system had no descriptor or no memory left: then it is good for nothing.
  bool IsInOrder() const { return _isInOrder; }

  bool Await() noexcept override;
  void Pause() noexcept override;
  void Resume() noexcept override;
  void Wake() noexcept override;

 private:
  bool Control(int operation, int descriptor, uint32_t events) noexcept;

  const int _socket;
  const Descriptor _watch;  // of epoll(7)
  const Descriptor _waker;  // of eventfd(2)
  const bool _isInOrder;
};

}  // namespace tavix::osa
