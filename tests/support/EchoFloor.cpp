#include "tests/support/EchoFloor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "tavix/osa/Descriptor.h"

namespace tavix::test {

struct EchoFloor::Sockets {
  Sockets() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("socketpair");
    asking = osa::Descriptor(ends[0]);
    answering = osa::Descriptor(ends[1]);
  }

  void Answer() const {
    char byte = 0;
    while (read(answering.Get(), &byte, 1) == 1 && write(answering.Get(), &byte, 1) == 1) continue;
  }

  std::string Ask() const {
    char byte = 'x';
    const bool isAnswered = write(asking.Get(), &byte, 1) == 1 && read(asking.Get(), &byte, 1) == 1;
    return isAnswered ? "" : "no echo";
  }

  void End() const { shutdown(answering.Get(), SHUT_RD); }

  osa::Descriptor asking;
  osa::Descriptor answering;
};

// The last byte is echoed before the echo ends: nobody has to be interrupted.
EchoFloor::EchoFloor()
    : _sockets(std::make_unique<const Sockets>()),
      _echo([this] { _sockets->Answer(); }),
      _calls(
          kUsualPause, [this] { return _sockets->Ask(); }, [] {}) {}

EchoFloor::~EchoFloor() {
  if (_echo.joinable()) Stop();
}

CallFigures EchoFloor::Stop() {
  const CallFigures figures = Summarise(_calls.Stop());
  _sockets->End();
  _echo.join();
  return figures;
}

}  // namespace tavix::test
