#pragma once

#include <stdexcept>

#include "programs/common/client/Backup.h"
#include "programs/common/client/Session.h"
#include "tavix/settings/server/GroupDiscriminator.h"
#include "tests/support/DocumentText.h"

namespace tavix::test {

// A session with a store in memory: what the files gave it, and what users changed above that.
class MemorySession : public programs::Session {
 public:
  MemorySession(const std::string& filesText, const std::string& userText)
      : files(DocumentOf(filesText)), user(DocumentOf(userText)) {}

  std::string GetAddress() const override { return "memory"; }
  core::IniFile Get(const Groups& groups) override {
    core::IniFile all = files;
    all.MergeSettings(user);
    return groups.empty() ? core::IniFile() : programs::SelectGroups(all, groups);
  }
  core::IniFile GetUserSettings() override { return user; }
  bool IsRestricted(const std::string& group) const override {
    return settings::server::GroupDiscriminator::IsRestrictedGroup(group);
  }
  std::vector<std::string> GetSubscribed() override { return {}; }
  bool CanAmend() override { return false; }
  std::map<std::string, std::string> GetWhoami() override { return {}; }
  void SetNote(const std::string&) override {}
  core::IniFile Subscribe(const Groups& groups) override { return Get(groups); }
  std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds>) override { return std::nullopt; }
  void SetProgress(Progress) override {}

  core::IniFile files;
  core::IniFile user;
  size_t writes = 0;

 private:
  void Merge(const core::IniFile& settings, bool) override {
    ++writes;
    user.MergeSettings(settings);
  }
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) override {
    if (!Get({"*"}).ContainsSettings(test)) return false;
    Merge(settings, false);
    return true;
  }
  bool Amend(const settings::Amendment&) override { throw std::logic_error("it can't amend"); }
  void Overwrite(const Groups& groups, const core::IniFile& settings) override {
    for (const auto& [group, keys] : Get(groups)) {
      files.RemoveGroup(group);
      user.RemoveGroup(group);
    }
    Merge(settings, false);
  }
  void Restore(const Groups& groups) override {
    ++writes;
    for (const auto& [group, keys] : Get(groups)) user.RemoveGroup(group);
  }
};

}  // namespace tavix::test
