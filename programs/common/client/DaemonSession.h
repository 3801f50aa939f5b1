#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "programs/common/client/Session.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::programs {

// A session with the daemon, over one connection. Requests keep their order, so that what is read after a write holds
// it.
//
// Threads: as Session.
class DaemonSession : public Session {
 public:
  // Takes a line of the protocol as it is shown to a person; '>' is sent, '<' is received.
  using Trace = settings::client::ProtocolClient::Trace;

  // One attempt to connect. hint: what a person can do when there is no server; may be empty. trace: gets every line;
  // may be empty.
  DaemonSession(const settings::client::ProtocolOptions& options, std::string hint, const Trace& trace);

  std::string GetAddress() const override { return _client->GetAddress(); }
  core::IniFile Get(const Groups& groups) override;
  void GetEach(const Groups& groups, const TakeGroup& take) override;
  void GetEachName(const Groups& groups, const TakeName& take) override;
  core::IniFile GetUserSettings() override;
  void GetEachOfUser(const TakeGroup& take) override;
  bool IsRestricted(const std::string& group) const override;
  std::vector<std::string> GetSubscribed() override;
  std::map<std::string, std::string> GetServerInfo() override;
  bool CanAmend() override;
  std::map<std::string, std::string> GetWhoami() override;
  std::string TakeRefusal() override;
  const std::map<std::string, std::string>* FindFeatures() override;
  Answer Ask(const std::string& line, Effect effect) override;
  void SetTrial(unsigned seconds, const std::string& name) override;
  void SetNote(const std::string& note) override;
  core::IniFile Subscribe(const Groups& groups) override;
  std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds> limit) override;
  void SetProgress(Progress progress) override { _client->SetProgress(std::move(progress)); }

 private:
  void Merge(const core::IniFile& settings, bool isVolatile) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) override;
  bool Amend(const settings::Amendment& amendment) override;
  void Overwrite(const Groups& groups, const core::IniFile& settings) override;
  void Restore(const Groups& groups) override;

  // Runs a call of the client, and throws Failure for its errors.
  template <class Call>
  auto Run(Call call) const;

  // What goes with a change in front of it. parts: all that the change names.
  template <class... Parts>
  void Introduce(const Parts&... parts);

  // Throws Failure when the trial of an earlier write has ended: a later one would arm it anew, without the earlier.
  void RequireNotEnded();

  const std::string _hint;
  std::string _note;   // empty: none
  std::string _trial;  // its name; empty: none
  unsigned _trialSeconds = 0;
  bool _hasTried = false;  // by a write that was sent
  std::optional<std::map<std::string, std::string>> _features;
  bool _hasAskedFeatures = false;
  std::unique_ptr<settings::client::ProtocolClient> _client;
};

}  // namespace tavix::programs
