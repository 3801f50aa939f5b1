#include "programs/web/access/Access.h"

#include "programs/web/access/Password.h"
#include "programs/web/access/PrivateFile.h"
#include "programs/web/http/Refusal.h"
#include "tavix/osa/Exception.h"

namespace tavix::web {

namespace {

constexpr char kBearer[] = "Bearer ";

std::string ReadPassword(const std::string& path) {
  std::string text = ReadPrivateFile(path);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (!IsPasswordHash(text))
    throw osa::Exception("'%s' holds no argon2id text; --hash-password makes one", path.c_str());
  return text;
}

Refusal Unauthorized(const std::string& detail) {
  return {401, detail, {}, {{"WWW-Authenticate", "Bearer"}}};
}

}  // namespace

Access::Access(const Options& options) : _options(options) {
  if (!options.passwordFile.empty()) _password = ReadPassword(options.passwordFile);
  if (options.tokenFile.empty()) return;
  _tokens = Tokens::Parse(ReadPrivateFile(options.tokenFile), options.tokenFile);
  if (_tokens.IsEmpty()) throw osa::Exception("'%s' holds no token", options.tokenFile.c_str());
}

void Access::RequireAllowed(const Peer& peer) const {
  if (!peer.isUnix || _options.allowedUsers.empty()) return;
  if (!peer.user || _options.allowedUsers.count(*peer.user) == 0)
    throw Refusal(403, "this user may not use the socket; --allow-uid lets one in");
}

// A user that --allow-uid names is known by the kernel.
Right Access::FindRight(const Request& request, const Peer& peer) {
  if (const std::string* const authorization = request.Find("authorization")) {
    const bool isBearer = authorization->compare(0, sizeof kBearer - 1, kBearer) == 0;
    const auto right = isBearer ? _tokens.Find(authorization->substr(sizeof kBearer - 1)) : std::nullopt;
    if (!right) throw Unauthorized("the token is not known");
    return *right;
  }
  if (!HasSecrets() || (peer.isUnix && !_options.allowedUsers.empty())) return Right::kWrite;
  const std::optional<std::string> cookie = FindCookie(request, kCookie);
  if (cookie && _logins.Use(*cookie, Logins::Clock::now())) return Right::kWrite;
  throw Unauthorized("log in first, or give a token");
}

void Access::RequireRight(const Request& request, const Peer& peer, Right right) {
  const Right given = FindRight(request, peer);
  if (right == Right::kRead) return;
  if (_options.isReadOnly) throw Refusal(403, "this program was started with --read-only");
  if (given == Right::kRead) throw Refusal(403, "the token allows reading alone");
}

void Access::RequireAttempt(const std::string& address) {
  if (_password.empty()) throw Refusal(404, "there is no password to log in with");
  if (!_logins.MayTry(address, Logins::Clock::now()))
    throw Refusal(429, "too many wrong passwords", {},
                  {{"Retry-After", std::to_string(std::chrono::seconds(Logins::kFailureTime).count())}});
}

std::string Access::FormatCookie(const std::string& value, const Origin& origin) const {
  std::string cookie = std::string(kCookie) + "=" + value + "; Path=" + _options.basePath + "/";
  if (value.empty()) cookie += "; Max-Age=0";
  if (origin.isHttps) cookie += "; Secure";
  return cookie + "; HttpOnly; SameSite=Strict";
}

}  // namespace tavix::web
