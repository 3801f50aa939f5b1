#include "conformance/adapters/cpp/EventWriter.h"

#include <iostream>
#include <nlohmann/json.hpp>

#include "programs/common/client/Changes.h"
#include "programs/common/client/Json.h"

namespace tavix::conformance {

using nlohmann::json;
using programs::NameToJson;
using programs::ValueToJson;

void EventWriter::WriteChange(int watch, const Change& change) const {
  const json event = {{"event", "change"},
                      {"watch", watch},
                      {"group", NameToJson(change.group)},
                      {"key", change.key ? NameToJson(*change.key) : json()},
                      {"old", ValueToJson(change.before)},
                      {"new", ValueToJson(change.after)},
                      {"gone", change.gone}};
  std::cout << event.dump() << std::endl;
}

void EventWriter::WriteResync(int watch) const {
  std::cout << json({{"event", "resync"}, {"watch", watch}}).dump() << std::endl;
}

void EventWriter::WriteDifferences(int watch, const core::IniFile& before, const core::IniFile& after) const {
  for (const programs::Change& each : programs::FindChanges(before, after)) {
    const bool gone = !after.HasGroup(each.group);
    const bool hadKeys = before.HasGroup(each.group) && !before[each.group].empty();
    if (!each.key && gone && hadKeys) continue;  // its settings report that
    WriteChange(watch, {each.group, each.key, each.before, each.after, gone});
  }
}

}  // namespace tavix::conformance
