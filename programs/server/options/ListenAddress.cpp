#include "programs/server/options/ListenAddress.h"

#include <sys/un.h>

#include "tavix/osa/Exception.h"

namespace tavix::daemon {

namespace {

constexpr char kUnix[] = "unix:";
constexpr size_t kUnixSize = sizeof kUnix - 1;
constexpr size_t kLongestPath = sizeof(sockaddr_un::sun_path) - 1;

ListenAddress ParseUnix(const std::string& text) {
  const std::string path = text.substr(kUnixSize);
  if (path.empty() || path.size() > kLongestPath || path.find('\0') != std::string::npos)
    throw osa::Exception("expected unix: and a path of at most %zu bytes", kLongestPath);
  return {text, "", "", path};
}

}  // namespace

ListenAddress ParseListenAddress(const std::string& text) {
  if (text.compare(0, kUnixSize, kUnix) == 0) return ParseUnix(text);
  const size_t colon = text.rfind(':');
  const bool bracketed = !text.empty() && text.front() == '[';
  const bool wellFormed = colon != std::string::npos && colon > 0 && colon + 1 < text.size() &&
                          (bracketed ? text[colon - 1] == ']' : text.find(':') == colon) &&
                          text.find_first_not_of("0123456789", colon + 1) == std::string::npos &&
                          text.size() - colon <= 6 && std::stoul(text.substr(colon + 1)) <= 65535;
  if (!wellFormed) throw osa::Exception("expected HOST:PORT, [V6]:PORT or unix:PATH");
  return {text, bracketed ? text.substr(1, colon - 2) : text.substr(0, colon), text.substr(colon + 1), ""};
}

}  // namespace tavix::daemon
