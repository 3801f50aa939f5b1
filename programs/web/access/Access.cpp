#include "programs/web/access/Access.h"

#include "programs/common/client/Join.h"
#include "programs/web/access/Password.h"
#include "programs/web/access/PrivateFile.h"
#include "programs/web/http/Refusal.h"
#include "tavix/core/StringUtil.h"
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
    Refuse(403, "this user may not use the socket; --allow-uid lets one in, if this program can see its number");
}

// A user that --allow-uid names is known by the kernel.
bool Access::NeedsLogin(const Request& request, const Peer& peer) const {
  return HasSecrets() && !request.Find("authorization") && !(peer.isUnix && !_options.allowedUsers.empty());
}

std::optional<std::string> Access::FindLogin(const Request& request, const Peer& peer) const {
  if (!NeedsLogin(request, peer)) return std::nullopt;
  for (std::string& cookie : FindCookies(request, kCookie)) {
    if (_logins.IsValid(cookie, Logins::Clock::now())) return std::move(cookie);
  }
  return std::nullopt;
}

Right Access::FindRight(const Request& request, const Peer& peer) {
  if (const std::string* const authorization = request.Find("authorization")) {
    const bool isBearer =
        core::StringUtil::EqualsIgnoringCase(std::string_view(*authorization).substr(0, sizeof kBearer - 1), kBearer);
    const auto right = isBearer ? _tokens.Find(authorization->substr(sizeof kBearer - 1)) : std::nullopt;
    if (!right) throw Unauthorized("the token is not known");
    return *right;
  }
  if (!NeedsLogin(request, peer)) return Right::kWrite;
  const std::optional<std::string> login = FindLogin(request, peer);
  if (login && _logins.Use(*login, Logins::Clock::now())) return Right::kWrite;
  throw Unauthorized("log in first, or give a token");
}

void Access::RequireRight(const Request& request, const Peer& peer, Right right) {
  const Right given = FindRight(request, peer);
  if (right == Right::kRead) return;
  if (_options.isReadOnly) Refuse(403, "this program was started with --read-only");
  if (given == Right::kRead) Refuse(403, "the token allows reading alone");
}

void Access::RequireAttempt(const std::string& address) {
  if (_password.empty()) Refuse(404, "there is no password to log in with");
  const auto wait = _logins.FindWait(address, Logins::Clock::now());
  if (wait > std::chrono::seconds(0)) RefuseForNow(429, "too many wrong passwords", wait.count());
}

std::string Access::FormatCookie(const std::string& value, const Origin& origin) const {
  std::string cookie = programs::Join({kCookie, "=", value, "; Path=", _options.basePath, "/"});
  if (value.empty()) cookie += "; Max-Age=0";
  if (origin.isHttps) cookie += "; Secure";
  return cookie + "; HttpOnly; SameSite=Strict";
}

}  // namespace tavix::web
