#include "tavix/settings/client/NoticeQueue.h"

#include <utility>

#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::client {

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

void NoticeQueue::Add(Entry entry) {
  if (_entries.size() < _maxCount) {
    _entries.push_back(std::move(entry));
    return;
  }
  Entry& last = _entries.back();
  if (!entry.error.empty()) last.error = std::move(entry.error);
  for (const std::string& group : entry.notice.groups) {
    last.notice.groups.insert(group);
    last.notice.settings.RemoveGroup(group);
    last.notice.settings.MergeSettings(entry.notice.settings, group);
  }
}

NoticeQueue::Entry NoticeQueue::Pop() {
  Entry entry = std::move(_entries.front());
  _entries.pop_front();
  return entry;
}

void NoticeQueue::Forget(const std::set<std::string>& namesAndPatterns) {
  common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(namesAndPatterns);
  std::deque<Entry> kept;
  for (Entry& entry : _entries) {
    std::set<std::string> known;
    matcher.GetMatchingGroups(entry.notice.groups, known);
    for (const std::string& group : known) {
      entry.notice.groups.erase(group);
      entry.notice.settings.RemoveGroup(group);
    }
    if (!entry.notice.groups.empty()) kept.push_back(std::move(entry));
  }
  _entries = std::move(kept);
}

}  // namespace tavix::settings::client
