#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/session/Latency.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"

namespace tavix::programs::cli {

namespace {

int Ping(Context& context) {
  context.RequireOutput({Output::kJson});
  Session& session = context.GetSession();
  const double latency = MeasureLatency(session);
  if (context.PrintsJson()) {
    context.GetConsole().Print(
        Pretty({{"server", NameToJson(session.GetAddress())}, {"reachable", true}, {"latency_ms", latency}}));
  } else {
    PrintFigure(context.GetConsole(), "server", session.GetAddress());
    PrintFigure(context.GetConsole(), "latency", ShowMilliseconds(latency));
  }
  return kExitDone;
}

}  // namespace

void AddPing(CommandLine& line) {
  line.Add("ping", "Tell whether the server is reachable, and how quickly it answers", Ping);
}

}  // namespace tavix::programs::cli
