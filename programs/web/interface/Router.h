#pragma once

#include <optional>
#include <string>
#include <vector>

#include "programs/web/access/Tokens.h"
#include "programs/web/interface/Call.h"

namespace tavix::web {

// One request of the interface.
struct Route {
  // Who carries it out.
  enum class Place {
    kWorker,   // with the daemon, by "handler"
    kChanges,  // a stream of changes, or one answer of it
    kLogin,
    kLogout,
    kDescription  // what openapi.json holds
  };

  const char* method;
  const char* path;  // behind /api/v1
  Place place;
  Right right;
  Handler handler;         // of kWorker alone
  const char* parameters;  // as Query::RequireOnly has them
};

// All of them.
const std::vector<Route>& GetRoutes();

// The route of a request whose path is below /api/v1. Throws Refusal: 404 for a path that there is not, 405 with Allow
// for a method that it does not have.
const Route& FindRoute(const std::string& method, const std::string& path);

// The group that the request wants to see and does not change; nothing where that is another one's business, or is no
// name of one group alone.
std::optional<std::string> FindGroupToRead(const Route& route, const Request& request);

// Carries a request out until then, and answers it, whatever becomes of it. reads: what was read for it already.
Response CarryOut(Handler handler, const Request& request, DaemonLink& link, const GroupReads& reads, const View& view,
                  const AnswerBounds& bounds, DaemonLink::Clock::time_point end);

}  // namespace tavix::web
