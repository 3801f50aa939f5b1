#include "tavix/settings/client/NoticeQueue.h"

#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::client {

namespace {

constexpr size_t kNodeBytes = 64;  // what a container takes for an element, roughly

size_t BytesOf(const std::string& name) {
  return name.size() + kNodeBytes;
}

size_t BytesOf(const core::IniFile& settings, const std::string& group) {
  if (!settings.HasGroup(group)) return 0;
  size_t bytes = BytesOf(group);
  for (const auto& [key, value] : settings[group]) bytes += BytesOf(key) + value.size();
  return bytes;
}

size_t BytesOf(const NoticeQueue::Entry& entry) {
  size_t bytes = kNodeBytes + entry.error.size();
  for (const std::string& group : entry.notice.groups) bytes += BytesOf(group);
  for (const auto& [group, keys] : entry.notice.settings) bytes += BytesOf(entry.notice.settings, group);
  return bytes;
}

}  // namespace

bool NoticeQueue::TakeLine(const std::string& line) {
  switch (_state) {
    case State::kNone:
      if (line != protocol::kAsyncChange) return false;
      _state = State::kNames;
      return true;
    case State::kNames:
      if (line == protocol::kTerminator) {
        _state = State::kSettings;
      } else {
        _notice.groups.insert(line);
      }
      return true;
    case State::kSettings:
      if (line == protocol::kTerminator) {
        Finish();
      } else {
        _text.append(line).append(1, '\n');
      }
  }
  return true;
}

void NoticeQueue::Finish() {
  _state = State::kNone;
  Entry entry{std::exchange(_notice, Notice())};
  const std::string text = std::exchange(_text, std::string());
  try {
    entry.notice.settings.LoadFromString(text);
  } catch (const osa::Exception& exception) {
    entry.error = exception.what();
  }
  Add(std::move(entry));
}

// One notice alone is kept whatever it takes: its reader has bounded it.
void NoticeQueue::Add(Entry entry) {
  if (_hasDropped) return;
  if (_entries.size() < _maxCount) {
    _bytes += BytesOf(entry);
    _entries.push_back(std::move(entry));
    if (_bytes > _maxBytes && _entries.size() > 1) DropAll();
  } else {
    MergeIntoLast(std::move(entry));
    if (_bytes > _maxBytes) DropAll();
  }
}

void NoticeQueue::MergeIntoLast(Entry entry) {
  Entry& last = _entries.back();
  if (!entry.error.empty()) {
    _bytes += entry.error.size() - last.error.size();
    last.error = std::move(entry.error);
  }
  core::IniFile& settings = last.notice.settings;
  for (const std::string& group : entry.notice.groups) {
    if (last.notice.groups.insert(group).second) _bytes += BytesOf(group);
    _bytes -= BytesOf(settings, group);
    settings.RemoveGroup(group);
    settings.MergeSettings(entry.notice.settings, group);
    _bytes += BytesOf(settings, group);
  }
}

void NoticeQueue::DropAll() {
  _hasDropped = true;
  _entries.clear();
  _bytes = 0;
}

NoticeQueue::Entry NoticeQueue::Pop() {
  if (std::exchange(_hasDropped, false)) return {{}, {}, true};
  Entry entry = std::move(_entries.front());
  _entries.pop_front();
  _bytes -= BytesOf(entry);
  return entry;
}

void NoticeQueue::Forget(const std::set<std::string>& namesAndPatterns) {
  common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(namesAndPatterns);
  std::deque<Entry> kept;
  _bytes = 0;
  for (Entry& entry : _entries) {
    std::set<std::string> known;
    matcher.GetMatchingGroups(entry.notice.groups, known);
    for (const std::string& group : known) {
      entry.notice.groups.erase(group);
      entry.notice.settings.RemoveGroup(group);
    }
    if (entry.notice.groups.empty()) continue;
    _bytes += BytesOf(entry);
    kept.push_back(std::move(entry));
  }
  _entries = std::move(kept);
}

}  // namespace tavix::settings::client
