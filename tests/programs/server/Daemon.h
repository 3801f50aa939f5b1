#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "programs/server/options/Limits.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/Patience.h"
#include "tests/support/ProtocolClient.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// The daemon that is tested: the one of this build, or the one that the environment names, built for another processor
// that runs here as well.
inline const char* ServerProgram() {
  const char* const given = std::getenv("TAVIX_TEST_SERVER");
  return given ? given : TAVIX_SERVER_PROGRAM;
}

// The daemon in a directory, on a port of loopback that the kernel picks. Arguments name files relative to the
// directory. At its end it has the time that a busy disk needs, it reads no settings that are installed on the machine,
// and its bounds do not depend on the machine's memory, unless they say otherwise.
class Daemon : public DaemonProcess {
 public:
  explicit Daemon(const TemporaryDirectory& directory, const std::vector<std::string>& arguments = {},
                  const ProcessLimits& limits = {})
      : DaemonProcess(ServerProgram(), directory.GetPath(), Complete(arguments), limits) {}

 private:
  static std::vector<std::string> Complete(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--defaults-dir", "nothing-installed", "--restricted-dir", "nothing-installed",
                                         "--stop-timeout", std::to_string(kPatience.count() / 2)});
    const daemon::Limits limits;
    arguments.insert(arguments.begin(),
                     {"--all-backlogs", std::to_string(limits.allBacklogBytes), "--all-requests",
                      std::to_string(limits.allRequestBytes), "--max-store", std::to_string(limits.storeBytes)});
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

// What the daemon reports of itself, up to the empty line at the end.
inline std::string AskForServerInfo(ProtocolClient& client) {
  client.Send("info server\n");
  return client.ReadUntil("\n\n");
}

// Whether nothing is still to be brought to the disk, by its own report.
inline bool SaysThatAllIsSaved(ProtocolClient& client) {
  return AskForServerInfo(client).find("\nsaved=true\n") != std::string::npos;
}

// What --check prints, without the line that depends on the machine.
inline std::string WithoutBounds(std::string output) {
  const size_t line = output.find("bounds: ");
  return line == std::string::npos ? output : output.erase(line, output.find('\n', line) + 1 - line);
}

inline size_t CountOf(const std::string& part, const std::string& text) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
  return count;
}

}  // namespace tavix::test
