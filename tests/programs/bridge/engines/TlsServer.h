#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/ServiceProcess.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"

namespace tavix::test {

// A server on 127.0.0.1 that shakes hands by TLS with "server.pem" and "server.key" of a folder.
//
// Threads: the test's main thread.
// Errors:  std::runtime_error, with what it wrote, when it does not start.
class TlsServer {
 public:
  // What has a server talk nothing newer than TLS 1.1.
  static std::vector<std::string> Old() { return {"-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"}; }

  // words: of its command line. folder: outlives this.
  explicit TlsServer(const TemporaryDirectory& folder, const std::vector<std::string>& words = {}) {
    std::vector<std::string> all{"openssl", "s_server", "-4", "-www", "-cert", "server.pem", "-key", "server.key"};
    all.insert(all.end(), words.begin(), words.end());
    all.insert(all.end(), {"-accept", ""});
    do {
      if (_process && _process->GetOutput().find("in use") == std::string::npos)
        throw std::runtime_error(_process->GetOutput());
      _port = FindFreePort();  // somebody else may take it meanwhile
      all.back() = std::to_string(_port);
      _process = std::make_unique<ServiceProcess>(folder.GetPath(), all, folder.Path("server.log"));
    } while (!_process->AwaitOutput("ACCEPT"));
  }

  unsigned short GetPort() const { return _port; }

  // Waits until it wrote that text. False when it ended before.
  bool AwaitOutput(const std::string& text) { return _process->AwaitOutput(text); }

 private:
  unsigned short _port = 0;
  std::unique_ptr<ServiceProcess> _process;
};

}  // namespace tavix::test
