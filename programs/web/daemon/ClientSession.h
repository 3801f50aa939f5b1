#pragma once

#include "programs/common/client/Session.h"
#include "programs/web/daemon/DaemonLink.h"

namespace tavix::web {

// A worker's connection as what programs share takes it.
//
// Threads: one.
// Errors:  ProtocolException in place of Failure: what went wrong with the connection is the answer's status.
class ClientSession : public programs::Session {
 public:
  // link: outlives this.
  explicit ClientSession(DaemonLink& link) : _link(link) {}

  std::string GetAddress() const override { return _link.Get().GetAddress(); }
  core::IniFile Get(const Groups& groups) override { return _link.Get().Get(groups); }
  void GetEach(const Groups& groups, const TakeGroup& take) override { _link.Get().GetEach(groups, take); }
  void GetEachName(const Groups& groups, const TakeName& take) override { _link.Get().GetEachName(groups, take); }
  core::IniFile GetUserSettings() override { return _link.Get().GetUserSettings(); }
  void GetEachOfUser(const TakeGroup& take) override { _link.Get().GetEachOfUser(take); }
  bool IsRestricted(const std::string& group) const override;
  std::vector<std::string> GetSubscribed() override { return _link.Get().GetSubscribed(); }
  std::map<std::string, std::string> GetServerInfo() override { return _link.Get().GetServerInfo(); }
  bool CanAmend() override { return _link.GetFeatures().count("amend") != 0; }
  std::map<std::string, std::string> GetWhoami() override { return _link.Get().GetWhoami(); }
  std::string TakeRefusal() override { return _link.Get().TakeRefusal(); }
  void SetNote(const std::string& note) override { _link.Get().Note(note); }
  core::IniFile Subscribe(const Groups& groups) override { return _link.Get().Subscribe(groups); }
  std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds>) override { return std::nullopt; }
  void SetProgress(Progress) override {}

 private:
  void Merge(const core::IniFile& settings, bool isVolatile) override {
    _link.GetForWrite().Merge(settings, isVolatile);
  }
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) override {
    return _link.GetForWrite().TestAndMerge(test, settings);
  }
  bool Amend(const settings::Amendment& amendment) override { return _link.GetForWrite().Amend(amendment); }
  void Overwrite(const Groups& groups, const core::IniFile& settings) override {
    _link.GetForWrite().Overwrite(groups, settings);
  }
  void Restore(const Groups& groups) override { _link.GetForWrite().Restore(groups); }

  DaemonLink& _link;
};

}  // namespace tavix::web
