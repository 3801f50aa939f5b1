#include <new>

#include "programs/web/http/Encryption.h"
#include "tavix/osa/Exception.h"

struct ssl_ctx_st {};

namespace tavix::web {

const bool Encryption::kIsBuiltIn = false;

Encryption::Encryption(const PemFile& certificate, const PemFile&) {
  throw osa::Exception("Failed to use '%s': this program was built without HTTPS, which is TAVIX_WEB_TLS of its build",
                       certificate.path.c_str());
}

Encryption::~Encryption() = default;

void Encryption::Free::operator()(ssl_ctx_st* context) const {
  delete context;
}

Buffer Encryption::OpenBuffer(const EventBase&, osa::Descriptor) const {
  throw std::bad_alloc();
}

bool Encryption::HasMetPlainRequest(bufferevent*) {
  return false;
}

void Encryption::EndOutput(bufferevent*) {}

}  // namespace tavix::web
