#include "programs/web/access/Guard.h"

#include <unistd.h>

#include <algorithm>

#include "programs/web/http/Refusal.h"
#include "tavix/core/StringUtil.h"

namespace tavix::web {

namespace {

constexpr const char* kTypes[] = {"application/json", "application/merge-patch+json", "text/plain"};

std::string Lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string OwnName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return Lower(name);
}

bool IsPort(const std::string& text) {
  return !text.empty() && text.size() <= 5 && text.find_first_not_of("0123456789") == std::string::npos;
}

// The name or address of HOST, HOST:PORT, [V6] or [V6]:PORT; empty when it is none of them.
std::string WithoutPort(const std::string& host) {
  const size_t bracket = host.rfind(']');
  const size_t colon = host.rfind(':');
  const bool hasPort = colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
  if (hasPort && !IsPort(host.substr(colon + 1))) return std::string();
  std::string name = Lower(host.substr(0, hasPort ? colon : host.size()));
  const bool isBracketed = name.size() > 2 && name.front() == '[' && name.back() == ']';
  if (isBracketed) return NormalizeAddress(name.substr(1, name.size() - 2)) ? name : std::string();
  if (!name.empty() && name.back() == '.') name.pop_back();
  return name;
}

// The last of a list: what the trusted proxy itself has added.
std::string LastOf(const std::string& list) {
  const size_t comma = list.rfind(',');
  const size_t begin = list.find_first_not_of(" \t", comma == std::string::npos ? 0 : comma + 1);
  return begin == std::string::npos ? std::string() : list.substr(begin);
}

std::string TypeOf(const Request& request) {
  const std::string* const type = request.Find("content-type");
  if (!type) return std::string();
  const std::string word = type->substr(0, type->find(';'));
  return Lower(word.substr(0, word.find_last_not_of(' ') + 1));
}

}  // namespace

Guard::Guard(const Options& options) : _hosts(options.hosts), _proxies(options.trustedProxies) {
  const std::string name = OwnName();
  _hosts.insert("localhost");
  if (name.empty()) return;
  _hosts.insert(name);
  _hosts.insert(name.substr(0, name.find('.')) + ".local");
}

Origin Guard::FindOrigin(const Request& request, const Peer& peer, bool isTls) const {
  const std::string user = peer.user ? "user " + std::to_string(*peer.user) : std::string();
  Origin origin{peer.isUnix ? user : peer.address, *request.Find("host"), isTls};
  if (!IsTrustedProxy(peer)) return origin;
  if (const std::string* const address = request.FindLast("x-forwarded-for"))
    origin.address = NormalizeAddress(LastOf(*address)).value_or(origin.address);
  if (const std::string* const host = request.FindLast("x-forwarded-host")) origin.host = LastOf(*host);
  if (const std::string* const scheme = request.FindLast("x-forwarded-proto"))
    origin.isHttps = core::StringUtil::EqualsIgnoringCase(LastOf(*scheme), "https");
  return origin;
}

bool Guard::IsTrustedProxy(const Peer& peer) const {
  return _proxies.count(peer.isUnix ? Options::kUnixProxy : peer.address) != 0;
}

void Guard::RequireKnownHost(const Origin& origin) const {
  const std::string name = WithoutPort(origin.host);
  const bool isAddress = !name.empty() && (name.front() == '[' || NormalizeAddress(name));
  if (!isAddress && _hosts.count(name) == 0)
    Refuse(421, {"this host is not known as '", origin.host, "'; --host makes the name known"});
}

void Guard::RequireOwnSite(const Request& request) {
  const std::string* const site = request.Find("sec-fetch-site");
  if (site && *site == "cross-site") Refuse(403, "pages of other sites may not ask here");
}

void Guard::RequireOwnWrite(const Request& request, const Origin& origin) const {
  const std::string* const sender = request.Find("origin");
  const std::string scheme = origin.isHttps ? "https://" : "http://";
  if (sender && Lower(*sender) != Lower(scheme + origin.host))
    Refuse(403, {"the page at '", *sender, "' may not write here"});
  if (!sender && request.Find("cookie")) Refuse(403, "a write with a cookie needs an Origin");
}

void RequireKnownType(const Request& request) {
  const std::string type = TypeOf(request);
  const bool isKnown = std::any_of(std::begin(kTypes), std::end(kTypes), [&](const char* one) { return type == one; });
  if (!isKnown) Refuse(415, "the body's type has to be application/json or text/plain");
}

std::vector<std::string> FindCookies(const Request& request, const std::string& name) {
  std::vector<std::string> values;
  for (const auto& [header, value] : request.headers) {
    if (header != "cookie") continue;
    std::vector<std::string> pairs;
    core::StringUtil::Split(pairs, value, "; ", 0);
    for (const std::string& pair : pairs) {
      if (core::StringUtil::StartsWith(pair, name + "=")) values.push_back(pair.substr(name.size() + 1));
    }
  }
  return values;
}

}  // namespace tavix::web
