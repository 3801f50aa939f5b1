#include "programs/common/client/Import.h"

#include <nlohmann/json.hpp>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Failure.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/web/interface/Batches.h"

namespace tavix::web {

using nlohmann::json;
using programs::ImportOptions;

namespace {

constexpr char kSource[] = "body";

// Of an error that begins with "body:LINE:".
Refusal ToRefusal(const programs::Failure& failure) {
  const std::string text = failure.what();
  const std::string begin = std::string(kSource) + ":";
  const size_t at = text.find(begin);
  Refusal::Members members{{"outcome", Quoted("nothing written")}};
  if (at != std::string::npos) {
    const size_t end = text.find_first_not_of("0123456789", at + begin.size());
    if (end != at + begin.size()) members["line"] = text.substr(at + begin.size(), end - at - begin.size());
  }
  return {422, text, members};
}

ImportOptions ReadOptions(const Call& call) {
  ImportOptions options;
  const std::string mode = call.query.Find("mode").value_or("merge");
  if (mode != "merge" && mode != "replace" && mode != "replace-user")
    Refuse(400, "the parameter 'mode' is none of merge, replace and replace-user");
  options.replaces = mode != "merge";
  options.isUserLayer = mode == "replace-user";
  const std::vector<std::string> given = call.query.FindNames("pattern");
  for (const std::string& pattern : given) RequireSendable(pattern);
  options.groups = {given.begin(), given.end()};
  return options;
}

// What a text lacks that may be cut off, or that does not report what it covers, is not taken for gone.
void RequireWhole(const std::string& text, ImportOptions& options) {
  if (!options.replaces) return;
  if (programs::IsCutOff(text)) Refuse(422, "the body is a part of a backup: its last line does not mark the end");
  if (!options.groups.empty()) return;
  if (programs::LooksLikeJson(text))
    Refuse(422, "JSON does not tell what it covers: name the groups by 'pattern', or '*' for all");
  options.groups = programs::ReadCoverage(text);
}

json ListNames(const std::set<std::string>& names) {
  json list = json::array();
  for (const std::string& name : names) list.push_back(programs::NameToJson(name));
  return list;
}

json Describe(const programs::Import::Gone& gone) {
  return programs::JsonObject().Add("deleted", ListNames(gone.deleted)).Add("reset", ListNames(gone.reset)).Take();
}

Response RunImport(Call& call, ImportOptions options) {
  RequireWhole(call.request.body, options);
  core::IniFile document = programs::ParseDocument(call.request.body, kSource);
  for (const auto& [group, keys] : document) RequireUnmasked(call, group);
  const bool replaces = options.replaces;
  programs::Import backup(call.session, std::move(document), kSource, std::move(options));
  if (call.query.HasFlag("dryRun")) {
    json changes = json::array();
    backup.FindDifferences([&](const programs::Change& change) {
      if (!call.view.IsMasked(change.group)) changes.push_back(programs::ToJson(change));
    });
    json answer = programs::JsonObject().Add("dryRun", true).Add("changes", changes).Take();
    if (replaces) answer["gone"] = Describe(backup.FindGone());
    return JsonResponse(answer);
  }
  json gone;
  const programs::Import::Result result =
      backup.Run([&](const programs::Import::Gone& groups) { gone = Describe(groups); });
  json answer = programs::JsonObject().Add("differences", result.differences).Add("copies", result.copies).Take();
  if (replaces) answer["gone"] = gone;
  return JsonResponse(answer);
}

}  // namespace

Response ImportBackup(Call& call) {
  try {
    return RunImport(call, ReadOptions(call));
  } catch (const programs::Failure& failure) {
    if (failure.GetCode() == programs::kExitBadInput || failure.GetCode() == programs::kExitUsage)
      throw ToRefusal(failure);
    throw;
  }
}

}  // namespace tavix::web
