#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "programs/cli/commands/CommandLine.h"
#include "programs/cli/commands/Commands.h"
#include "programs/cli/commands/Features.h"
#include "programs/cli/commands/HistoryWords.h"
#include "programs/cli/session/Missing.h"
#include "programs/cli/terminal/PrintedRevisions.h"
#include "programs/cli/text/LocalTime.h"
#include "programs/cli/text/UtcTime.h"
#include "programs/cli/text/Words.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Layers.h"
#include "programs/common/client/Revisions.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using core::IniFile;
using nlohmann::json;

namespace {

struct Options {
  std::string word;
  bool isEmptyAllowed = false;
};

// Where the value of a key comes from.
struct Cause {
  std::string origin;                // as Layers has it
  std::optional<Revision> revision;  // of a user's; none: it is older than what is kept
};

using Causes = std::map<std::string, Cause>;

// The last change of each key that users set. Changes up to "oldest" may be missing, and count for nothing.
void FindRevisions(Session& session, const std::string& group, uint64_t oldest, Causes& causes) {
  constexpr size_t kPage = 64;
  auto open = static_cast<size_t>(
      std::count_if(causes.begin(), causes.end(), [](const auto& cause) { return cause.second.origin == "user"; }));
  HistoryReader history(session, IsHistoryPattern(group) ? group : std::string());
  while (open > 0 && !history.HasEnded()) {
    for (const Revision& revision : history.ReadNext(kPage)) {
      if (revision.number <= oldest) return;
      for (const Change& change : revision.settings) {
        const auto cause = change.key && change.group == group ? causes.find(*change.key) : causes.end();
        if (cause == causes.end() || cause->second.origin != "user" || cause->second.revision) continue;
        cause->second.revision = revision;
        --open;
      }
    }
  }
}

std::string Describe(const Cause& cause, uint64_t oldest, const AuthorNames& names) {
  if (cause.origin != "user") return cause.origin;
  if (!cause.revision) return "before " + std::to_string(oldest + 1);
  const Revision& revision = *cause.revision;
  return std::to_string(revision.number) + "  " + ShowLocalTime(revision.time) + "  " + names.Find(revision.author) +
         (revision.note.empty() ? "" : "  " + SpellValue(revision.note));
}

json DescribeAsJson(const std::string& key, const Cause& cause, uint64_t oldest) {
  json object = {{"key", NameToJson(key)}, {"origin", cause.origin}};
  if (cause.origin != "user") return object;
  if (!cause.revision) {
    object["before"] = oldest + 1;
    return object;
  }
  object["revision"] = cause.revision->number;
  object["time"] = ShowTime(cause.revision->time);
  object["by"] = AuthorToJson(cause.revision->author);
  if (!cause.revision->note.empty()) object["note"] = ValueToJson(cause.revision->note);
  return object;
}

void Print(Context& context, const Causes& causes, uint64_t oldest) {
  Console& console = context.GetConsole();
  if (context.PrintsJson()) {
    json all = json::array();
    for (const auto& [key, cause] : causes) all.push_back(DescribeAsJson(key, cause, oldest));
    console.Print(Pretty(all));
    return;
  }
  const AuthorNames names(context.GetSession().GetAddress());
  size_t width = 0;
  for (const auto& [key, cause] : causes) width = std::max(width, SpellKey(key).size());
  for (const auto& [key, cause] : causes) {
    const std::string name = SpellKey(key);
    console.Print(console.Paint(Console::kKey, name) + std::string(width - name.size() + 2, ' ') +
                  Describe(cause, oldest, names) + "\n");
  }
}

int Blame(Context& context, const Options& options) {
  context.RequireOutput({Output::kJson});
  const std::set<std::string> groups = ParseGroups({options.word});
  RefuseEmptyName(groups, options.isEmptyAllowed);
  const std::string& group = *groups.begin();
  RefusePattern(group);
  Session& session = context.GetSession();
  RequireHistory(session);
  const IniFile settings = session.Get(groups);
  if (!settings.HasGroup(group)) throw Failure(kExitNo, DescribeMissingGroup(session, group));
  const Layers layers(session);
  const uint64_t oldest = FindOldestRevision(session);
  Causes causes;
  for (const auto& [key, value] : settings[group]) causes[key].origin = layers.FindOrigin(group, key);
  FindRevisions(session, group, oldest, causes);
  Print(context, causes, oldest);
  return kExitDone;
}

}  // namespace

void AddBlame(CommandLine& line) {
  const auto options = std::make_shared<Options>();
  const CommandOptions command =
      line.Add("blame", "Print for each setting of a group which change made it what it is, when and by whom",
               [options](Context& context) { return Blame(context, *options); });
  command.AddText("GROUP", options->word, "The group").Require();
  command.AddFlag("--allow-empty", options->isEmptyAllowed, "Take an empty text as the name of a group");
}

}  // namespace tavix::programs::cli
