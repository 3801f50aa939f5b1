#pragma once

#include <random>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ChangeTicket.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::test {

// Changes a store in all the ways there are, one random change after the other; no value is ever set twice.
class RandomChanges {
 public:
  explicit RandomChanges(unsigned int seed) : _random(seed) {}

  // Something small.
  void MakeOne(settings::server::SettingsManager& store, const settings::server::ChangeOrigin& origin = {}) {
    settings::server::ChangeTicket ticket = 0;
    switch (Below(10)) {
      case 0:
        return store.OverwriteSettings({NextGroup()}, core::IniFile(), origin, ticket);
      case 1:
        return store.OverwriteSettings({NextGroup()}, NextDocument(1), origin, ticket);
      case 2:
        return store.OverwriteSettings({NextGroup(), "E*", "Large"}, NextDocument(2), origin, ticket);
      case 3:
        return store.RestoreToDefaults(MatcherOf(NextGroup()), origin, ticket);
      case 4:
        static_cast<void>(store.TestAndMerge(core::IniFile(), NextDocument(1), origin, ticket));
        return;
      case 5:
      case 6:
        static_cast<void>(store.Amend(NextAmendment(), origin, ticket));
        return;
      default:
        return store.MergeSettings(NextDocument(1 + Below(3)), 0, origin, ticket);
    }
  }

  // Something that makes the journal longer than the snapshot, if it has more bytes than ever before.
  void MakeLarge(settings::server::SettingsManager& store, size_t bytes) {
    core::IniFile document;
    document.SetValue("Large", "x", std::string(bytes, 'x'));
    store.MergeSettings(document, 0);
  }

  // Sound, but for a group that a recorded pattern hides.
  settings::Amendment NextAmendment() {
    settings::Amendment amendment;
    amendment.set = NextDocument(Below(3));
    for (size_t groups = Below(3); groups > 0; --groups) {
      const std::string group = NextGroup();
      if (amendment.set.HasGroup(group)) continue;
      auto& keys = amendment.unset[group];
      for (size_t count = Below(3); count > 0; --count) keys["key" + std::to_string(Below(5))];
    }
    for (const auto& group : NextDocument(Below(2))) {
      if (!amendment.set.HasGroup(group.first) && !amendment.unset.HasGroup(group.first))
        amendment.replace[group.first] = group.second;
    }
    if (Below(4) == 0) amendment.unset["E*"];
    return amendment;
  }

  size_t Below(size_t limit) { return _random() % limit; }

 private:
  std::string NextGroup() { return std::string(1, static_cast<char>('A' + Below(8))) + "/settings"; }

  core::IniFile NextDocument(size_t groups) {
    core::IniFile document;
    while (document.GetGroups().size() < groups) {
      const std::string group = NextGroup();
      for (size_t keys = Below(4); keys > 0; --keys)
        document.SetValue(group, "key" + std::to_string(Below(5)), "value " + std::to_string(++_values));
      document[group];
    }
    return document;
  }

  static settings::common::GroupNameMatcher MatcherOf(const std::string& name) {
    settings::common::GroupNameMatcher matcher;
    matcher.AddNameOrPattern(name);
    return matcher;
  }

  std::mt19937 _random;
  size_t _values = 0;
};

}  // namespace tavix::test
