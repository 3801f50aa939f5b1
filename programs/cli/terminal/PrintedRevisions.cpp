#include "programs/cli/terminal/PrintedRevisions.h"

#include <pwd.h>

#include <charconv>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <utility>

#include "programs/cli/text/LocalTime.h"
#include "programs/cli/text/UtcTime.h"
#include "programs/common/client/Backup.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs::cli {

using nlohmann::json;

namespace {

bool BeginsWith(const std::string& text, const char* begin) {
  return text.rfind(begin, 0) == 0;
}

// The last number stands for nobody.
std::optional<uid_t> ParseUser(const std::string& id) {
  uid_t number = 0;
  const char* const end = id.data() + id.size();
  const std::from_chars_result result = std::from_chars(id.data(), end, number);
  const bool isUser = result.ec == std::errc() && result.ptr == end && number != static_cast<uid_t>(-1);
  return isUser ? std::make_optional(number) : std::nullopt;
}

// As a number where it is one.
json IdToJson(const std::string& id) {
  char* end = nullptr;
  const unsigned long long number = std::strtoull(id.c_str(), &end, 10);
  return *end == '\0' ? json(number) : ValueToJson(id);
}

// Neither an empty value nor none looks like a value.
std::string ShowSide(const Console& console, const std::optional<std::string>& value, Console::Color color) {
  constexpr char kNone[] = "(default)";
  constexpr char kEmpty[] = "''";
  if (!value) return console.Paint(Console::kDim, kNone);
  std::string text = value->empty() ? kEmpty : SpellValue(*value);
  if (*value == kNone) text.replace(0, 1, "\\x28");
  if (*value == kEmpty) text.replace(0, 1, "\\x27");
  return console.Paint(color, text);
}

// Of the record of what was deleted, for people: a name goes or comes back.
std::string ShowDeletion(const Console& console, const Change& change) {
  const std::string name = SpellName(change.after ? *change.after : change.before.value_or(""));
  return console.Paint(Console::kGroup, "[" + name + "]") + (change.after ? ": deleted" : ": no longer deleted");
}

std::string ShowChange(const Console& console, const Change& change) {
  if (change.group == kDeletedGroups && change.key) return ShowDeletion(console, change);
  const std::string group = console.Paint(Console::kGroup, "[" + SpellName(change.group) + "]");
  if (!change.key) return group + (change.hasCome ? ": group added" : ": group removed");
  return group + console.Paint(Console::kKey, SpellKey(*change.key)) + ": " +
         ShowSide(console, change.before, Console::kRemoved) + " -> " +
         ShowSide(console, change.after, Console::kAdded);
}

}  // namespace

AuthorNames::AuthorNames(const std::string& address)
    : _isSameMachine(BeginsWith(address, "unix:") || BeginsWith(address, "127.") || BeginsWith(address, "[::1]")) {}

std::string AuthorNames::Find(const Author& author) {
  if (author.connection == "tcp") return "over TCP";
  if (author.connection != "unix") return "the server";
  auto user = _users.find(author.user);
  if (user == _users.end()) user = _users.emplace(author.user, FindUser(author.user)).first;
  return author.process.empty() ? user->second : user->second + ", process " + SpellValue(author.process);
}

std::string AuthorNames::FindUser(const std::string& id) const {
  if (id.empty()) return "somebody";
  const std::optional<uid_t> number = _isSameMachine ? ParseUser(id) : std::nullopt;
  const passwd* const entry = number ? getpwuid(*number) : nullptr;
  return entry != nullptr ? SpellValue(entry->pw_name) : "user " + SpellValue(id);
}

void PrintRecordedChanges(Console& console, size_t indent, const std::vector<Change>& changes) {
  for (const Change& change : changes) console.Print(std::string(indent, ' ') + ShowChange(console, change) + "\n");
}

void PrintRevision(Console& console, AuthorNames& names, const Revision& revision) {
  const std::string number = std::to_string(revision.number);
  std::string line = number + "  " + ShowLocalTime(revision.time) + "  ";
  if (revision.IsGap()) {
    console.Print(line + "changes up to this one are missing\n");
    return;
  }
  line += names.Find(revision.author) + "  " + SpellValue(revision.command == "-" ? "call" : revision.command);
  const std::string note = revision.note.empty() && revision.command == "revert" ? revision.trial : revision.note;
  if (!note.empty()) line += "  " + SpellValue(note);
  console.Print(line + "\n");
  const size_t indent = number.size() + 2;
  if (!revision.omitted.empty())
    console.Print(std::string(indent, ' ') + "too long to be shown: " + SpellValue(revision.omitted) + " bytes\n");
  PrintRecordedChanges(console, indent, revision.settings);
}

json AuthorToJson(const Author& author) {
  json object = {{"connection", ValueToJson(author.connection)}};
  if (!author.user.empty()) object["user"] = IdToJson(author.user);
  if (!author.group.empty()) object["group"] = IdToJson(author.group);
  if (!author.process.empty()) object["process"] = IdToJson(author.process);
  return object;
}

json RevisionToJson(const Revision& revision) {
  json object = {{"revision", revision.number},
                 {"time", ShowTime(revision.time)},
                 {"by", AuthorToJson(revision.author)},
                 {"command", ValueToJson(revision.command)}};
  if (!revision.note.empty()) object["note"] = ValueToJson(revision.note);
  if (!revision.trial.empty()) object["trial"] = ValueToJson(revision.trial);
  if (!revision.omitted.empty()) object["omitted_bytes"] = IdToJson(revision.omitted);
  json& changes = object["changes"] = json::array();
  for (const Change& change : revision.settings) changes.push_back(ToJson(change));
  return object;
}

json TrialToJson(const TrialState& trial) {
  json object = {
      {"name", NameToJson(trial.name)}, {"state", ValueToJson(trial.state)}, {"by", AuthorToJson(trial.author)}};
  if (!trial.seconds.empty()) object["seconds"] = std::strtoull(trial.seconds.c_str(), nullptr, 10);
  if (trial.revision != 0) object["revision"] = trial.revision;
  if (!trial.note.empty()) object["note"] = ValueToJson(trial.note);
  json& changes = object["changes"] = json::array();
  for (const Change& change : trial.settings) changes.push_back(ToJson(change));
  if (trial.kept.empty()) return object;
  json& kept = object["kept"] = json::array();
  for (const Change& change : trial.kept) {
    json name = {{"group", NameToJson(change.group)}};
    if (change.key) name["key"] = NameToJson(*change.key);
    kept.push_back(std::move(name));
  }
  return object;
}

}  // namespace tavix::programs::cli
