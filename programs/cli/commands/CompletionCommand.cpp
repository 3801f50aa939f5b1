#include <memory>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/CompletionScripts.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Spelling.h"
#include "programs/common/client/Suggestion.h"

namespace tavix::programs::cli {

namespace {

int PrintScript(Context& context, const std::string& shell) {
  const char* script = shell == "bash"   ? kBashCompletion
                       : shell == "zsh"  ? kZshCompletion
                       : shell == "fish" ? kFishCompletion
                                         : nullptr;
  if (script == nullptr)
    throw Failure(kExitUsage, "there is no completion for '" + SpellValue(shell) + "', only for bash, zsh and fish");
  context.GetConsole().Print(script);
  return kExitDone;
}

}  // namespace

void AddCompletion(CommandLine& line) {
  const auto shell = std::make_shared<std::string>();
  const CommandOptions command = line.Add("completion", "Print the completion script of a shell",
                                          [shell](Context& context) { return PrintScript(context, *shell); });
  command.AddText("SHELL", *shell, "bash, zsh or fish").Require();
  command.SetFooter("For example: eval \"$(tavix-settings completion bash)\"\n");
}

}  // namespace tavix::programs::cli
