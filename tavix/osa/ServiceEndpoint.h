#pragma once

#include <string>

#include "tavix/osa/Exception.h"

namespace tavix::osa {

// The environment variable of a service holds a text that can't be an endpoint, whatever becomes of the system.
// A plain value.
class EndpointException : public Exception {
 public:
  explicit EndpointException(const std::string& text) : Exception(text) {}
};

// Where a service is reached. A plain value.
struct ServiceEndpoint {
  std::string host;         // a numeric address, or a name for the system's resolver
  unsigned short port = 0;  // in host byte order
  std::string path = {};    // of a unix socket; then there is neither host nor port
};

// The port of a service that nobody gave another one.
constexpr unsigned short kDefaultServicePort = 7211;

// Finds the endpoint of "host". A service label (one word without dots or colons, for example "tavix-settings-server")
// is reached, the first that applies:
//   1. where the environment variable named after it says (upper case, '-' as '_'): HOST, HOST:PORT, [V6]:PORT, V6 or
//      unix:PATH;
//   2. at the address that the hosts database gives the label;
//   3. at 127.0.0.1.
// unix:PATH is a unix socket. Anything else is taken as it is. Port 0, or none in the variable, is kDefaultServicePort.
//
// Throws EndpointException, which names the variable and its value, when the variable can't be parsed. The environment
// and the hosts database are read at each call.
ServiceEndpoint FindServiceEndpoint(const std::string& host, unsigned short port,
                                    const char* hostsDatabase = "/etc/hosts");

// Parses the variable's value; "source" names it in the error text.
ServiceEndpoint ParseEndpoint(const std::string& text, const std::string& source);

}  // namespace tavix::osa
