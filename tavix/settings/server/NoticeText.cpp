#include "tavix/settings/server/NoticeText.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace tavix::settings::server {

namespace {

constexpr size_t kMaxEntries = 16;
constexpr size_t kMaxKept = 1024 * 1024;

// Sets that differ may begin alike: comparing this first is cheap.
size_t HashOf(const std::set<std::string>& names) {
  size_t hash = names.size();
  for (const std::string& name : names) hash = hash * 31 + std::hash<std::string>()(name);
  return hash;
}

}  // namespace

NoticeText::Round::Round() {
  ++OfThisThread()._rounds;
}

NoticeText::Round::~Round() {
  NoticeText& texts = OfThisThread();
  if (--texts._rounds > 0) return;
  texts._entries.clear();
  texts._keptBytes = 0;
}

NoticeText& NoticeText::OfThisThread() {
  static thread_local NoticeText texts;
  return texts;
}

NoticeText::Notice NoticeText::Find(const Key& key) const {
  if (_entries.empty()) return {};
  const size_t hash = HashOf(key.changedGroups);
  const auto found = std::find_if(_entries.rbegin(), _entries.rend(), [&](const Entry& entry) {
    return entry.hash == hash && entry.version == key.version && entry.serializer == key.serializer &&
           entry.changedGroups == key.changedGroups;
  });
  if (found == _entries.rend()) return {};
  return {found->text.lock(), found->notice.groups};
}

void NoticeText::Keep(const Key& key, const Notice& notice) {
  if (_rounds == 0 || key.version == 0) return;
  if (_entries.size() == kMaxEntries) {
    if (_entries.front().notice.text) _keptBytes -= _entries.front().notice.text->size();
    _entries.pop_front();
  }
  _entries.push_back({key.version, key.serializer, HashOf(key.changedGroups), key.changedGroups, notice, notice.text});
  _keptBytes += notice.text->size();
  ReleaseOldest();
}

void NoticeText::ReleaseOldest() {
  for (Entry& entry : _entries) {
    if (_keptBytes <= kMaxKept || &entry == &_entries.back()) return;
    if (!entry.notice.text) continue;
    _keptBytes -= entry.notice.text->size();
    entry.notice.text.reset();
  }
}

}  // namespace tavix::settings::server
