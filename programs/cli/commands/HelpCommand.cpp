#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

void AddHelp(CommandLine& line) {
  const auto name = std::make_shared<std::string>();
  const CommandOptions command = line.Add("help", "Show the help of a command", [name](Context& context) {
    // Not the one that was just parsed: what it was asked for would take the place of what is to be shown.
    context.GetConsole().Print(CommandLine().GetHelp(*name));
    return kExitDone;
  });
  command.AddText("COMMAND", *name, "The command; the program's own help without it");
}

}  // namespace tavix::programs::cli
