#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "tests/support/ProtocolClient.h"

namespace tavix::test {

// One connection to a server of TLS on loopback, which has to be called localhost. What it sends and reads are bytes.
//
// Threads: one.
// Errors:  a handshake that fails, what waits for kPatience, and an end that nobody announced throws
//          std::runtime_error.
class TlsClient {
 public:
  // authority: the file of the certificate by which the server's was made. maxVersion: as OpenSSL numbers them.
  TlsClient(unsigned short port, const std::string& authority, int maxVersion = TLS1_3_VERSION);

  void Send(const std::string& text);

  std::string Read(size_t count);
  std::string ReadUntil(const std::string& ending);

  // Up to the end, which the server has to announce.
  std::string ReadToEnd();

  // Announces that no more will be sent; what comes can still be read.
  void HalfClose();

  // The name on the server's certificate.
  std::string GetServerName() const;

 private:
  template <class Step>
  int Complete(Step step);
  void Flush();
  bool Receive();

  struct FreeContext {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  struct FreeState {
    void operator()(SSL* state) const { SSL_free(state); }
  };
  ProtocolClient _socket;
  std::unique_ptr<SSL_CTX, FreeContext> _context;
  std::unique_ptr<SSL, FreeState> _state;
  std::string _received;  // and not yet asked for
};

}  // namespace tavix::test
