#include "programs/web/interface/Recorded.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/Spelling.h"

namespace tavix::web {

using nlohmann::json;
using programs::Revision;

namespace {

constexpr size_t kMaxCount = 256;
constexpr size_t kUsualCount = 50;
constexpr char kScanned[] = "scanned";

json RevisionToJson(const View& view, const Revision& revision) {
  json object = programs::JsonObject()
                    .Add("revision", revision.number)
                    .Add("time", FormatTime(revision.time))
                    .Add("by", AuthorToJson(revision.author))
                    .Add("command", programs::ValueToJson(revision.command))
                    .Add("changes", ChangesToJson(view, revision.settings))
                    .Take();
  if (!revision.note.empty()) object["note"] = programs::ValueToJson(revision.note);
  if (!revision.trial.empty()) object["trial"] = programs::ValueToJson(revision.trial);
  if (!revision.omitted.empty()) object["omitted_bytes"] = NumberToJson(revision.omitted);
  return object;
}

// Whether anything is left of a revision, or it stands for what can't be shown.
bool KeepOnly(const RecordedGroups& groups, Revision& revision) {
  std::vector<programs::Change>& settings = revision.settings;
  if (settings.empty()) return true;
  const auto isOther = [&](const programs::Change& change) { return !groups.Includes(change); };
  settings.erase(std::remove_if(settings.begin(), settings.end(), isOther), settings.end());
  return !settings.empty();
}

std::string FindLine(const Query& query, const RecordedGroups& groups) {
  constexpr size_t kMaxRevision = std::numeric_limits<size_t>::max();
  const bool hasBefore = query.Find("before").has_value();
  const size_t before = query.FindNumber("before", 0, kMaxRevision, 0);
  const size_t count = query.FindNumber("count", 1, kMaxCount, kUsualCount);
  return programs::Join(
      {"history ", (hasBefore ? std::to_string(before) : "-"), " ", std::to_string(count), groups.words});
}

}  // namespace

json NumberToJson(const std::string& text) {
  char* end = nullptr;
  const unsigned long long number = std::strtoull(text.c_str(), &end, 10);
  return !text.empty() && *end == '\0' ? json(number) : programs::ValueToJson(text);
}

std::string FormatTime(std::chrono::system_clock::time_point time) {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  const auto sinceEpoch = duration_cast<milliseconds>(time.time_since_epoch());
  const auto whole = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  const std::time_t seconds = whole.count();
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  const std::string fraction = std::to_string(1000 + (sinceEpoch - whole).count());
  return programs::Join({text, ".", fraction.substr(1), "Z"});
}

// The line ends with the name or pattern, without the blanks around it.
RecordedGroups RecordedGroups::From(const std::optional<std::string>& pattern,
                                    const std::optional<std::string>& group) {
  if (pattern && group) Refuse(400, "'pattern' and 'group' exclude one another");
  if (!pattern && !group) return {};
  const std::string& name = group ? *group : *pattern;
  RequireSendable(name);
  constexpr char kBlanks[] = " \t\r";
  const bool hasBlanks = name.find_first_not_of(kBlanks) != 0 || name.find_last_of(kBlanks) == name.size() - 1;
  if (hasBlanks && pattern) Refuse(422, {"the history can't be asked for '", programs::SpellName(name), "'"});
  RecordedGroups groups;
  if (!hasBlanks && name != "*") groups.words = " " + name;
  if (group && (hasBlanks || name.find('*') != std::string::npos)) groups.group = name;
  return groups;
}

bool RecordedGroups::Includes(const programs::Change& change) const {
  if (!MayFindOthers() || change.group == group) return true;
  return change.group == programs::kDeletedGroups &&
         (change.key == group || change.before == group || change.after == group);
}

json AuthorToJson(const programs::Author& author) {
  json object = programs::JsonObject().Add("connection", programs::ValueToJson(author.connection)).Take();
  if (!author.user.empty()) object["user"] = NumberToJson(author.user);
  if (!author.group.empty()) object["group"] = NumberToJson(author.group);
  if (!author.process.empty()) object["process"] = NumberToJson(author.process);
  return object;
}

json ChangesToJson(const View& view, const std::vector<programs::Change>& changes) {
  json list = json::array();
  for (const programs::Change& change : changes) {
    if (!view.IsMasked(change.group)) list.push_back(programs::ToJson(change));
  }
  return list;
}

Response ShowHistory(Call& call) {
  const RecordedGroups groups = RecordedGroups::From(call.query.FindName("pattern"), call.query.FindName("group"));
  const std::string line = FindLine(call.query, groups);
  call.link.RequireFeature("history");
  const auto answer = call.link.Get().Ask(line);
  if (answer.isRefused) Refuse(409, {programs::SpellValue(answer.reason)});
  std::vector<Revision> revisions;
  for (const auto& [name, keys] : answer.data) {
    if (name == kScanned) continue;
    Revision revision = Revision::From(name, keys);
    if (KeepOnly(groups, revision)) revisions.push_back(std::move(revision));
  }
  std::sort(revisions.begin(), revisions.end(),
            [](const Revision& left, const Revision& right) { return left.number > right.number; });
  json document = programs::JsonObject().Add("revisions", json::array()).Add("next", nullptr).Take();
  for (const Revision& revision : revisions) document["revisions"].push_back(RevisionToJson(call.view, revision));
  const bool hasMore = answer.data.HasValue(kScanned, "more") && answer.data.GetValue(kScanned, "more") == "true";
  if (hasMore && answer.data.HasValue(kScanned, "next"))
    document["next"] = NumberToJson(answer.data.GetValue(kScanned, "next"));
  return JsonResponse(document);
}

}  // namespace tavix::web
