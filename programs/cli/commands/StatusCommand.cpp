#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"

namespace tavix::programs::cli {

using core::IniFile;

namespace {

struct Status {
  std::string address;
  double latency = 0;  // milliseconds
  size_t groups = 0;
  size_t restrictedGroups = 0;
  size_t settings = 0;
  size_t bytes = 0;
  size_t userGroups = 0;
};

// The quickest of three empty readings: what is measured is the way, not what else the machine does.
double MeasureLatency(Session& session) {
  using Clock = std::chrono::steady_clock;
  auto best = Clock::duration::max();
  for (int i = 0; i < 3; ++i) {
    const Clock::time_point start = Clock::now();
    session.Get({});
    best = std::min(best, Clock::now() - start);
  }
  return std::chrono::duration<double, std::milli>(best).count();
}

Status ReadStatus(Session& session) {
  Status status;
  status.address = session.GetAddress();
  status.latency = MeasureLatency(session);
  const IniFile settings = session.Get({"*"});
  for (const auto& [group, keys] : settings) status.restrictedGroups += session.IsRestricted(group) ? 1 : 0;
  status.groups = settings.GetGroups().size();
  status.settings = CountSettings(settings);
  std::ostringstream text;
  settings.SaveToStream(text);
  status.bytes = text.str().size();
  status.userGroups = session.GetUserSettings().GetGroups().size();
  return status;
}

std::string ToText(double milliseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", milliseconds);
  return text;
}

int PrintStatus(Context& context) {
  context.RequireOutput({Output::kJson});
  const Status status = ReadStatus(context.GetSession());
  Console& console = context.GetConsole();
  if (context.PrintsJson()) {
    console.Print(Pretty({{"server", NameToJson(status.address)},
                          {"reachable", true},
                          {"latency_ms", status.latency},
                          {"groups", status.groups},
                          {"restricted_groups", status.restrictedGroups},
                          {"settings", status.settings},
                          {"bytes", status.bytes},
                          {"user_groups", status.userGroups},
                          {"version", TAVIX_VERSION}}));
    return kExitDone;
  }
  console.Print("server         " + status.address + "\n");
  console.Print("latency        " + ToText(status.latency) + " ms\n");
  console.Print("groups         " + std::to_string(status.groups) + "\n");
  console.Print("  restricted   " + std::to_string(status.restrictedGroups) + "\n");
  console.Print("  user         " + std::to_string(status.userGroups) + "\n");
  console.Print("settings       " + std::to_string(status.settings) + "\n");
  console.Print("size           " + std::to_string(status.bytes) + " bytes\n");
  console.Print("version        " TAVIX_VERSION "\n");
  return kExitDone;
}

}  // namespace

void AddStatus(CommandLine& line) {
  line.Add("status,ping", "Tell whether the server is reachable, how quickly, and how much it holds", PrintStatus);
}

}  // namespace tavix::programs::cli
