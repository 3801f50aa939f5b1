#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/DaemonProcess.h"
#include "tests/support/Patience.h"
#include "tests/support/ProtocolClient.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// The daemon in a directory, on a port of loopback that the kernel picks. Arguments name files relative to the
// directory. At its end it has the time that a busy disk needs, and it reads no settings that are installed on the
// machine, unless they say otherwise.
class Daemon : public DaemonProcess {
 public:
  explicit Daemon(const TemporaryDirectory& directory, const std::vector<std::string>& arguments = {},
                  const ProcessLimits& limits = {})
      : DaemonProcess(TAVIX_SERVER_PROGRAM, directory.GetPath(), Complete(arguments), limits) {}

 private:
  static std::vector<std::string> Complete(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--defaults-dir", "nothing-installed", "--restricted-dir", "nothing-installed",
                                         "--stop-timeout", std::to_string(kPatience.count() / 2)});
    arguments.insert(arguments.end(), {"--listen", "127.0.0.1:0"});
    return arguments;
  }
};

// A whole connection whose requests have no replies, however long they take together.
inline void CarryOut(unsigned short port, const std::string& requests) {
  ProtocolClient client(port);
  client.WaitForEver();
  client.Send(requests);
  client.HalfClose();
  if (!client.ReadToEnd().empty()) throw std::runtime_error("There is a reply");
}

inline size_t CountOf(const std::string& part, const std::string& text) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
  return count;
}

}  // namespace tavix::test
