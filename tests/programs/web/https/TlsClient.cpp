#include "tests/programs/web/https/TlsClient.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <stdexcept>
#include <utility>

#include "tests/support/Patience.h"

namespace tavix::test {

namespace {

[[noreturn]] void Fail(const std::string& what) {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  ERR_clear_error();
  throw std::runtime_error("TLS: " + what + ": " + (reason ? reason : "no reason"));
}

}  // namespace

TlsClient::TlsClient(unsigned short port, const std::string& authority, int maxVersion)
    : _socket(port), _context(SSL_CTX_new(TLS_client_method())) {
  SSL_CTX_set_min_proto_version(_context.get(), 0);
  SSL_CTX_set_max_proto_version(_context.get(), maxVersion);
  SSL_CTX_set_security_level(_context.get(), 0);  // else it knows no old version itself
  if (SSL_CTX_load_verify_file(_context.get(), authority.c_str()) != 1) Fail("no authority");
  SSL_CTX_set_verify(_context.get(), SSL_VERIFY_PEER, nullptr);
  _state.reset(SSL_new(_context.get()));
  SSL_set1_host(_state.get(), "localhost");
  SSL_set_bio(_state.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  if (Complete([this] { return SSL_connect(_state.get()); }) <= 0) Fail("the handshake failed");
}

// Until the step needs no more bytes of the server's.
template <class Step>
int TlsClient::Complete(Step step) {
  while (true) {
    ERR_clear_error();
    const int result = step();
    const int error = SSL_get_error(_state.get(), result);
    Flush();
    if (error != SSL_ERROR_WANT_READ) return result;
    const std::string bytes = _socket.ReadFor(static_cast<int>(kPatience.count()) * 1000);
    if (bytes.empty()) Fail("the connection was cut off behind: " + _received);
    BIO_write(SSL_get_rbio(_state.get()), bytes.data(), static_cast<int>(bytes.size()));
  }
}

// What can't be sent, nobody reads.
void TlsClient::Flush() {
  char part[16 * 1024];
  for (int count = 0; (count = BIO_read(SSL_get_wbio(_state.get()), part, sizeof part)) > 0;)
    _socket.TrySend(std::string(part, static_cast<size_t>(count)));
}

void TlsClient::Send(const std::string& text) {
  const auto write = [&] { return SSL_write(_state.get(), text.data(), static_cast<int>(text.size())); };
  if (Complete(write) <= 0) Fail("nothing can be sent");
}

// False at the announced end.
bool TlsClient::Receive() {
  char part[16 * 1024];
  const int count = Complete([&] { return SSL_read(_state.get(), part, sizeof part); });
  if (count > 0) _received.append(part, static_cast<size_t>(count));
  if (count <= 0 && SSL_get_error(_state.get(), count) != SSL_ERROR_ZERO_RETURN) Fail("nothing can be read");
  return count > 0;
}

std::string TlsClient::Read(size_t count) {
  while (_received.size() < count) {
    if (!Receive()) Fail("the connection ended behind: " + _received);
  }
  std::string text = _received.substr(0, count);
  _received.erase(0, count);
  return text;
}

std::string TlsClient::ReadUntil(const std::string& ending) {
  size_t found = 0;
  while ((found = _received.find(ending)) == std::string::npos) {
    if (!Receive()) Fail("the connection ended behind: " + _received);
  }
  return Read(found + ending.size());
}

std::string TlsClient::ReadToEnd() {
  while (Receive()) continue;
  return std::exchange(_received, std::string());
}

void TlsClient::HalfClose() {
  SSL_shutdown(_state.get());
  Flush();
}

std::string TlsClient::GetServerName() const {
  const std::unique_ptr<X509, void (*)(X509*)> certificate(SSL_get1_peer_certificate(_state.get()), X509_free);
  char name[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, name, sizeof name);
  return name;
}

}  // namespace tavix::test
