#include "tavix/osa/EndpointText.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>

namespace tavix::osa {

namespace {

constexpr char kUnix[] = "unix:";
constexpr size_t kUnixSize = sizeof kUnix - 1;
constexpr size_t kMaxPortDigits = 5;
constexpr unsigned long kMaxPort = 65535;

std::optional<EndpointText> SplitBracketed(const std::string& text) {
  const size_t close = text.find(']');
  if (close == std::string::npos) return std::nullopt;
  EndpointText parts;
  parts.host = text.substr(1, close - 1);
  if (close + 1 == text.size()) return parts;
  if (text[close + 1] != ':') return std::nullopt;
  parts.port = text.substr(close + 2);
  return parts;
}

bool IsVersion6(const std::string& host) {
  in6_addr address{};
  return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

}  // namespace

std::optional<EndpointText> SplitEndpoint(const std::string& text) {
  EndpointText parts;
  if (text.compare(0, kUnixSize, kUnix) == 0) {
    parts.isUnix = true;
    parts.path = text.substr(kUnixSize);
    return parts;
  }
  if (!text.empty() && text.front() == '[') return SplitBracketed(text);
  const size_t colon = text.find(':');
  const bool hasPort = std::count(text.begin(), text.end(), ':') == 1;  // more than one: a bare IPv6 address
  parts.host = hasPort ? text.substr(0, colon) : text;
  if (hasPort) parts.port = text.substr(colon + 1);
  return parts;
}

std::string SuggestEndpoint(const std::string& text) {
  if (text.compare(0, kUnixSize, kUnix) == 0) return "";
  const size_t colon = text.rfind(':');
  if (const size_t slash = text.find('/'); slash != std::string::npos)
    return slash > 0 && text.front() != '.' && colon != std::string::npos ? "no URL: HOST:PORT"
                                                                          : "a path? unix:" + text;
  if (colon == std::string::npos || !IsVersion6(text.substr(0, colon)) || !ParsePort(text.substr(colon + 1))) return "";
  return "a port? [" + text.substr(0, colon) + "]" + text.substr(colon);
}

bool IsSocketPath(const std::string& path) {
  return !path.empty() && path.size() <= kMaxSocketPathBytes && path.find('\0') == std::string::npos;
}

std::optional<unsigned short> ParsePort(const std::string& text) {
  const bool isNumber =
      !text.empty() && text.size() <= kMaxPortDigits && text.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long port = isNumber ? std::strtoul(text.c_str(), nullptr, 10) : kMaxPort + 1;
  return port <= kMaxPort ? std::make_optional(static_cast<unsigned short>(port)) : std::nullopt;
}

}  // namespace tavix::osa
