#pragma once

#include <sys/stat.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/programs/server/Daemon.h"
#include "tests/programs/web/HttpConnection.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/Patience.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// The real tavix-settings-web, in front of a daemon, on a port of loopback that the kernel picks. It waits for the
// daemon as long as tests wait for anything, unless the arguments say otherwise.
class WebProcess : public DaemonProcess {
 public:
  WebProcess(const TemporaryDirectory& directory, const std::string& server,
             const std::vector<std::string>& arguments = {})
      : DaemonProcess(TAVIX_WEB_PROGRAM, directory.GetPath(), Complete(server, arguments)) {}

 private:
  static std::vector<std::string> Complete(const std::string& server, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"--listen", "127.0.0.1:0", "--server", server, "--timeout", std::to_string(kPatience.count())});
    return arguments;
  }
};

constexpr char kDefaults[] =
    "[Device/Identity]\nmodel=NC-240\nname=Camera\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n"
    "[Network/Wlan0]\nenabled=false\n[Server]\nlog.level=5\n";

constexpr char kRestricted[] = "[Secure/Wlan0]\npassphrase=example\n";

// Both, with a few defaults and a restricted group.
class Web {
 public:
  explicit Web(const std::vector<std::string>& arguments = {}, const std::string& defaults = kDefaults,
               const std::string& restricted = kRestricted)
      : daemon(directory, DaemonArguments(defaults, restricted)),
        process(directory, daemon.AwaitAddresses()[0], arguments) {}

  HttpConnection Connect() const { return HttpConnection(process.GetPort()); }

  // One request on a connection of its own.
  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {},
                const std::string& headers = {}) const {
    return Connect().Ask(method, "/api/v1" + target, body, headers);
  }

  // What a request that has to succeed answers.
  nlohmann::json Get(const std::string& target) const {
    const HttpReply reply = Ask("GET", target);
    if (reply.status != 200) throw std::runtime_error(target + " is answered by " + reply.body);
    return nlohmann::json::parse(reply.body);
  }

  std::string ReadValue(const std::string& group, const std::string& key) const {
    return Get("/group?name=" + group)["keys"][key]["value"];
  }

  TemporaryDirectory directory;
  Daemon daemon;
  WebProcess process;

 private:
  std::vector<std::string> DaemonArguments(const std::string& defaults, const std::string& restricted) const {
    return {"--defaults",      directory.Write("defaults.ini", defaults),
            "--restricted",    directory.Write("restricted.ini", restricted),
            "--user-settings", "user.ini"};
  }
};

// The same with the daemon on a unix socket, so that one that is started again finds its address free, and its end is
// seen at once. Requests need "authorization" among their headers.
class WebOnSocket {
 public:
  WebOnSocket() : process(directory, GetDaemonAddress(), {"--token-file", WriteToken()}) { StartDaemon(); }

  void StartDaemon() {
    daemon = std::make_unique<DaemonProcess>(ServerProgram(), directory.GetPath(),
                                             std::vector<std::string>{"--listen", GetDaemonAddress()});
    daemon->AwaitAddresses();
  }

  std::string GetDaemonAddress() const { return "unix:" + directory.Path("daemon.sock"); }

  const std::string authorization = "Authorization: Bearer " + std::string(64, 'a') + "\r\n";
  TemporaryDirectory directory;
  std::unique_ptr<DaemonProcess> daemon;
  WebProcess process;

 private:
  std::string WriteToken() const {
    const std::string path = directory.Write("tokens", "test " + std::string(64, 'a') + " write\n");
    if (chmod(path.c_str(), 0600) != 0) throw std::runtime_error("No file of tokens");
    return path;
  }
};

inline nlohmann::json Parse(const HttpReply& reply) {
  return nlohmann::json::parse(reply.body);
}

}  // namespace tavix::test
