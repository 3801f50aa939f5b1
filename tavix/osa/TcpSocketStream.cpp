#include "tavix/osa/TcpSocketStream.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <locale>
#include <optional>

#include "tavix/osa/SocketStreamBuf.h"
#include "tavix/osa/SocketWatch.h"
#include "tavix/osa/TcpSocket.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

namespace {

// The kernel's own limit costs nothing per call; it takes 0 as "none".
void SetTimeout(const TcpSocket& socket, int option, unsigned int timeout) noexcept {
  timeval limit{};
  if (timeout != kWaitForever) {
    const unsigned int shortest = std::max(timeout, 1u);
    limit.tv_sec = static_cast<time_t>(shortest / 1000);
    limit.tv_usec = static_cast<suseconds_t>(shortest % 1000) * 1000;
  }
  setsockopt(socket.GetDescriptor(), SOL_SOCKET, option, &limit, sizeof limit);
}

}  // namespace

struct TcpSocketStream::State {
  explicit State(TcpSocket& tcpSocket)
      : socket(tcpSocket), output(tcpSocket), duplex(tcpSocket, output), ostream(&output) {}

  TcpSocket& socket;
  SocketOutputBuf output;
  SocketDuplexBuf duplex;
  std::ostream ostream;
  std::optional<SocketWatch> watch;
};

TcpSocketStream::TcpSocketStream(TcpSocket* socket, unsigned int timeout) : TcpSocketStream(socket, timeout, timeout) {}

TcpSocketStream::TcpSocketStream(TcpSocket* socket, unsigned int readTimeout, unsigned int writeTimeout)
    : std::iostream(nullptr), _state(std::make_unique<State>(*socket)) {
  rdbuf(&_state->duplex);
  imbue(std::locale::classic());
  _state->ostream.imbue(std::locale::classic());
  SetTimeout(*socket, SO_RCVTIMEO, readTimeout);
  SetWriteTimeout(writeTimeout);
}

void TcpSocketStream::SetWriteTimeout(unsigned int timeout) noexcept {
  SetTimeout(_state->socket, SO_SNDTIMEO, timeout);
  _state->output.SetTimeout(timeout);
}

InputWatch* TcpSocketStream::WatchInput() {
  std::optional<SocketWatch>& watch = _state->watch;
  if (!watch) {
    if (!watch.emplace(_state->socket.GetDescriptor()).IsInOrder()) {
      watch.reset();
      return nullptr;
    }
    _state->output.ResumeWhenFull(*watch);
  }
  return &*watch;
}

TcpSocketStream::~TcpSocketStream() = default;

std::ostream& TcpSocketStream::GetOstream() {
  return _state->ostream;
}

}  // namespace tavix::osa
