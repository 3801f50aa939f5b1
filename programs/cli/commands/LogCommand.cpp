#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Features.h"
#include "programs/cli/commands/HistoryWords.h"
#include "programs/cli/terminal/PrintedRevisions.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using nlohmann::json;

namespace {

struct Options {
  std::string word;
  bool hasWord = false;
  size_t count = 0;  // 0: all
};

// What comes first is out at once: somebody may be waiting for it, or have seen enough. Returns how many were printed.
size_t PrintHistory(Context& context, const Options& options, HistoryReader& history, PrettyParts& parts) {
  constexpr size_t kPage = 32;
  Console& console = context.GetConsole();
  AuthorNames names(context.GetSession().GetAddress());
  size_t printed = 0;
  while (!history.HasEnded() && (options.count == 0 || printed < options.count)) {
    const size_t wanted = options.count == 0 ? kPage : std::min(kPage, options.count - printed);
    for (const Revision& revision : history.ReadNext(wanted)) {
      if (options.count != 0 && printed == options.count) break;
      ++printed;
      if (context.PrintsJson()) {
        console.Print(parts.Add(json::array({RevisionToJson(revision)})));
      } else {
        PrintRevision(console, names, revision);
      }
    }
    console.Flush();
  }
  return printed;
}

// JSON that was begun has its end, whatever happens: the exit status shows that it is a part.
int Log(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  const std::string pattern = options.hasWord ? ParseHistoryPattern(options.word) : std::string();
  Session& session = context.GetSession();
  RequireHistory(session);
  HistoryReader history(session, pattern);
  Console& console = context.GetConsole();
  PrettyParts parts("[]");
  size_t printed = 0;
  try {
    printed = PrintHistory(context, options, history, parts);
  } catch (const Failure&) {
    if (context.PrintsJson()) console.Print(parts.Finish());
    throw;
  }
  if (context.PrintsJson()) console.Print(parts.Finish());
  if (printed == 0)
    console.Say(pattern.empty() ? "no changes are kept" : "no change of '" + SpellName(pattern) + "' is kept");
  return kExitDone;
}

}  // namespace

void AddLog(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command = line.Add("log", "Print who changed what, the latest change first",
                                          [options](Context& context) { return Log(context, *options); });
  command.AddText("PATTERN", options->word, "A group or '*' pattern whose settings alone are shown; all without it")
      .SetWhenGiven(options->hasWord);
  command.AddCount("-n,--count", options->count, "Print so many changes");
}

}  // namespace tavix::programs::cli
