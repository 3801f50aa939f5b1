#pragma once

#include <optional>
#include <string>

#include "programs/web/access/Guard.h"
#include "programs/web/access/Logins.h"
#include "programs/web/access/Tokens.h"
#include "programs/web/options/Options.h"

namespace tavix::web {

// Who may do what: the password, the tokens, the logins, and what is open to all.
//
// Threads: one, the loop's.
// Errors:  Refusal; the constructor: osa::Exception.
class Access {
 public:
  // Reads the files of password and tokens.
  explicit Access(const Options& options);

  // Whether anything is asked for.
  bool HasSecrets() const { return !_password.empty() || !_tokens.IsEmpty(); }
  const std::string& GetPasswordHash() const { return _password; }

  // Throws Refusal, 403, for a user that may not use the unix socket.
  void RequireAllowed(const Peer& peer) const;

  // Throws Refusal: 401 without a login or a token, 403 when it does not allow that.
  void RequireRight(const Request& request, const Peer& peer, Right right);

  // Throws Refusal, before a password is looked at: 404 when there is none, 429 when there were too many
  // failures.
  void RequireAttempt(const std::string& address);

  // The login that lets the request in; nothing when it needs none, or has none that counts.
  std::optional<std::string> FindLogin(const Request& request, const Peer& peer) const;

  // How a login or a logout is told to the browser.
  Logins& GetLogins() { return _logins; }
  std::string FormatCookie(const std::string& value, const Origin& origin) const;
  static constexpr char kCookie[] = "tavix_settings_login";

 private:
  bool NeedsLogin(const Request& request, const Peer& peer) const;
  Right FindRight(const Request& request, const Peer& peer);

  const Options& _options;
  std::string _password;
  Tokens _tokens;
  Logins _logins;
};

}  // namespace tavix::web
