#include "tavix/osa/ServiceEndpoint.h"

#include <sys/un.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tavix/osa/Exception.h"

namespace tavix::osa {

namespace {

constexpr char kUnix[] = "unix:";
constexpr size_t kUnixSize = sizeof kUnix - 1;
constexpr size_t kLongestPath = sizeof(sockaddr_un::sun_path) - 1;

bool IsUnix(const std::string& text) {
  return text.compare(0, kUnixSize, kUnix) == 0;
}

ServiceEndpoint ParseUnix(const std::string& text, const std::string& source) {
  const std::string path = text.substr(kUnixSize);
  if (path.empty() || path.size() > kLongestPath) {
    throw Exception("%s: '%s' is not an endpoint: the path must have 1 to %zu bytes", source.c_str(), text.c_str(),
                    kLongestPath);
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

unsigned short ParsePort(const std::string& text, const std::string& whole, const std::string& source) {
  const bool digits = !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long port = digits ? std::strtoul(text.c_str(), nullptr, 10) : 0;
  if (port < 1 || port > 65535) {
    throw Exception("%s: '%s' is not an endpoint: the port must be a number from 1 to 65535", source.c_str(),
                    whole.c_str());
  }
  return static_cast<unsigned short>(port);
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

}  // namespace

ServiceEndpoint ParseEndpoint(const std::string& text, const std::string& source) {
  if (IsUnix(text)) return ParseUnix(text, source);
  ServiceEndpoint endpoint{text, kDefaultServicePort};
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':'))
      throw Exception("%s: '%s' is not an endpoint: expected [ADDRESS] or [ADDRESS]:PORT", source.c_str(),
                      text.c_str());
    endpoint.host = text.substr(1, close - 1);
    if (close + 1 < text.size()) endpoint.port = ParsePort(text.substr(close + 2), text, source);
  } else if (std::count(text.begin(), text.end(), ':') == 1) {  // more than one: a bare IPv6 address
    const size_t colon = text.find(':');
    endpoint.host = text.substr(0, colon);
    endpoint.port = ParsePort(text.substr(colon + 1), text, source);
  }
  if (endpoint.host.empty()) throw Exception("%s: '%s' is not an endpoint: no host", source.c_str(), text.c_str());
  return endpoint;
}

ServiceEndpoint FindServiceEndpoint(const std::string& host, unsigned short port, const char* hostsDatabase) {
  if (IsUnix(host)) return ParseUnix(host, "Failed to connect");
  ServiceEndpoint endpoint{host, port};
  if (IsServiceLabel(host)) {
    const std::string variable = VariableNameFor(host);
    if (const char* value = std::getenv(variable.c_str())) return ParseEndpoint(value, variable);
    endpoint.host = FindInHosts(hostsDatabase, host);
    if (endpoint.host.empty()) endpoint.host = "127.0.0.1";
  }
  if (endpoint.port == 0) endpoint.port = kDefaultServicePort;
  return endpoint;
}

}  // namespace tavix::osa
