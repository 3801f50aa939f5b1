#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/CommandProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tavix::test {

// An authority of a test's own, and certificates by it: NAME.pem and NAME.key in the folder.
//
// Threads: the test's main thread.
class TestCertificates {
 public:
  // authority: the name of its files. folder: outlives this.
  explicit TestCertificates(const TemporaryDirectory& folder, const std::string& authority = "authority")
      : _folder(folder), _authority(authority) {
    Run({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
         "/CN=" + authority, "-keyout", authority + ".key", "-out", authority + ".pem"});
  }

  // host: for whom it is, "DNS:localhost" or "IP:127.0.0.1".
  void Make(const std::string& name, const std::string& host) const {
    const std::string extensions = _folder.Write(name + ".ext", "subjectAltName=" + host + "\n");
    Run({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=" + name,
         "-keyout", name + ".key", "-out", name + ".csr"});
    Run({"x509", "-req", "-in", name + ".csr", "-CA", _authority + ".pem", "-CAkey", _authority + ".key",
         "-CAcreateserial", "-days", "2", "-extfile", extensions, "-out", name + ".pem"});
  }

  std::string GetAuthority() const { return _folder.Path(_authority + ".pem"); }

 private:
  void Run(std::vector<std::string> words) const {
    words.insert(words.begin(), "openssl");
    const Outcome outcome = RunToEnd(_folder.GetPath(), words);
    if (outcome.status != 0) throw std::runtime_error(outcome.errors);
  }

  const TemporaryDirectory& _folder;
  const std::string _authority;
};

}  // namespace tavix::test
