#pragma once

#include <sys/un.h>

#include <cstddef>
#include <optional>
#include <string>

#include "tavix/osa/Export.h"

namespace tavix::osa {

// An endpoint as people write it, taken apart: unix:PATH, HOST, HOST:PORT, [V6], [V6]:PORT or a bare V6. Which parts
// there have to be, and what they may be, is decided by the reader. A plain value.
struct EndpointText {
  bool isUnix = false;
  std::string path = {};  // of a unix socket; then there is neither host nor port
  std::string host = {};
  std::optional<std::string> port = {};
};

// The max length of a unix socket's path.
constexpr size_t kMaxSocketPathBytes = sizeof(sockaddr_un::sun_path) - 1;

// None for a bracket that is not closed, and for something else than a port behind it.
TAVIX_DAEMON_EXPORT std::optional<EndpointText> SplitEndpoint(const std::string& text);

// What was probably meant by a text that is no endpoint, for an error text: "a path? unix:/run/x". Empty: nobody knows.
TAVIX_DAEMON_EXPORT std::string SuggestEndpoint(const std::string& text);

// Whether a unix socket can have that path.
TAVIX_DAEMON_EXPORT bool IsSocketPath(const std::string& path);

// None for what is no number from 0 to 65535.
TAVIX_DAEMON_EXPORT std::optional<unsigned short> ParsePort(const std::string& text);

}  // namespace tavix::osa
