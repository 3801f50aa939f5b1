#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::server {

class ISettingsSerializer;

// The texts of the notices that a thread composed last. The subscribers of a change are sent notices one after
// the other, on one thread: nearly all of them get the same bytes, which need not be made anew, nor kept twice, while
// the store is as it was.
//
// Threads: each has its own.
// Memory:  a text lives until the round ends, and as long as others keep it. Beyond a megabyte the oldest ones are left
//          to these others.
class NoticeText {
 public:
  // What a text depends on.
  struct Key {
    unsigned long long version;  // of the store, and of no other; 0: unknown, such a text is not kept
    const ISettingsSerializer* serializer;
    const std::set<std::string>& changedGroups;
  };

  struct Notice {
    std::shared_ptr<const std::string> text;
    std::shared_ptr<const common::GroupNameMatcher> groups;  // that it shows
  };

  // Marks the time in which this thread notifies all subscribers of one change. Texts are kept within it only.
  class Round {
   public:
    Round();
    ~Round();

    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;
  };

  // The calling thread's own.
  static NoticeText& OfThisThread();

  // Without a text when it is to be composed.
  Notice Find(const Key& key) const;

  void Keep(const Key& key, const Notice& notice);

  // How many bytes it keeps itself.
  size_t GetKeptBytes() const { return _keptBytes; }

 private:
  struct Entry {
    unsigned long long version;
    const ISettingsSerializer* serializer;
    size_t hash;
    std::set<std::string> changedGroups;
    Notice notice;  // without a text: it is left to the others
    std::weak_ptr<const std::string> text;
  };

  void ReleaseOldest();

  int _rounds = 0;
  size_t _keptBytes = 0;
  std::deque<Entry> _entries;  // the newest last
};

}  // namespace tavix::settings::server
