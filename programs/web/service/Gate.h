#pragma once

#include "programs/web/access/Access.h"
#include "programs/web/access/Guard.h"
#include "programs/web/http/EmbeddedFile.h"
#include "programs/web/interface/Router.h"
#include "programs/web/options/Options.h"

namespace tavix::web {

// Decides by its head alone whether a request gets in: nothing of a stranger's body is ever kept.
//
// Threads: one, the loop's.
// Errors:  Refusal.
class Gate {
 public:
  // What a request that gets in is about.
  struct Entry {
    const Route* route;        // of the interface; else null
    const EmbeddedFile* file;  // what is served as it is; with neither: whether the program lives
    Origin origin;
    size_t maxBodyBytes;
  };

  // Both outlive this.
  Gate(const Options& options, Access& access) : _options(options), _access(access), _guard(options) {}

  // head: a request, of which the body is not looked at. hasBody: whether one has come or is to come.
  Entry Admit(const Peer& peer, const Request& head, bool hasBody);

  bool IsTrustedProxy(const Peer& peer) const { return _guard.IsTrustedProxy(peer); }

 private:
  [[noreturn]] void RefuseOutside(const Request& head) const;
  static Entry AdmitToFile(const Request& head, const std::string& path, Origin origin);
  Entry AdmitToInterface(const Peer& peer, const Request& head, const std::string& path, Origin origin, bool hasBody);

  const Options& _options;
  Access& _access;
  const Guard _guard;
};

}  // namespace tavix::web
