#include "programs/web/service/Gate.h"

#include <algorithm>
#include <utility>

#include "programs/web/http/Query.h"
#include "programs/web/http/Refusal.h"

namespace tavix::web {

using Place = Route::Place;

namespace {

constexpr char kInterface[] = "/api/v1";

// Of requests that anybody may send, and of those that need none.
constexpr size_t kMaxSmallBody = 4096;

bool BeginsWith(const std::string& text, const std::string& begin) {
  return text.compare(0, begin.size(), begin) == 0;
}

}  // namespace

Gate::Entry Gate::Admit(const Peer& peer, const Request& head, bool hasBody) {
  _access.RequireAllowed(peer);
  Origin origin = _guard.FindOrigin(head, peer, false);
  _guard.RequireKnownHost(origin);
  const bool isBelow = BeginsWith(head.path, _options.basePath + "/");
  const std::string path = isBelow ? head.path.substr(_options.basePath.size()) : head.path;
  if (isBelow && BeginsWith(path, std::string(kInterface) + "/"))
    return AdmitToInterface(peer, head, path.substr(sizeof kInterface - 1), std::move(origin), hasBody);
  if (!isBelow || path != "/healthz") throw Refusal(404, "there is nothing at '" + head.path + "'");
  if (head.IsWrite()) throw Refusal(405, "'/healthz' takes no " + head.method, {}, {{"Allow", "GET, HEAD"}});
  return {nullptr, std::move(origin), kMaxSmallBody};
}

Gate::Entry Gate::AdmitToInterface(const Peer& peer, const Request& head, const std::string& path, Origin origin,
                                   bool hasBody) {
  Guard::RequireOwnSite(head);
  const Route& route = FindRoute(head.method, path);
  if (head.IsWrite()) {
    _guard.RequireOwnWrite(head, origin);
    if (hasBody) RequireKnownType(head);
  }
  if (route.place == Place::kLogin) _access.RequireAttempt(origin.address);
  const bool isOpen =
      route.place == Place::kLogin || route.place == Place::kLogout || route.place == Place::kDescription;
  if (!isOpen) _access.RequireRight(head, peer, route.right);
  Query(head.query).RequireOnly(route.parameters);
  const bool hasSmallBody = isOpen || !head.IsWrite();
  const size_t maxBodyBytes = hasSmallBody ? std::min(kMaxSmallBody, _options.maxBodyBytes) : _options.maxBodyBytes;
  return {&route, std::move(origin), maxBodyBytes};
}

}  // namespace tavix::web
