#pragma once

#include <deque>

#include "programs/cli/session/Connection.h"
#include "programs/cli/session/Session.h"

namespace tavix::cli {

// A session with the daemon, over one connection: docs/protocol.md. Requests keep their order, so that what is read
// after a write holds it.
class DaemonSession : public Session {
 public:
  // As Connection.
  DaemonSession(const std::string& server, std::chrono::milliseconds timeout, Connection::Trace trace);

  std::string GetAddress() const override { return _connection.GetAddress(); }
  core::IniFile Get(const Groups& groups) override;
  core::IniFile GetUserSettings() override;
  bool IsRestricted(const std::string& group) const override;
  std::vector<std::string> GetSubscribed() override;
  core::IniFile Subscribe(const Groups& groups) override;
  std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds> limit) override;
  void SetProgress(Progress progress) override { _progress = std::move(progress); }

 private:
  void Merge(const core::IniFile& settings, bool isVolatile) override;
  bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) override;
  void Overwrite(const Groups& groups, const core::IniFile& settings) override;
  void Restore(const Groups& groups) override;

  void Send(const std::string& request) { _connection.Send(request, _progress); }

  // The next line that belongs to no notice; notices are kept.
  std::string ReadReplyLine();
  void Expect(const char* line);
  [[noreturn]] void FailUnexpected(const char* expected, const std::string& line) const;

  // "first" was read already.
  core::IniFile ReadPayload(std::optional<std::string> first = std::nullopt);
  void ReadNotice();

  Connection _connection;
  Progress _progress;
  std::deque<Notice> _notices;
};

}  // namespace tavix::cli
