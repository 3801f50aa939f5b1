#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/session/BridgeSocket.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/terminal/PrintedBridge.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonPlaces.h"
#include "programs/common/client/Spelling.h"

// What the bridges of this device report. They are asked by themselves, without the server.
namespace tavix::programs::cli {

namespace {

struct Options {
  std::string name;
  bool hasName = false;
  std::string runtime = kBridgeRuntime;
  std::string from;
  bool hasFrom = false;
  bool isAccepted = false;
};

// What is asked, and how the answer is shown. With several bridges, each is titled.
struct Question {
  std::string request;
  ShowBridge* show;
  bool isAlwaysTitled = false;
};

// One at least.
std::set<std::string> FindNames(const Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  const GlobalOptions& global = context.GetOptions();
  if (!global.server.empty() || (!global.local.empty() && !global.isLocalReadOnly))
    throw Failure(kExitUsage, "--server and --local don't belong to 'bridge', which asks the bridges of this device");
  if (options.runtime.empty()) throw Failure(kExitUsage, "--runtime: expected a folder, found an empty text");
  if (options.hasName) return {options.name};
  std::set<std::string> names = FindBridges(options.runtime);
  if (names.empty())
    throw Failure(kExitNoServer,
                  "no bridge is running: there is no 'bridge-NAME.sock' in '" + SpellValue(options.runtime) + "'");
  return names;
}

// What of an answer is printed, without a line feed behind JSON.
std::string Ask(const Context& context, const Options& options, const std::string& name, const Question& question,
                int& code) {
  const GlobalOptions& global = context.GetOptions();
  if (global.verbose) Console::Trace('>', question.request);
  std::string text = AskBridge(options.runtime, name, question.request, global.GetTimeout());
  text.pop_back();
  if (global.verbose) Console::Trace('<', SpellValue(text));
  const std::string source = "bridge '" + name + "'";
  const JsonPlaces answer = ListJsonPlaces(text, source);
  if (answer.count("error") != 0)
    throw Failure(kExitNotApplied, source + ": " + SpellValue(TakePlace(answer, source, "error", kJsonText)));
  const std::string shown = question.show(context.GetConsole(), answer, source, code);
  return context.PrintsJson() ? WithoutControls(text) : shown;
}

// A bridge that can't be asked does not keep the others from being shown. Returns the highest of all exit codes.
int PrintAnswers(Context& context, const Options& options, const Question& question) {
  const std::set<std::string> names = FindNames(context, options);
  const bool isTitled = question.isAlwaysTitled || names.size() > 1;
  Console& console = context.GetConsole();
  int highest = kExitDone;
  const char* before = context.PrintsJson() ? "{" : "";
  for (const std::string& name : names) {
    int code = kExitDone;
    std::string shown;
    try {
      shown = Ask(context, options, name, question, code);
    } catch (const Failure& failure) {
      Console::ReportFailure(failure.what(), failure.GetHint());
      code = failure.GetCode();
      shown = context.PrintsJson() ? "{\"error\": " + Compact(ValueToJson(std::string(failure.what()))) + "}" : "";
    }
    highest = std::max(highest, code);
    if (context.PrintsJson()) {
      console.Print(before + ("\n\"" + name + "\": ") + shown);
      before = ",";
    } else if (code <= kExitNo) {
      console.Print(before);
      if (isTitled) PrintFigure(console, "bridge", name);
      console.Print(shown);
      before = "\n";
    }
  }
  if (context.PrintsJson()) console.Print("\n}\n");
  return highest;
}

std::string ShowSync(const Console& console, const JsonPlaces& answer, const std::string& source, int&) {
  const std::string groups = TakePlace(answer, source, "groups", kJsonNumber);
  if (TakePlace(answer, source, "done", kJsonTrue).empty())
    throw Failure(kExitNotApplied, "not applied: " + source + " refused it");
  console.Say("done: " + groups + (groups == "1" ? " group" : " groups"));
  return std::string();
}

std::string FindRequest(const Options& options) {
  if (options.isAccepted) return "sync accept";
  if (options.from == "centre" || options.from == "device") return "sync from=" + options.from;
  if (!options.hasFrom)
    throw Failure(kExitUsage, "expected --from or --accept", "try 'tavix-settings bridge sync --help'");
  throw Failure(kExitUsage, "--from: expected 'centre' or 'device', found '" + SpellValue(options.from) + "'");
}

// Nothing is brought in sync that was not named.
int Sync(Context& context, const Options& options) {
  const Question question{FindRequest(options), ShowSync};
  const std::set<std::string> names = FindNames(context, options);
  if (names.size() > 1)
    throw Failure(kExitUsage, "there are several bridges: '" + *names.begin() + "' and others",
                  "choose one with --name");
  return PrintAnswers(context, options, question);
}

int PrintStatus(Context& context, const Options& options) {
  return PrintAnswers(context, options, {"status", ShowBridgeStatus, true});
}

int PrintDifferences(Context& context, const Options& options) {
  return PrintAnswers(context, options, {"diff", ShowBridgeDifferences});
}

int PrintConflicts(Context& context, const Options& options) {
  return PrintAnswers(context, options, {"conflicts", ShowBridgeConflicts});
}

}  // namespace

void AddBridge(CommandLine& line) {
  const CommandOptions group = line.AddGroup("bridge", "Show the bridges of this device, and bring them in sync");
  const auto options = std::make_shared<Options>();
  const auto add = [&](const char* name, const char* description, int (*run)(Context&, const Options&)) {
    const CommandOptions command =
        line.AddTo(group, name, description, [options, run](Context& context) { return run(context, *options); });
    command.AddText("--name", options->name, "The bridge that is meant").SetWhenGiven(options->hasName);
    command.AddText("--runtime", options->runtime, "The folder of the bridges' sockets");
    return command;
  };
  add("status", "Tell whether all is in sync with the other end, and why not", PrintStatus);
  add("diff", "Print what differs between here and there", PrintDifferences);
  add("conflicts", "Print the last 100 settings that both ends changed", PrintConflicts);
  const CommandOptions sync = add("sync", "Decide what a bridge leaves to a person", Sync);
  const DeclaredOption from =
      sync.AddText("--from", options->from, "Who is right: centre or device").SetWhenGiven(options->hasFrom);
  sync.AddFlag("--accept", options->isAccepted, "Accept the losses that are held").Exclude(from);
}

}  // namespace tavix::programs::cli
