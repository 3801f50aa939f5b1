#include "programs/bridge/control/Answers.h"

#include "programs/common/client/Json.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

using nlohmann::json;
using programs::Compact;
using programs::NameToJson;

namespace {

json ToJson(const std::optional<std::string>& value) {
  return programs::ValueToJson(value);
}

// What others have said may be of any bytes.
std::string TextOf(const std::string& text) {
  return programs::IsUtf8(text) ? text : programs::SpellValue(text);
}

size_t CountBytes(const std::optional<std::string>& value) {
  return value ? value->size() : 0;
}

json ToJson(const TimedConflict& timed, const Rules& rules) {
  const Conflict& conflict = timed.conflict;
  const bool isDeviceLoser = conflict.loser == Side::kDevice;
  json object{{"time", timed.time},
              {"group", NameToJson(conflict.group)},
              {"key", NameToJson(conflict.key)},
              {"winner", isDeviceLoser ? "centre" : "device"}};
  const json masked{{"masked", true}};
  const bool isMasked = rules.IsMasked(conflict.group, conflict.key);
  object["here"] = isMasked ? masked : ToJson(isDeviceLoser ? conflict.lost : conflict.kept);
  object["there"] = isMasked ? masked : ToJson(isDeviceLoser ? conflict.kept : conflict.lost);
  return object;
}

}  // namespace

std::string ComposeStatusAnswer(const BridgeStatus& status) {
  return Compact({{"name", status.name},
                  {"engine", status.engine},
                  {"state", status.isInSync ? "in sync" : "not in sync"},
                  {"link", status.link},
                  {"since", status.since},
                  {"daemon", status.isDaemonConnected ? "connected" : "lost"},
                  {"lag", status.lag},
                  {"waiting", status.waiting},
                  {"conflicts", status.conflicts},
                  {"overridden", status.overridden},
                  {"refused", status.refused},
                  {"held", status.held},
                  {"undecided", status.undecided},
                  {"leftOut", status.leftOut},
                  {"lastError", TextOf(status.lastError)},
                  {"lastErrorTime", status.lastErrorTime}});
}

std::string ComposeConflictsAnswer(const std::deque<TimedConflict>& conflicts, const Rules& rules) {
  auto first = conflicts.end();
  for (size_t bytes = 0; first != conflicts.begin(); --first) {
    const Conflict& conflict = std::prev(first)->conflict;
    bytes += conflict.group.size() + conflict.key.size() + CountBytes(conflict.kept) + CountBytes(conflict.lost);
    if (bytes > kMaxAnswerBytes) break;
  }
  json list = json::array();
  for (; first != conflicts.end(); ++first) list.push_back(ToJson(*first, rules));
  return Compact({{"conflicts", list}});
}

std::string ComposeDone(size_t groups) {
  return Compact({{"done", true}, {"groups", groups}});
}

std::string ComposeError(const std::string& text) {
  return Compact({{"error", TextOf(text)}});
}

bool DifferencesAnswer::Add(const GroupDifference& difference) {
  json keys = json::array();
  for (const KeyDifference& key : difference.keys) {
    keys.push_back({{"key", NameToJson(key.key)},
                    {"here", ToJson(key.here)},
                    {"there", ToJson(key.there)},
                    {"agreed", ToJson(key.agreed)}});
    _bytes += key.key.size() + CountBytes(key.here) + CountBytes(key.there) + CountBytes(key.agreed);
  }
  _bytes += difference.group.size();
  _hasMore = _groups.size() >= kMaxGroups || _bytes > kMaxAnswerBytes;
  if (!_hasMore) _groups.push_back({{"group", NameToJson(difference.group)}, {"keys", std::move(keys)}});
  return !_hasMore;
}

std::string DifferencesAnswer::Compose() const {
  return Compact({{"groups", _groups}, {"more", _hasMore}});
}

}  // namespace tavix::bridge
