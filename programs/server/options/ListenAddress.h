#pragma once

#include <string>

namespace tavix::daemon {

// Where to listen: a TCP port or a unix socket.
struct ListenAddress {
  std::string text;  // as given
  std::string host;  // empty for a unix socket
  std::string port;
  std::string path;  // of the unix socket
};

// Understands HOST:PORT, [V6]:PORT and unix:PATH. Throws osa::Exception with what was expected.
ListenAddress ParseListenAddress(const std::string& text);

}  // namespace tavix::daemon
