#include "programs/web/service/Gate.h"

#include <algorithm>
#include <utility>

#include "programs/common/client/Join.h"
#include "programs/web/http/Query.h"
#include "programs/web/http/Refusal.h"

namespace tavix::web {

using Place = Route::Place;

namespace {

constexpr char kInterface[] = "api/v1/";
constexpr char kDescription[] = "api/v1/openapi.json";
constexpr char kIndex[] = "index.html";
constexpr char kHealth[] = "healthz";

// Of requests that anybody may send, and of those that need none.
constexpr size_t kMaxSmallBody = 4096;

bool BeginsWith(const std::string& text, std::string_view begin) {
  return text.compare(0, begin.size(), begin) == 0;
}

Refusal NothingAt(const Request& head) {
  return {404, programs::Join({"there is nothing at '", head.path, "'"})};
}

void RequireRead(const Request& head) {
  if (head.IsWrite())
    throw Refusal(405, programs::Join({"'", head.path, "' takes no ", head.method}), {}, {{"Allow", "GET, HEAD"}});
}

}  // namespace

Gate::Entry Gate::Admit(const Peer& peer, const Request& head, bool hasBody) {
  _access.RequireAllowed(peer);
  Origin origin = _guard.FindOrigin(head, peer, _options.IsEncrypted());
  _guard.RequireKnownHost(origin);
  const std::string root = _options.basePath + "/";
  if (!BeginsWith(head.path, root)) RefuseOutside(head);
  const std::string path = head.path.substr(root.size());
  if (BeginsWith(path, kInterface))
    return AdmitToInterface(peer, head, path.substr(sizeof kInterface - 2), std::move(origin), hasBody);
  return AdmitToFile(head, path, std::move(origin));
}

// A path without the slash at its end would have the page look for its parts in the wrong place.
void Gate::RefuseOutside(const Request& head) const {
  if (head.path != _options.basePath) throw NothingAt(head);
  RequireRead(head);
  throw Refusal(302, "the page is below this path", {}, {{"Location", _options.basePath + "/"}});
}

// The page asks for a login itself: anybody who may connect gets it.
Gate::Entry Gate::AdmitToFile(const Request& head, const std::string& path, Origin origin) {
  const EmbeddedFile* const file = FindEmbeddedFile(path.empty() ? kIndex : path);
  if (!file && path != kHealth) throw NothingAt(head);
  RequireRead(head);
  return {nullptr, file, std::move(origin), kMaxSmallBody};
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
  const EmbeddedFile* const file = route.place == Place::kDescription ? FindEmbeddedFile(kDescription) : nullptr;
  return {&route, file, std::move(origin), maxBodyBytes};
}

}  // namespace tavix::web
