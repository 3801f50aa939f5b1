#pragma once

#include <memory>
#include <utility>

#include "programs/cli/session/Session.h"
#include "tavix/settings/client/ProtocolClient.h"

namespace tavix::cli {

// A session with the daemon, over one connection. Requests keep their order, so that what is read after a write holds
// it.
class DaemonSession : public Session {
 public:
  // Takes a line of the protocol as it is shown to a person; '>' is sent, '<' is received.
  using Trace = settings::client::ProtocolClient::Trace;

  // One attempt to connect. server: as --server; empty: TAVIX_SETTINGS_SERVER, the hosts database, or 127.0.0.1.
  // timeout: how long the server may keep silent. trace: gets every line; may be empty.
  DaemonSession(const std::string& server, std::chrono::milliseconds timeout, const Trace& trace);

  std::string GetAddress() const override { return _client->GetAddress(); }
  core::IniFile Get(const Groups& groups) override;
  core::IniFile GetUserSettings() override;
  bool IsRestricted(const std::string& group) const override;
  std::vector<std::string> GetSubscribed() override;
  core::IniFile Subscribe(const Groups& groups) override;
  std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds> limit) override;
  void SetProgress(Progress progress) override { _client->SetProgress(std::move(progress)); }

 private:
  void Merge(const core::IniFile& settings, bool isVolatile) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) override;
  void Overwrite(const Groups& groups, const core::IniFile& settings) override;
  void Restore(const Groups& groups) override;

  std::unique_ptr<settings::client::ProtocolClient> _client;
};

}  // namespace tavix::cli
