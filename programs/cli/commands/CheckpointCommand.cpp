#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Features.h"
#include "programs/cli/commands/HistoryWords.h"
#include "programs/cli/terminal/Documents.h"
#include "programs/cli/text/LocalTime.h"
#include "programs/cli/text/UtcTime.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using core::IniFile;
using nlohmann::json;

namespace {

struct Options {
  std::string name;
  bool hasName = false;
  bool isForgotten = false;
};

// A copy of the user settings that the server keeps.
struct Checkpoint {
  std::string name;
  std::string damage;  // empty: it can be read
  std::string bytes;
  Revision revision;  // its number and its time

  Checkpoint(const std::string& group, IniFile::KeyMap keys)
      : name(group), damage(keys["damaged"]), bytes(keys["bytes"]), revision(Revision::From(keys["revision"], keys)) {}

  std::string Describe() const {
    if (!damage.empty()) return "damaged: " + SpellValue(damage);
    return "revision " + std::to_string(revision.number) + "  " + ShowLocalTime(revision.time) + "  " +
           SpellValue(bytes) + " bytes";
  }
};

json ToJson(const Checkpoint& checkpoint) {
  json object = {{"name", NameToJson(checkpoint.name)},
                 {"bytes", std::strtoull(checkpoint.bytes.c_str(), nullptr, 10)}};
  if (checkpoint.damage.empty()) {
    object["revision"] = checkpoint.revision.number;
    object["time"] = ShowTime(checkpoint.revision.time);
  } else {
    object["damaged"] = ValueToJson(checkpoint.damage);
  }
  return object;
}

void Print(Context& context, const IniFile& data) {
  json all = json::array();
  for (const auto& [name, keys] : data) {
    const Checkpoint checkpoint(name, keys);
    if (context.PrintsJson()) {
      all.push_back(ToJson(checkpoint));
    } else {
      context.GetConsole().Print(SpellName(name) + "  " + checkpoint.Describe() + "\n");
    }
  }
  if (context.PrintsJson()) context.GetConsole().Print(Pretty(all));
}

int List(Context& context) {
  const IniFile data = AskOrFail(context.GetSession(), "checkpoint", Session::Effect::kNoSettings);
  Print(context, data);
  if (data.IsEmpty()) context.GetConsole().Say("no checkpoints");
  return kExitDone;
}

int RunCheckpoint(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  if (options.hasName) RequireKeptName(options.name, "checkpoint");
  Session& session = context.GetSession();
  RequireHistory(session);
  if (!options.hasName) return List(context);
  if (options.isForgotten) {
    AskOrFail(session, "forget " + options.name, Session::Effect::kNoSettings, "not applied: ");
    context.GetConsole().Say("done: forgot checkpoint " + options.name);
    return kExitDone;
  }
  Print(context, AskOrFail(session, "checkpoint " + options.name, Session::Effect::kNoSettings, "not applied: "));
  context.GetConsole().Say("done: bring it back by: " + ShowCommand(context.GetOptions(), "rollback @" + options.name));
  return kExitDone;
}

}  // namespace

void AddCheckpoint(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("checkpoint", "Keep a copy of the user settings under a name, or list those kept",
               [options](Context& context) { return RunCheckpoint(context, *options); });
  const DeclaredOption name = command.AddText("NAME", options->name, "The copy's name; one of that name is replaced")
                                  .SetWhenGiven(options->hasName);
  command.AddFlag("--forget", options->isForgotten, "Remove the copy instead").Need(name);
}

}  // namespace tavix::programs::cli
