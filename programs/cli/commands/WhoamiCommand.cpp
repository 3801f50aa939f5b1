#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

namespace {

int Whoami(Context& context) {
  context.RequireOutput({Output::kJson});
  const std::map<std::string, std::string> figures = context.GetSession().GetWhoami();
  if (figures.empty()) throw Failure(kExitNotApplied, "the server is too old to report how it sees its clients");
  if (context.PrintsJson()) {
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [name, value] : figures) object[NameToJson(name).get<std::string>()] = ValueToJson(value);
    context.GetConsole().Print(Pretty(object));
    return kExitDone;
  }
  for (const auto& [name, value] : figures) PrintFigure(context.GetConsole(), SpellKey(name), SpellValue(value));
  return kExitDone;
}

}  // namespace

void AddWhoami(CommandLine& line) {
  line.Add("whoami", "Tell how the server sees this user", Whoami);
}

}  // namespace tavix::programs::cli
