#include "programs/web/http/Encryption.h"

#include <event2/bufferevent_ssl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <new>

#include "programs/common/client/Join.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

template <class T, void (*free)(T*)>
struct Free {
  void operator()(T* object) const { free(object); }
};
using Text = std::unique_ptr<BIO, Free<BIO, BIO_free_all>>;
using Certificate = std::unique_ptr<X509, Free<X509, X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY, EVP_PKEY_free>>;

[[noreturn]] void Fail(const PemFile& file, const std::string& reason) {
  ERR_clear_error();
  throw osa::Exception("Failed to use '%s': %s", file.path.c_str(), reason.c_str());
}

// What the library refused last.
std::string LastReason() {
  const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
  return reason ? reason : "the TLS library does not say why";
}

// Nobody is there to type one.
int RefusePassphrase(char*, int, int, void* wasAsked) {
  *static_cast<bool*>(wasAsked) = true;
  return -1;
}

Text Open(const PemFile& file) {
  Text text(BIO_new_mem_buf(file.text.data(), static_cast<int>(file.text.size())));
  if (!text) throw std::bad_alloc();
  return text;
}

// The certificate, and those between it and the authority.
void UseChain(SSL_CTX* context, const PemFile& file) {
  bool wasAsked = false;
  const Text text = Open(file);
  const Certificate own(PEM_read_bio_X509_AUX(text.get(), nullptr, RefusePassphrase, &wasAsked));
  if (!own) Fail(file, "it holds no certificate as PEM: " + LastReason());
  if (SSL_CTX_use_certificate(context, own.get()) != 1) Fail(file, LastReason());
  while (Certificate next{PEM_read_bio_X509(text.get(), nullptr, RefusePassphrase, &wasAsked)}) {
    if (SSL_CTX_add0_chain_cert(context, next.get()) != 1) Fail(file, LastReason());
    static_cast<void>(next.release());
  }
  if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) Fail(file, LastReason());
  ERR_clear_error();
}

void UseKey(SSL_CTX* context, const PemFile& file, const PemFile& certificate) {
  bool wasAsked = false;
  const Text text = Open(file);
  const Key key(PEM_read_bio_PrivateKey(text.get(), nullptr, RefusePassphrase, &wasAsked));
  if (wasAsked) Fail(file, "it needs a passphrase, and nobody is there to type one");
  if (!key) Fail(file, "it holds no key as PEM: " + LastReason());
  if (SSL_CTX_use_PrivateKey(context, key.get()) != 1)
    Fail(file, programs::Join({"it is not the key of the certificate in '", certificate.path, "': ", LastReason()}));
}

// Sessions are kept by the clients alone, and what a silent connection needs of memory is small.
void SetUp(SSL_CTX* context) {
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
}

}  // namespace

const bool Encryption::kIsBuiltIn = true;

Encryption::Encryption(const PemFile& certificate, const PemFile& key) : _context(SSL_CTX_new(TLS_server_method())) {
  if (!_context) throw std::bad_alloc();
  SetUp(_context.get());
  UseChain(_context.get(), certificate);
  UseKey(_context.get(), key, certificate);
}

Encryption::~Encryption() = default;

void Encryption::Free::operator()(ssl_ctx_st* context) const {
  SSL_CTX_free(context);
}

// Once it is made, the buffer owns the state of TLS and the socket.
Buffer Encryption::OpenBuffer(const EventBase& base, osa::Descriptor socket) const {
  SSL* const state = SSL_new(_context.get());
  if (!state) throw std::bad_alloc();
  Buffer buffer(bufferevent_openssl_socket_new(base.Get(), socket.Get(), state, BUFFEREVENT_SSL_ACCEPTING,
                                               BEV_OPT_CLOSE_ON_FREE | BEV_OPT_DEFER_CALLBACKS));
  if (!buffer) throw std::bad_alloc();
  socket.Release();
  return buffer;
}

bool Encryption::HasMetPlainRequest(bufferevent* buffer) {
  bool hasMet = false;
  while (const unsigned long error = bufferevent_get_openssl_error(buffer))
    hasMet = hasMet || (ERR_GET_LIB(error) == ERR_LIB_SSL && ERR_GET_REASON(error) == SSL_R_HTTP_REQUEST);
  return hasMet;
}

void Encryption::EndOutput(bufferevent* buffer) {
  SSL* const state = bufferevent_openssl_get_ssl(buffer);
  if (!state) return;
  SSL_shutdown(state);
  ERR_clear_error();
}

}  // namespace tavix::web
