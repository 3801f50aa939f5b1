#include "programs/cli/session/DaemonSession.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "programs/cli/text/Failure.h"
#include "programs/cli/text/Spelling.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::cli {

using core::IniFile;
using settings::client::ProtocolClient;
using settings::client::ProtocolException;

namespace {

ExitCode ExitCodeOf(ProtocolException::Reason reason) {
  switch (reason) {
    case ProtocolException::Reason::kUsage:
      return kExitUsage;
    case ProtocolException::Reason::kUnreadable:
      return kExitBadInput;
    default:
      return kExitNoServer;
  }
}

// Runs a call of the client, and throws what the command makes of its errors.
template <class Call>
auto Run(Call call) {
  try {
    return call();
  } catch (const ProtocolException& exception) {
    const bool isUnreachable = exception.GetReason() == ProtocolException::Reason::kUnreachable;
    throw Failure(ExitCodeOf(exception.GetReason()), exception.what(),
                  isUnreachable
                      ? "start one with 'tavix-settings-server', name another with --server, or use --local FILE"
                      : exception.GetHint());
  }
}

// What is on the wire is spelled already, but for what would upset a terminal: backslashes stay as they are.
std::string SpellLine(const std::string& line) {
  std::string spelled;
  for (size_t at = 0; at < line.size(); ++at) {
    const size_t next = std::min(line.find('\\', at), line.size());
    spelled += SpellValue(line.substr(at, next - at));
    if (next < line.size()) spelled += '\\';
    at = next;
  }
  return spelled;
}

ProtocolClient::Trace Spelled(const DaemonSession::Trace& trace) {
  if (!trace) return nullptr;
  return [trace](char direction, const std::string& line) { trace(direction, SpellLine(line)); };
}

}  // namespace

DaemonSession::DaemonSession(const std::string& server, std::chrono::milliseconds timeout, const Trace& trace) {
  ProtocolClient::Options options;
  options.address = server;
  options.addressSource = "--server";
  options.timeouts.silence = timeout;
  options.maxMessageBytes = std::numeric_limits<size_t>::max();  // a store is as large as its owner lets it be
  _client = Run([&] { return std::make_unique<ProtocolClient>(options, Spelled(trace)); });
}

IniFile DaemonSession::Get(const Groups& groups) {
  return Run([&] { return _client->Get(groups); });
}

IniFile DaemonSession::GetUserSettings() {
  return Run([&] { return _client->GetUserSettings(); });
}

bool DaemonSession::IsRestricted(const std::string& group) const {
  return settings::server::GroupDiscriminator::IsRestrictedGroup(group);
}

void DaemonSession::Merge(const IniFile& settings, bool isVolatile) {
  Run([&] { _client->Merge(settings, isVolatile); });
}

bool DaemonSession::TestAndMerge(const IniFile& test, const IniFile& settings) {
  return Run([&] { return _client->TestAndMerge(test, settings); });
}

void DaemonSession::Overwrite(const Groups& groups, const IniFile& settings) {
  Run([&] { _client->Overwrite(groups, settings); });
}

void DaemonSession::Restore(const Groups& groups) {
  Run([&] { _client->Restore(groups); });
}

std::vector<std::string> DaemonSession::GetSubscribed() {
  return Run([&] { return _client->GetSubscribed(); });
}

IniFile DaemonSession::Subscribe(const Groups& groups) {
  return Run([&] { return _client->Subscribe(groups); });
}

std::optional<Session::Notice> DaemonSession::AwaitNotice(std::optional<std::chrono::milliseconds> limit) {
  std::optional<ProtocolClient::Notice> notice = Run([&] { return _client->AwaitNotice(limit); });
  if (!notice) return std::nullopt;
  return Notice{std::move(notice->groups), std::move(notice->settings)};
}

}  // namespace tavix::cli
