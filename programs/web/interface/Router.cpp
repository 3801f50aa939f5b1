#include "programs/web/interface/Router.h"

#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/web/interface/Batches.h"
#include "programs/web/interface/Reads.h"
#include "programs/web/interface/Recorded.h"
#include "programs/web/interface/Reports.h"
#include "programs/web/interface/Rollback.h"
#include "programs/web/interface/Trials.h"
#include "programs/web/interface/Writes.h"

namespace tavix::web {

using Place = Route::Place;

namespace {

int StatusOf(programs::ExitCode code) {
  switch (code) {
    case programs::kExitRefused:
      return 403;
    case programs::kExitConditionFailed:
      return 412;
    case programs::kExitNotApplied:
      return 409;
    case programs::kExitNoServer:
      return 503;
    default:
      return 422;
  }
}

}  // namespace

const std::vector<Route>& GetRoutes() {
  constexpr Place kWorker = Place::kWorker;
  static const std::vector<Route> kRoutes = {
      {"GET", "/groups", kWorker, Right::kRead, ListGroups, "pattern* limit after"},
      {"GET", "/tree", kWorker, Right::kRead, ListTree, "prefix"},
      {"GET", "/group", kWorker, Right::kRead, ShowGroup, "name"},
      {"PATCH", "/group", kWorker, Right::kWrite, PatchGroup, "name volatile confirm"},
      {"PUT", "/group", kWorker, Right::kWrite, PutGroup, "name"},
      {"DELETE", "/group", kWorker, Right::kWrite, DeleteGroup, "name"},
      {"POST", "/apply", kWorker, Right::kWrite, Apply, ""},
      {"POST", "/reset", kWorker, Right::kWrite, Reset, ""},
      {"GET", "/diff", kWorker, Right::kRead, Diff, "pattern*"},
      {"GET", "/export", kWorker, Right::kRead, Export, "pattern* format user"},
      {"POST", "/import", kWorker, Right::kWrite, ImportBackup, "pattern* mode dryRun"},
      {"GET", "/search", kWorker, Right::kRead, Search, "q in ignoreCase after afterKey"},
      {"GET", "/changes", Place::kChanges, Right::kRead, nullptr, "pattern* since wait"},
      {"GET", "/history", kWorker, Right::kRead, ShowHistory, "before count pattern group"},
      {"POST", "/rollback", kWorker, Right::kWrite, Rollback, ""},
      {"GET", "/checkpoints", kWorker, Right::kRead, ListCheckpoints, ""},
      {"POST", "/checkpoints", kWorker, Right::kWrite, MakeCheckpoint, ""},
      {"DELETE", "/checkpoints", kWorker, Right::kWrite, ForgetCheckpoint, "name"},
      {"GET", "/pending", kWorker, Right::kRead, ShowPending, ""},
      {"DELETE", "/pending", kWorker, Right::kWrite, RevertPending, "name"},
      {"POST", "/pending/confirm", kWorker, Right::kWrite, ConfirmPending, ""},
      {"GET", "/status", kWorker, Right::kRead, ShowStatus, ""},
      {"GET", "/subscribers", kWorker, Right::kRead, ShowSubscribers, ""},
      {"GET", "/resources", kWorker, Right::kRead, ShowResources, ""},
      {"GET", "/log-levels", kWorker, Right::kRead, ShowLogLevels, ""},
      {"PATCH", "/log-levels", kWorker, Right::kWrite, PatchLogLevels, ""},
      {"POST", "/login", Place::kLogin, Right::kRead, nullptr, ""},
      {"POST", "/logout", Place::kLogout, Right::kRead, nullptr, ""},
      {"GET", "/openapi.json", Place::kDescription, Right::kRead, nullptr, ""},
  };
  return kRoutes;
}

const Route& FindRoute(const std::string& method, const std::string& path) {
  std::string allowed;
  const std::string wanted = method == "HEAD" ? "GET" : method;
  for (const Route& route : GetRoutes()) {
    if (path != route.path) continue;
    if (wanted == route.method) return route;
    allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
    if (std::string(route.method) == "GET") allowed += ", HEAD";
  }
  if (allowed.empty()) Refuse(404, {"the interface has no '", path, "'"});
  throw Refusal(405, programs::Join({"'", path, "' takes no ", method}), {}, {{"Allow", allowed}});
}

std::optional<std::string> FindGroupToRead(const Route& route, const Request& request) {
  if (route.handler != ShowGroup) return std::nullopt;
  std::string name = Query(request.query).RequireName("name");
  if (name.empty() || name == "." || name.find_first_of("*\n") != std::string::npos) return std::nullopt;
  return name;
}

Response CarryOut(Handler handler, const Request& request, DaemonLink& link, const GroupReads& reads, const View& view,
                  const AnswerBounds& bounds, DaemonLink::Clock::time_point end) {
  const bool isWrite = request.IsWrite();
  try {
    link.Begin(end);
    Call call(link, reads, request, view, bounds);
    Response response = handler(call);
    response.shares = call.size.TakeShares();
    return response;
  } catch (const Refusal& refusal) {
    return ToResponse(refusal);
  } catch (const settings::client::ProtocolException& exception) {
    return ToResponse(ToRefusal(exception, isWrite, link));
  } catch (const programs::Failure& failure) {
    return ToResponse(Refusal(StatusOf(failure.GetCode()), failure.what()));
  } catch (const std::bad_alloc&) {
    return ToResponse(Refusal(503, "out of memory", {}, {{"Retry-After", "1"}}));
  } catch (const std::exception& exception) {
    return ToResponse(Refusal(500, exception.what()));
  }
}

}  // namespace tavix::web
