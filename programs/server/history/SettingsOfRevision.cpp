#include "programs/server/history/SettingsOfRevision.h"

#include <optional>
#include <string>
#include <utility>

#include "programs/server/persistence/HistoryText.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::SettingsManager;

namespace {

osa::Exception Refusal(const std::string& text) {
  return osa::Exception("%s", text.c_str());
}

std::string Name(uint64_t revision) {
  return "revision " + std::to_string(revision);
}

}  // namespace

uint64_t SettingsOfRevision::Begin() {
  if (!ReadDown(Place::kAnywhere)) {
    FindRange(Place::kAnywhere);  // the oldest entries may have gone meanwhile
    throw Refusal("the history can't be read: an entry behind " + Name(_revision) + " is damaged or missing");
  }
  _next = _settings.begin();
  return _known;
}

bool SettingsOfRevision::BeginLocked() {
  if (!ReadDown(Place::kMemory)) return false;
  _next = _settings.begin();
  return true;
}

// Where older entries are there all the same, some between them are missing.
HistoryParts::Range SettingsOfRevision::FindRange(Place place) const {
  const HistoryParts::Range range = _history.GetRange();
  if (_revision > range.last)
    throw Refusal(Name(_revision) + " is not there: the last is " + std::to_string(range.last));
  if (_revision >= range.oldest) return range;
  const std::string text = Name(_revision) + " is not kept: the oldest is " + std::to_string(range.oldest);
  const bool isGap = !ReadBelow(range.oldest + 1, place).items.empty();
  throw Refusal(isGap ? text + ", as changes up to that one are missing from the history" : text);
}

KeptHistory::Block SettingsOfRevision::ReadBelow(uint64_t revision, Place place) const {
  if (place == Place::kMemory) return _history.ReadQueuedBelow(revision);
  try {
    return _history.ReadBelow(revision, KeptHistory::kAllBytes, KeptHistory::kAllBytes);
  } catch (const osa::Exception& exception) {
    throw Refusal(std::string("the history can't be read: ") + exception.what());
  }
}

// The newest come first: what an older entry replaced takes the place of what a newer one did. False: one is missing.
bool SettingsOfRevision::ReadDown(Place place) {
  const uint64_t last = FindRange(place).last;
  OldSettings settings;
  for (uint64_t next = last; next > _known;) {
    const KeptHistory::Block block = ReadBelow(next + 1, place);
    if (block.isEnd || block.items.empty()) return false;
    for (const KeptHistory::Item& item : block.items) {
      if (next == _known) break;
      if (item.entry.revision != next-- || item.entry.command == kGapCommand) return false;
      Add(item.entry, settings);
    }
  }
  _settings.merge(settings);
  _known = last;
  return true;
}

void SettingsOfRevision::Add(const HistoryEntry& entry, OldSettings& settings) {
  AddDocument(entry.was, true, settings);
  AddDocument(entry.wasNot, false, settings);
  if (_maxBytes > 0 && _bytes > _maxBytes)
    throw Refusal("what has changed since " + Name(_revision) + " takes more memory than all settings may");
}

// Members of the record are told apart once it is known which they are.
void SettingsOfRevision::AddDocument(const IniFile& document, bool wasThere, OldSettings& settings) {
  for (const auto& [group, keys] : document) {
    const bool isConcerned = _filter.IsForAll() || group == SettingsManager::kDeletedGroups || _filter.Matches(group);
    if (!isConcerned) continue;
    const std::string& name = group;
    const auto add = [&](std::optional<std::string> key, const std::string& value) {
      const auto [place, isNew] = settings.try_emplace(SettingName{name, std::move(key)});
      place->second = wasThere ? std::optional<std::string>(value) : std::nullopt;
      if (isNew) _bytes += CountBytes(*place);
    };
    if (keys.empty()) add(std::nullopt, {});
    for (const auto& [key, value] : keys) add(key, value);
  }
}

bool SettingsOfRevision::ComparePart(const settings::server::LayerView& userSettings, RollbackPlan& plan) {
  for (size_t compared = 0; compared < kMaxAtOnce; ++compared) {
    if (_next == _settings.end()) return false;
    const auto& [name, then] = *_next;
    plan.Add(name.group, name.key ? &*name.key : nullptr, FindNow(name, userSettings), then ? &*then : nullptr);
    ++_next;
  }
  return true;
}

}  // namespace tavix::daemon
