#pragma once

#include <set>
#include <string>

#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::server {

class ISettingsSerializer;
class SettingsManager;

// The text of the last notice that a thread composed. A change tells its subscribers one after the other, on one
// thread: most of them get the same bytes, which need not be made anew while the store is as it was.
class NoticeText {
 public:
  struct Notice {
    std::string text;
    common::GroupNameMatcher groups;  // that it shows
  };

  // The calling thread's own.
  static NoticeText& OfThisThread();

  // Null when it is to be composed.
  const Notice* Find(const SettingsManager& store, const std::set<std::string>& changedGroups,
                     const ISettingsSerializer* serializer) const;

  // version: the store's, before the text was composed. Keeps nothing when the store has changed since, and no long
  // text.
  void Keep(const SettingsManager& store, unsigned long long version, const std::set<std::string>& changedGroups,
            const ISettingsSerializer* serializer, const std::string& text, const common::GroupNameMatcher& groups);

 private:
  unsigned long long _version = 0;  // 0: nothing is kept
  const ISettingsSerializer* _serializer = nullptr;
  std::set<std::string> _changedGroups;
  Notice _notice;
};

}  // namespace tavix::settings::server
