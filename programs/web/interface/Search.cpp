#include <algorithm>
#include <nlohmann/json.hpp>

#include "programs/common/client/Join.h"
#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
#include "programs/web/interface/JsonParts.h"
#include "programs/web/interface/Reads.h"

namespace tavix::web {

using core::IniFile;
using nlohmann::json;
using programs::NameToJson;

namespace {

constexpr size_t kMaxHits = 500;
constexpr size_t kMaxBytes = 1024 * size_t{1024};  // of hits behind which more come by another request

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Where to look, what for, and behind which hit.
struct Options {
  std::string text;
  bool ignoresCase = false;
  bool inGroups = true;
  bool inKeys = true;
  bool inValues = true;
  std::optional<std::string> afterGroup;
  std::optional<std::string> afterKey;  // of that group; none: its name was the last hit

  bool IsBehind(const std::string& group, const std::string* key) const {
    if (!afterGroup || group > *afterGroup) return true;
    if (group < *afterGroup || !key) return false;
    return !afterKey || *key > *afterKey;
  }

  bool Matches(const std::string& where) const {
    if (!ignoresCase) return where.find(text) != std::string::npos;
    const auto found = std::search(where.begin(), where.end(), text.begin(), text.end(),
                                   [](char a, char b) { return Lower(a) == Lower(b); });
    return text.empty() || found != where.end();
  }
};

Options ReadOptions(const Query& query) {
  Options options;
  options.text = query.RequireName("q");
  options.ignoresCase = query.HasFlag("ignoreCase");
  options.afterGroup = query.FindName("after");
  options.afterKey = query.FindName("afterKey");
  const std::optional<std::string> places = query.Find("in");
  if (!places) return options;
  const std::string list = programs::Join({",", *places, ","});
  options.inGroups = list.find(",groups,") != std::string::npos;
  options.inKeys = list.find(",keys,") != std::string::npos;
  options.inValues = list.find(",values,") != std::string::npos;
  if (!options.inGroups && !options.inKeys && !options.inValues)
    Refuse(400, "the parameter 'in' is no list of groups, keys and values");
  return options;
}

// Collects hits until there is one too many, or they are long enough.
class Hits {
 public:
  explicit Hits(AnswerSize& size) : _list(size, "{\"hits\":[") {}

  void Add(const std::string& group, const std::string* key, const json& hit) {
    if (_count == kMaxHits || _list.GetSize() > kMaxBytes) {
      _hasMore = true;
      return;
    }
    ++_count;
    _list.Add(hit);
    _next = programs::JsonObject().Add("after", NameToJson(group)).Take();
    if (key) _next["afterKey"] = NameToJson(*key);
  }

  bool IsFull() const { return _hasMore; }

  std::string Finish() {
    return _list.Finish(programs::Join({"],\"next\":", programs::Compact(_hasMore ? _next : json(nullptr)), "}"}));
  }

 private:
  JsonParts _list;
  size_t _count = 0;
  json _next;
  bool _hasMore = false;
};

void LookAt(const Call& call, const Options& options, const IniFile& part, Hits& hits) {
  const auto& [group, keys] = *part.begin();
  if (options.inGroups && options.IsBehind(group, nullptr) && options.Matches(group))
    hits.Add(group, nullptr, programs::JsonObject().Add("group", NameToJson(group)).Add("in", "groups").Take());
  const bool isMasked = call.view.IsMasked(group);
  for (const auto& [key, value] : keys) {
    if (hits.IsFull()) return;
    if (!options.IsBehind(group, &key)) continue;
    const bool isInKey = options.inKeys && options.Matches(key);
    if (!isInKey && (isMasked || !options.inValues || !options.Matches(value))) continue;
    hits.Add(group, &key,
             programs::JsonObject()
                 .Add("group", NameToJson(group))
                 .Add("key", NameToJson(key))
                 .Add("value", isMasked ? json(nullptr) : programs::ValueToJson(value))
                 .Add("in", isInKey ? "keys" : "values")
                 .Take());
  }
}

}  // namespace

Response Search(Call& call) {
  const Options options = ReadOptions(call.query);
  Hits hits(call.size);
  call.session.GetEach({"*"}, [&](const IniFile& part) {
    if (!hits.IsFull()) LookAt(call, options, part, hits);
  });
  return TextResponse(hits.Finish());
}

}  // namespace tavix::web
