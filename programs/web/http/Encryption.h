#pragma once

#include <memory>
#include <string>

#include "programs/web/http/Buffer.h"
#include "programs/web/http/EventBase.h"
#include "tavix/osa/Descriptor.h"

struct ssl_ctx_st;

namespace tavix::web {

// A file of PEM blocks that was read. A plain value.
struct PemFile {
  std::string path;
  std::string text;
};

// Makes connections that are encrypted by TLS 1.2 or later, with one certificate. A program that was built without
// TAVIX_WEB_TLS can't make any: EncryptionMissing.cpp stands for it there.
//
// Threads: the loop's.
// Owns:    certificate and key. Its connections keep them for as long as they last.
class Encryption {
 public:
  static const bool kIsBuiltIn;

  // certificate: the server's own, behind it those between it and the authority. key: without a passphrase. Throws
  // osa::Exception that names the file, and says what is wrong with it.
  Encryption(const PemFile& certificate, const PemFile& key);
  ~Encryption();

  Encryption(const Encryption&) = delete;
  Encryption& operator=(const Encryption&) = delete;

  // The client's handshake begins, and BEV_EVENT_CONNECTED is its end. Callbacks come from the loop alone: never
  // from within another call. Throws std::bad_alloc.
  Buffer OpenBuffer(const EventBase& base, osa::Descriptor socket) const;

  // Behind an error of any buffer: whether the client sent a request that was not encrypted.
  static bool HasMetPlainRequest(bufferevent* buffer);

  // Tells the client that all was sent, so that it knows that nobody has cut anything off. Nothing may be written any
  // more. Has no effect on a buffer that is not encrypted.
  static void EndOutput(bufferevent* buffer);

 private:
  struct Free {
    void operator()(ssl_ctx_st* context) const;
  };
  std::unique_ptr<ssl_ctx_st, Free> _context;
};

}  // namespace tavix::web
