#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/common/client/Failure.h"

namespace tavix::programs::cli {

void AddVersion(CommandLine& line) {
  line.Add("version", "Show the version", [](Context& context) {
    context.GetConsole().Print("tavix-settings " TAVIX_VERSION "\n");
    return kExitDone;
  });
}

}  // namespace tavix::programs::cli
