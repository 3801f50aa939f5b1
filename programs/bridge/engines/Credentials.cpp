#include "programs/bridge/engines/Credentials.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tavix/osa/Descriptor.h"
#include "tavix/osa/Exception.h"

namespace tavix::bridge {

namespace {

constexpr off_t kMaxSize = 64 * 1024;

[[noreturn]] void Refuse(const std::string& file, const char* why) {
  throw osa::Exception("Refused the credentials in '%s': %s", file.c_str(), why);
}

osa::Descriptor OpenSecret(const std::string& file) {
  osa::Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!descriptor || fstat(descriptor.Get(), &status) != 0) Refuse(file, std::strerror(errno));
  if (!S_ISREG(status.st_mode)) Refuse(file, "it is no regular file");
  if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0) Refuse(file, "others may read or write it; chmod o-rw helps");
  if (status.st_size > kMaxSize) Refuse(file, "it is larger than 64 KiB");
  return descriptor;
}

std::string ReadAll(const osa::Descriptor& descriptor, const std::string& file) {
  std::string text;
  char part[4096];
  ssize_t count;
  while ((count = read(descriptor.Get(), part, sizeof part)) != 0) {
    if (count < 0) Refuse(file, std::strerror(errno));
    text.append(part, static_cast<size_t>(count));
  }
  return text;
}

// Errors never show a line: it may be a password behind a slip.
bool TakeLine(const std::string& line, Credentials& credentials) {
  const std::size_t equals = line.find('=');
  if (line.empty() || line[0] == '#') return true;
  if (equals == std::string::npos) return false;
  const std::string name = line.substr(0, equals);
  const std::string value = line.substr(equals + 1);
  const std::pair<const char*, std::string*> places[] = {{"user", &credentials.user},
                                                         {"password", &credentials.password},
                                                         {"certificate", &credentials.certificate},
                                                         {"key", &credentials.key}};
  for (const auto& [key, place] : places) {
    if (name != key) continue;
    *place = value;
    return true;
  }
  return false;
}

// The kernel leaves out what this says, also for a program that the dump is piped into, which no limit stops.
void ForbidCoreDumps() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  const osa::Descriptor filter(open("/proc/self/coredump_filter", O_WRONLY | O_CLOEXEC));
  if (filter) [[maybe_unused]]
    const ssize_t ignored = write(filter.Get(), "0", 1);
}

}  // namespace

Credentials ReadCredentials(const std::string& file) {
  Credentials credentials;
  if (file.empty()) return credentials;
  ForbidCoreDumps();
  const std::string text = ReadAll(OpenSecret(file), file);
  int line = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    if (!TakeLine(text.substr(at, end - at), credentials))
      Refuse(file, ("line " + std::to_string(line + 1) + " is none of user=, password=, certificate=, key=").c_str());
    at = end + 1;
    ++line;
  }
  // Throws where others may read the key as well.
  if (!credentials.key.empty()) OpenSecret(credentials.key);
  return credentials;
}

bool IsLoopback(const std::string& host) {
  in_addr four{};
  in6_addr six{};
  if (host == "localhost") return true;
  if (inet_pton(AF_INET, host.c_str(), &four) == 1) return (ntohl(four.s_addr) >> 24) == 127;
  return inet_pton(AF_INET6, host.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

}  // namespace tavix::bridge
