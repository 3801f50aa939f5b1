#include "tavix/osa/TcpSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tavix/osa/ConnectEndpoint.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/ServiceEndpoint.h"
#include "tavix/osa/Time.h"

namespace tavix::osa {

namespace {

constexpr unsigned int kShortestTimeout = 1000;

}  // namespace

TcpSocket::TcpSocket(unsigned short) {}

TcpSocket::TcpSocket(AdoptTag, int descriptor) : _descriptor(descriptor) {
  const int flags = fcntl(descriptor, F_GETFD);
  if (flags >= 0) fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
  SetUpConnection(descriptor);
}

std::unique_ptr<TcpSocket> TcpSocket::Adopt(int descriptor) {
  return std::unique_ptr<TcpSocket>(new TcpSocket(AdoptTag{}, descriptor));
}

TcpSocket::~TcpSocket() {
  Close();
}

void TcpSocket::Connect(const char* host, unsigned short port, unsigned int timeout) {
  Close();
  const Deadline deadline(std::max(timeout, kShortestTimeout));
  const ServiceEndpoint endpoint = FindServiceEndpoint(host ? host : "", port);
  const ConnectResult result = ConnectEndpoint(endpoint, deadline);
  _descriptor = result.descriptor;
  if (_descriptor >= 0) return;
  if (!endpoint.path.empty())
    throw Exception("Failed to connect to unix:%s: %s", endpoint.path.c_str(), result.reason.c_str());
  throw Exception("Failed to connect to %s port %u: %s", endpoint.host.c_str(), unsigned{endpoint.port},
                  result.reason.c_str());
}

void TcpSocket::Shutdown() noexcept {
  if (_descriptor >= 0) shutdown(_descriptor, SHUT_RDWR);
}

void TcpSocket::Close() noexcept {
  if (_descriptor >= 0) close(_descriptor);
  _descriptor = -1;
}

}  // namespace tavix::osa
