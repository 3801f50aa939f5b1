#include "programs/web/interface/Reads.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/common/client/Spelling.h"
#include "programs/web/http/EntityTags.h"
#include "programs/web/interface/JsonParts.h"
#include "programs/web/interface/Origins.h"
#include "tavix/core/MemoryStream.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using programs::NameToJson;

namespace {

constexpr size_t kMaxGroups = 1000;

// The names behind "after" that match, no more than one beyond the limit.
std::set<std::string> FindNames(Call& call, const std::set<std::string>& patterns, const std::string* after,
                                size_t limit) {
  std::set<std::string> names;
  call.session.GetEachName(patterns, [&](const std::string& name) {
    if (names.size() <= limit && (!after || name > *after)) names.insert(names.end(), name);
  });
  return names;
}

std::set<std::string> FindPatterns(const Query& query) {
  const std::vector<std::string> given = query.FindNames("pattern");
  if (given.empty()) return {"*"};
  for (const std::string& pattern : given) RequireSendable(pattern);
  return {given.begin(), given.end()};
}

}  // namespace

// Only what one answer shows is read with its values. A group that goes between the two readings is left out.
Response ListGroups(Call& call) {
  const size_t limit = call.query.FindNumber("limit", 1, kMaxGroups, kMaxGroups);
  const std::optional<std::string> after = call.query.FindName("after");
  std::set<std::string> names = FindNames(call, FindPatterns(call.query), after ? &*after : nullptr, limit);
  json next = nullptr;
  if (names.size() > limit) {
    names.erase(std::prev(names.end()));
    next = NameToJson(*names.rbegin());
  }
  JsonParts groups(call.size, "{\"groups\":[");
  if (!names.empty()) {
    const Origins origins(call, names);
    call.session.GetEach(names, [&](const IniFile& part) {
      const auto& [name, keys] = *part.begin();
      if (names.count(name) == 0) return;  // a name with a '*' brought it
      groups.Add(programs::JsonObject()
                     .Add("name", NameToJson(name))
                     .Add("version", call.view.FindVersion(name, keys))
                     .Add("origin", origins.Find(name, keys))
                     .Add("keys", keys.size())
                     .Take());
    });
  }
  return TextResponse(groups.Finish(programs::Join({"],\"next\":", programs::Compact(next), "}"})));
}

Response ListTree(Call& call) {
  const std::string prefix = call.query.FindName("prefix").value_or("");
  if (prefix.find('\n') != std::string::npos) RequireSendable(prefix);
  struct Branch {
    size_t groups = 0;
    bool isGroup = false;
  };
  std::map<std::string, Branch> branches;
  call.session.GetEachName({prefix + "*"}, [&](const std::string& name) {
    if (name.compare(0, prefix.size(), prefix) != 0) return;  // a '*' of the prefix brought it
    const size_t slash = name.find('/', prefix.size());
    const bool isGroup = slash == std::string::npos;
    const auto [found, isNew] = branches.try_emplace(name.substr(0, isGroup ? name.size() : slash + 1));
    if (isNew) call.size.Add(found->first.size() + sizeof *found);
    Branch& branch = found->second;
    ++branch.groups;
    branch.isGroup = isGroup;
  });
  JsonParts parts(call.size, "{\"parts\":[");
  for (const auto& [name, branch] : branches)
    parts.Add(programs::JsonObject()
                  .Add("name", NameToJson(name))
                  .Add("count", branch.groups)
                  .Add("isGroup", branch.isGroup)
                  .Take());
  return TextResponse(parts.Finish(programs::Join({"],\"prefix\":", Quoted(prefix), "}"})));
}

Response ShowGroup(Call& call) {
  const std::string name = call.query.RequireName("name");
  RequireSendable(name);
  const bool isRead = call.reads.Has(name);
  const std::optional<IniFile::KeyMap> fresh = isRead ? std::nullopt : call.ReadGroup(name);
  const IniFile::KeyMap* const keys = isRead ? call.reads.Find(name).keys : fresh ? &*fresh : nullptr;
  if (!keys) Refuse(404, {"there is no group '", programs::SpellName(name), "'"}, {{"group", name}});
  const std::string version = call.view.FindVersion(name, *keys);
  const Headers headers{{"ETag", programs::Join({"\"", version, "\""})}};
  const std::string* const known = call.request.Find("if-none-match");
  if (known && NamesVersion(*known, version, true)) return {304, headers, ""};
  const Origins origins(call, {name});
  const bool isMasked = call.view.IsMasked(name);
  JsonParts settings(call.size, "{\"keys\":{");
  for (const auto& [key, value] : *keys) {
    const std::string origin = origins.Find(name, key);
    const json shown = isMasked ? json(nullptr) : programs::ValueToJson(value);
    json setting = programs::JsonObject().Add("value", shown).Add("origin", origin).Take();
    if (origin == "default") setting["default"] = shown;
    settings.Add(key, setting);
  }
  Response response = TextResponse(settings.Finish(
      programs::Join({std::string("},\"masked\":"), (isMasked ? "true" : "false"), ",\"name\":", Quoted(name),
                      ",\"origin\":\"", origins.Find(name, *keys), "\",\"version\":\"", version, "\"}"})));
  response.headers.insert(response.headers.end(), headers.begin(), headers.end());
  return response;
}

Response Export(Call& call) {
  const std::vector<std::string> given = call.query.FindNames("pattern");
  for (const std::string& pattern : given) RequireSendable(pattern);
  const std::set<std::string> groups(given.begin(), given.end());
  const std::string format = call.query.Find("format").value_or("ini");
  if (format != "ini" && format != "json") Refuse(400, "the parameter 'format' is neither ini nor json");
  core::StringOstream text;
  programs::PrettyParts parts("{}");
  if (format == "ini") text.Append(programs::DescribeCoverage(groups));
  size_t counted = 0;
  programs::ReadStoreEach(call.session, groups, call.query.HasFlag("user"), [&](const IniFile& part) {
    if (call.view.IsMasked(part.begin()->first)) return;
    if (format == "json") {
      text.Append(parts.Add(programs::ToJson(part)));
    } else {
      part.SaveToStream(text);
    }
    call.size.Add(text.GetText().size() - counted);
    counted = text.GetText().size();
  });
  text.Append(format == "json" ? parts.Finish() : programs::MarkEnd());
  const char* const type = format == "json" ? "application/json" : "text/plain; charset=utf-8";
  return {200,
          {{"Content-Type", type},
           {"Content-Disposition", programs::Join({"attachment; filename=\"settings.", format, "\""})}},
          text.TakeText()};
}

}  // namespace tavix::web
