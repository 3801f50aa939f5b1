#include "programs/web/access/Certificate.h"

#include "programs/web/access/PrivateFile.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

std::unique_ptr<const Encryption> LoadEncryption(const Options& options) {
  const std::string& certificate = options.certificateFile;
  const std::string& key = options.keyFile;
  if (certificate.empty() && key.empty()) return nullptr;
  if (!Encryption::kIsBuiltIn)
    throw osa::Exception(
        "--tls-cert and --tls-key have no effect: this program was built without HTTPS (TAVIX_WEB_TLS)");
  if (key.empty()) throw osa::Exception("--tls-cert '%s' needs --tls-key", certificate.c_str());
  if (certificate.empty()) throw osa::Exception("--tls-key '%s' needs --tls-cert", key.c_str());
  return std::make_unique<const Encryption>(PemFile{certificate, ReadPublicFile(certificate)},
                                            PemFile{key, ReadPrivateFile(key)});
}

}  // namespace tavix::web
