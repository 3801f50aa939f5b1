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

// The layers that a value comes from.
constexpr char kRestricted[] = "restricted";
constexpr char kUser[] = "user";
constexpr char kDefault[] = "default";

// Where the value of a key comes from.
struct Cause {
  std::string origin;
  std::optional<Revision> revision;  // of a user's; none: it is older than what is known
  std::optional<std::string> after;  // what that change left
};

using Causes = std::map<std::string, Cause>;

// The last change of each key that users set. Changes up to "oldest" may be missing, and count for nothing; so may the
// settings of an entry. Returns up to which revision those may have been set for which none is found.
uint64_t FindRevisions(Session& session, const std::string& group, uint64_t oldest, Causes& causes) {
  constexpr size_t kPage = 64;
  auto open = static_cast<size_t>(
      std::count_if(causes.begin(), causes.end(), [](const auto& cause) { return cause.second.origin == kUser; }));
  HistoryReader history(session, IsHistoryPattern(group) ? group : std::string());
  while (open > 0 && !history.HasEnded()) {
    for (const Revision& revision : history.ReadNext(kPage)) {
      if (revision.number <= oldest) return oldest;
      if (revision.IsGap() || !revision.omitted.empty()) return revision.number;
      for (const Change& change : revision.settings) {
        const auto cause = change.key && change.group == group ? causes.find(*change.key) : causes.end();
        if (cause == causes.end() || cause->second.origin != kUser || cause->second.revision) continue;
        cause->second.revision = revision;
        cause->second.after = change.after;
        --open;
      }
    }
  }
  return oldest;
}

// What readers see of a group, and what users set of it.
struct Seen {
  IniFile::KeyMap settings;
  IniFile::KeyMap user;

  Seen(Session& session, const std::string& group) {
    const IniFile groups = session.Get({group});
    if (!groups.HasGroup(group)) throw Failure(kExitNo, DescribeMissingGroup(session, group));
    settings = groups[group];
    session.GetEachOfUser([&](const IniFile& part) {
      if (part.begin()->first == group) user = part.begin()->second;
    });
  }
};

// Whether each change that was found left what users set by then.
bool AreAsSeen(const Causes& causes, const IniFile::KeyMap& user) {
  return std::all_of(causes.begin(), causes.end(), [&](const auto& cause) {
    const auto value = user.find(cause.first);
    return !cause.second.revision || (value != user.end() && cause.second.after == value->second);
  });
}

// What is seen and the history are asked for one behind the other. Where a change in between shows, both are asked for
// once more.
uint64_t FindCauses(Session& session, const std::string& group, uint64_t oldest, Causes& causes) {
  constexpr size_t kMaxAttempts = 2;
  uint64_t last = oldest;
  bool areAsSeen = false;
  for (size_t attempt = 0; attempt < kMaxAttempts && !areAsSeen; ++attempt) {
    const Seen seen(session, group);
    const char* const origin = session.IsRestricted(group) ? kRestricted : kDefault;
    causes.clear();
    for (const auto& [key, value] : seen.settings)
      causes[key].origin = origin == kDefault && seen.user.count(key) != 0 ? kUser : origin;
    last = FindRevisions(session, group, oldest, causes);
    areAsSeen = AreAsSeen(causes, seen.user);
  }
  return last;
}

std::string Describe(const Cause& cause, uint64_t last, AuthorNames& names) {
  if (cause.origin != kUser) return cause.origin;
  if (!cause.revision) return "before " + std::to_string(last + 1);
  const Revision& revision = *cause.revision;
  return std::to_string(revision.number) + "  " + ShowLocalTime(revision.time) + "  " + names.Find(revision.author) +
         (revision.note.empty() ? "" : "  " + SpellValue(revision.note));
}

json DescribeAsJson(const std::string& key, const Cause& cause, uint64_t last) {
  json object = {{"key", NameToJson(key)}, {"origin", cause.origin}};
  if (cause.origin != kUser) return object;
  if (!cause.revision) {
    object["before"] = last + 1;
    return object;
  }
  object["revision"] = cause.revision->number;
  object["time"] = ShowTime(cause.revision->time);
  object["by"] = AuthorToJson(cause.revision->author);
  if (!cause.revision->note.empty()) object["note"] = ValueToJson(cause.revision->note);
  return object;
}

void Print(Context& context, const Causes& causes, uint64_t last) {
  Console& console = context.GetConsole();
  if (context.PrintsJson()) {
    json all = json::array();
    for (const auto& [key, cause] : causes) all.push_back(DescribeAsJson(key, cause, last));
    console.Print(Pretty(all));
    return;
  }
  AuthorNames names(context.GetSession().GetAddress());
  size_t width = 0;
  for (const auto& [key, cause] : causes) width = std::max(width, SpellKey(key).size());
  for (const auto& [key, cause] : causes) {
    const std::string name = SpellKey(key);
    console.Print(console.Paint(Console::kKey, name) + std::string(width - name.size() + 2, ' ') +
                  Describe(cause, last, names) + "\n");
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
  Causes causes;
  const uint64_t last = FindCauses(session, group, FindOldestRevision(session), causes);
  Print(context, causes, last);
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
