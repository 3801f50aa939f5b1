#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "programs/web/http/Message.h"
#include "programs/web/http/Peer.h"
#include "programs/web/options/Options.h"

namespace tavix::web {

// From where a request comes and how it calls this host, after a proxy that is trusted. A plain value.
struct Origin {
  std::string address;  // of the client; on a unix socket its user
  std::string host;     // with its port, if there is one
  bool isHttps = false;
};

// Keeps requests out that pages of others make a browser send.
//
// Threads: any.
// Errors:  Refusal.
class Guard {
 public:
  // The host's names are those that the system has now.
  explicit Guard(const Options& options);

  // isTls: whether the connection itself is encrypted.
  Origin FindOrigin(const Request& request, const Peer& peer, bool isTls) const;

  // Throws Refusal, 421: the host is not called so, as when a foreign name was made to lead here.
  void RequireKnownHost(const Origin& origin) const;

  // Throws Refusal, 403, for a request that the browser reports as one of a page of another site: it would not see the
  // answer, but cost its work.
  static void RequireOwnSite(const Request& request);

  // Throws Refusal, 403, for a write that a foreign page may have sent.
  void RequireOwnWrite(const Request& request, const Origin& origin) const;

  bool IsTrustedProxy(const Peer& peer) const;

 private:
  std::set<std::string> _hosts;
  const std::set<std::string> _proxies;
};

// Throws Refusal, 415, for a request whose body is neither JSON nor text.
void RequireKnownType(const Request& request);

// The values of all cookies of a name: a page at another port of the host may have set one, too.
std::vector<std::string> FindCookies(const Request& request, const std::string& name);

}  // namespace tavix::web
