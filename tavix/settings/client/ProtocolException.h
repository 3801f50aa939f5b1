#pragma once

#include <string>

#include "tavix/osa/Exception.h"
#include "tavix/osa/Export.h"

namespace tavix::settings::client {

// The error of ProtocolClient. Its text says what failed, with which server and why. A plain value.
class TAVIX_EXPORT ProtocolException : public osa::Exception {
 public:
  enum class Reason {
    kUsage,        // the address is none, or a name or a line can't be sent; nothing was sent
    kUnreachable,  // there is no server at the address
    kTimedOut,     // the server kept silent, or took no connection, or the call took too long
    kLost,         // the connection has ended, or had to be ended after an earlier failure
    kNotProtocol,  // the peer answered something else than the protocol has
    kTooLarge,     // the reply or notice is larger than the client takes
    kUnreadable,   // a whole reply or notice came whose settings text does not parse; the connection goes on
    kNoResources,  // this system has no descriptor or memory left for a connection
    kDropped,      // notices were dropped, because too many were pending; the connection goes on
    kTooOld,       // the server does not know the request; nothing of it was sent, and the connection goes on
  };

  // hint: what the person who reads the text can do; may be empty. wasSent: see WasSent.
  ProtocolException(Reason reason, const std::string& text, std::string hint, bool wasSent);
  ~ProtocolException() override;

  Reason GetReason() const { return _reason; }
  const std::string& GetHint() const { return _hint; }

  // Whether anything may have reached the server of the call's request, or of a write before it that no reply has
  // confirmed: a write returns once it has left, and the next reply of any kind shows that it was carried out. If so,
  // nobody knows what became of these writes: read, and compare. If not, nothing was lost, and the same call can be
  // made again on a new connection.
  bool WasSent() const { return _wasSent; }

 private:
  Reason _reason;
  std::string _hint;
  bool _wasSent;
};

}  // namespace tavix::settings::client
