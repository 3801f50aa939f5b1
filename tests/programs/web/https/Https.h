#pragma once

#include <string>
#include <vector>

#include "tests/programs/web/HttpConnection.h"
#include "tests/programs/web/Web.h"
#include "tests/programs/web/https/TlsClient.h"
#include "tests/support/TestCertificates.h"

namespace tavix::test {

using HttpsConnection = HttpOver<TlsClient>;

// The program with a certificate of a test's own, in front of a daemon.
class Https {
 public:
  explicit Https(const std::vector<std::string>& arguments = {}) : web(Prepare(arguments)) {}

  HttpsConnection Connect(int maxVersion = TLS1_3_VERSION) const {
    return HttpsConnection(web.process.GetPort(), certificates.GetAuthority(), maxVersion);
  }

  // Bytes that are sent as they are.
  HttpConnection ConnectPlainly() const { return web.Connect(); }

  // One request on a connection of its own.
  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {},
                const std::string& headers = {}) const {
    return Connect().Ask(method, "/api/v1" + target, body, headers);
  }

  const TemporaryDirectory folder;
  const TestCertificates certificates{folder};
  Web web;

 private:
  std::vector<std::string> Prepare(std::vector<std::string> arguments) const {
    certificates.Make("server", "DNS:localhost");
    arguments.insert(arguments.end(),
                     {"--tls-cert", folder.Path("server.pem"), "--tls-key", folder.Path("server.key")});
    return arguments;
  }
};

}  // namespace tavix::test
