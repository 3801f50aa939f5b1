#include "tavix/osa/ServiceEndpoint.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>

#include "tavix/osa/EndpointText.h"
#include "tavix/osa/Exception.h"

namespace tavix::osa {

namespace {

constexpr char kLoopback[] = "::1:";

ServiceEndpoint UnixEndpoint(const std::string& path, const std::string& text, const std::string& source) {
  if (!IsSocketPath(path)) {
    throw Exception("%s: '%s' is not an endpoint: the path must have 1 to %zu bytes", source.c_str(), text.c_str(),
                    kMaxSocketPathBytes);
  }
  return {"", 0, path};
}

bool IsServiceLabel(const std::string& host) {
  return !host.empty() && host.find_first_of(".:") == std::string::npos;
}

std::string VariableNameFor(const std::string& label) {
  std::string name = label;
  std::transform(name.begin(), name.end(), name.begin(), [](char c) {
    if (c == '-') return '_';
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return name;
}

// "::1:7211" is an address as such, of those that were to hold one of version 4: nobody has one of these (RFC 4291,
// 2.5.5.1).
bool IsLoopbackWithPort(const std::string& text) {
  return text.compare(0, sizeof kLoopback - 1, kLoopback) == 0 && ParsePort(text.substr(sizeof kLoopback - 1));
}

unsigned short RequirePort(const std::string& text, const std::string& whole, const std::string& source) {
  const unsigned short port = ParsePort(text).value_or(0);
  if (port == 0) {
    throw Exception("%s: '%s' is not an endpoint: the port must be a number from 1 to 65535", source.c_str(),
                    whole.c_str());
  }
  return port;
}

// A line of the hosts database is an address and the names that it has; '#' starts a comment.
std::string FindInHosts(const char* path, const std::string& label) {
  std::ifstream hosts(path);
  for (std::string line; std::getline(hosts, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string address, name;
    words >> address;
    while (words >> name) {
      if (name == label) return address;
    }
  }
  return std::string();
}

ServiceEndpoint ParseEndpointOfVariable(const char* value, const std::string& variable) {
  try {
    return ParseEndpoint(value, variable);
  } catch (const Exception& exception) {
    throw EndpointException(exception.what());
  }
}

}  // namespace

ServiceEndpoint ParseEndpoint(const std::string& text, const std::string& source) {
  const std::optional<EndpointText> parts = SplitEndpoint(text);
  if (parts && parts->isUnix) return UnixEndpoint(parts->path, text, source);
  if (text.find('/') != std::string::npos || IsLoopbackWithPort(text)) {
    throw Exception("%s: '%s' is not an endpoint: %s", source.c_str(), text.c_str(), SuggestEndpoint(text).c_str());
  }
  if (!parts)
    throw Exception("%s: '%s' is not an endpoint: expected [ADDRESS] or [ADDRESS]:PORT", source.c_str(), text.c_str());
  ServiceEndpoint endpoint{parts->host, kDefaultServicePort};
  if (parts->port) endpoint.port = RequirePort(*parts->port, text, source);
  if (endpoint.host.empty()) throw Exception("%s: '%s' is not an endpoint: no host", source.c_str(), text.c_str());
  return endpoint;
}

ServiceEndpoint FindServiceEndpoint(const std::string& host, unsigned short port, const char* hostsDatabase) {
  if (const auto parts = SplitEndpoint(host); parts && parts->isUnix)
    return UnixEndpoint(parts->path, host, "Failed to connect");
  ServiceEndpoint endpoint{host, port};
  if (IsServiceLabel(host)) {
    const std::string variable = VariableNameFor(host);
    if (const char* value = std::getenv(variable.c_str())) return ParseEndpointOfVariable(value, variable);
    endpoint.host = FindInHosts(hostsDatabase, host);
    if (endpoint.host.empty()) endpoint.host = "127.0.0.1";
  }
  if (endpoint.port == 0) endpoint.port = kDefaultServicePort;
  return endpoint;
}

}  // namespace tavix::osa
