#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

int PrintSubscribers(Context& context) {
  context.RequireOutput({Output::kJson, Output::kValue});
  const std::vector<std::string> names = context.GetSession().GetSubscribed();
  if (context.PrintsJson()) {
    nlohmann::json list = nlohmann::json::array();
    for (const std::string& name : names) list.push_back(NameToJson(name));
    context.GetConsole().Print(Pretty(list));
    return kExitDone;
  }
  for (const std::string& name : names) context.GetConsole().Print(SpellName(name) + "\n");
  return kExitDone;
}

}  // namespace

void AddSubscribers(CommandLine& line) {
  line.Add("subscribers", "Print the groups and patterns that programs have subscribed to", PrintSubscribers);
}

}  // namespace tavix::programs::cli
