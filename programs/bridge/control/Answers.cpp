#include "programs/bridge/control/Answers.h"

#include "programs/common/client/Json.h"
#include "programs/common/client/JsonObject.h"
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
  json object = programs::JsonObject()
                    .Add("time", timed.time)
                    .Add("group", NameToJson(conflict.group))
                    .Add("key", NameToJson(conflict.key))
                    .Add("winner", isDeviceLoser ? "centre" : "device")
                    .Take();
  const json masked = programs::JsonObject().Add("masked", true).Take();
  const bool isMasked = rules.IsMasked(conflict.group, conflict.key);
  object["here"] = isMasked ? masked : ToJson(isDeviceLoser ? conflict.lost : conflict.kept);
  object["there"] = isMasked ? masked : ToJson(isDeviceLoser ? conflict.kept : conflict.lost);
  return object;
}

}  // namespace

std::string ComposeStatusAnswer(const BridgeStatus& status) {
  return Compact(programs::JsonObject()
                     .Add("name", status.name)
                     .Add("engine", status.engine)
                     .Add("state", status.isInSync ? "in sync" : "not in sync")
                     .Add("link", status.link)
                     .Add("since", status.since)
                     .Add("daemon", status.isDaemonConnected ? "connected" : "lost")
                     .Add("lag", status.lag)
                     .Add("waiting", status.waiting)
                     .Add("conflicts", status.conflicts)
                     .Add("overridden", status.overridden)
                     .Add("refused", status.refused)
                     .Add("held", status.held)
                     .Add("undecided", status.undecided)
                     .Add("leftOut", status.leftOut)
                     .Add("lastError", TextOf(status.lastError))
                     .Add("lastErrorTime", status.lastErrorTime)
                     .Take());
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
  return Compact(programs::JsonObject().Add("conflicts", list).Take());
}

std::string ComposeDone(size_t groups) {
  return Compact(programs::JsonObject().Add("done", true).Add("groups", groups).Take());
}

std::string ComposeError(const std::string& text) {
  return Compact(programs::JsonObject().Add("error", TextOf(text)).Take());
}

bool DifferencesAnswer::Add(const GroupDifference& difference) {
  json keys = json::array();
  for (const KeyDifference& key : difference.keys) {
    keys.push_back(programs::JsonObject()
                       .Add("key", NameToJson(key.key))
                       .Add("here", ToJson(key.here))
                       .Add("there", ToJson(key.there))
                       .Add("agreed", ToJson(key.agreed))
                       .Take());
    _bytes += key.key.size() + CountBytes(key.here) + CountBytes(key.there) + CountBytes(key.agreed);
  }
  _bytes += difference.group.size();
  _hasMore = _groups.size() >= kMaxGroups || _bytes > kMaxAnswerBytes;
  if (!_hasMore)
    _groups.push_back(
        programs::JsonObject().Add("group", NameToJson(difference.group)).Add("keys", std::move(keys)).Take());
  return !_hasMore;
}

std::string DifferencesAnswer::Compose() const {
  return Compact(programs::JsonObject().Add("groups", _groups).Add("more", _hasMore).Take());
}

}  // namespace tavix::bridge
