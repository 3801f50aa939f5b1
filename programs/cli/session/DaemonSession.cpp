#include "programs/cli/session/DaemonSession.h"

#include <sstream>
#include <utility>

#include "programs/cli/text/Failure.h"
#include "programs/cli/text/Spelling.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/client/WireNames.h"
#include "tavix/settings/server/GroupDiscriminator.h"

namespace tavix::cli {

namespace protocol = settings::client::protocol;
using core::IniFile;

namespace {

std::string Line(const char* command, const char* word = nullptr) {
  return std::string(command) + (word ? std::string(" ") + word : std::string()) + "\n";
}

template <class Names>
void RequireSendable(const Names& names) {
  try {
    settings::client::RequireSendableNames(names);
  } catch (const osa::Exception& exception) {
    throw Failure(kExitUsage, exception.what());
  }
}

std::string ListOf(const Session::Groups& groups) {
  RequireSendable(groups);
  std::string text;
  for (const std::string& group : groups) text += group + "\n";
  return text + protocol::kTerminatorLine;
}

std::string PayloadOf(const IniFile& settings) {
  RequireSendable(settings);
  std::ostringstream text;
  settings.SaveToStream(text);
  return text.str() + protocol::kTerminatorLine;
}

}  // namespace

DaemonSession::DaemonSession(const std::string& server, std::chrono::milliseconds timeout, Connection::Trace trace)
    : _connection(server, timeout, std::move(trace)) {}

IniFile DaemonSession::Get(const Groups& groups) {
  Send(Line(protocol::kGet, protocol::kDelimited) + ListOf(groups));
  Expect(protocol::kData);
  return ReadPayload();
}

IniFile DaemonSession::GetUserSettings() {
  Send(Line(protocol::kDump));
  return ReadPayload(ReadReplyLine());
}

bool DaemonSession::IsRestricted(const std::string& group) const {
  return settings::server::GroupDiscriminator::IsRestrictedGroup(group);
}

void DaemonSession::Merge(const IniFile& settings, bool isVolatile) {
  Send(Line(protocol::kMerge, isVolatile ? protocol::kNoPersist : nullptr) + PayloadOf(settings));
}

bool DaemonSession::TestAndMerge(const IniFile& test, const IniFile& settings) {
  Send(Line(protocol::kTestAndMerge) + PayloadOf(test) + PayloadOf(settings));
  Expect(protocol::kResult);
  const std::string result = _connection.ReadLine();
  if (result != protocol::kOk && result != protocol::kFailure) FailUnexpected(protocol::kOk, result);
  return result == protocol::kOk;
}

void DaemonSession::Overwrite(const Groups& groups, const IniFile& settings) {
  Send(Line(protocol::kOverwrite) + ListOf(groups) + PayloadOf(settings));
}

void DaemonSession::Restore(const Groups& groups) {
  Send(Line(protocol::kRestore) + ListOf(groups));
}

std::vector<std::string> DaemonSession::GetSubscribed() {
  // The list ends with an empty line, and so may a name be one. What shows the end is the reply to another request,
  // "data" and the line that no name can be.
  Send(Line(protocol::kInfo, protocol::kSubscribed) + Line(protocol::kGet, protocol::kDelimited) +
       protocol::kTerminatorLine);
  Expect("Subscribed groups");
  Expect("-----------------");
  std::vector<std::string> names;
  for (std::string line; (line = _connection.ReadLine()) != protocol::kTerminator;) names.push_back(line);
  for (const char* line : {protocol::kData, ""}) {
    if (names.empty() || names.back() != line) FailUnexpected(line, names.empty() ? std::string() : names.back());
    names.pop_back();
  }
  return names;
}

// What came in between is in the reply: the server carries out one request after the other.
IniFile DaemonSession::Subscribe(const Groups& groups) {
  Send(Line(protocol::kSubscribe) + ListOf(groups));
  IniFile settings = Get(groups);
  _notices.clear();
  return settings;
}

std::optional<Session::Notice> DaemonSession::AwaitNotice(std::optional<std::chrono::milliseconds> limit) {
  if (_notices.empty()) {
    if (!_connection.AwaitInput(limit)) return std::nullopt;
    const std::string line = _connection.ReadLine();
    if (line != protocol::kAsyncChange) FailUnexpected(protocol::kAsyncChange, line);
    ReadNotice();
  }
  Notice notice = std::move(_notices.front());
  _notices.pop_front();
  return notice;
}

std::string DaemonSession::ReadReplyLine() {
  while (true) {
    std::string line = _connection.ReadLine();
    if (line != protocol::kAsyncChange) return line;
    ReadNotice();
  }
}

void DaemonSession::Expect(const char* line) {
  const std::string found = ReadReplyLine();
  if (found != line) FailUnexpected(line, found);
}

void DaemonSession::FailUnexpected(const char* expected, const std::string& line) const {
  throw Failure(kExitNoServer, GetAddress() + " does not speak the settings protocol: expected \"" + expected +
                                   "\", got \"" + SpellValue(line.substr(0, 80)) + "\"");
}

IniFile DaemonSession::ReadPayload(std::optional<std::string> first) {
  std::string text;
  std::string line = first ? std::move(*first) : _connection.ReadLine();
  for (; line != protocol::kTerminator; line = _connection.ReadLine()) text += line + "\n";
  IniFile settings;
  try {
    settings.LoadFromString(text);
  } catch (const osa::Exception& exception) {
    throw Failure(kExitBadInput, "the reply of " + GetAddress() + " can't be read: " + exception.what());
  }
  return settings;
}

void DaemonSession::ReadNotice() {
  Notice notice;
  for (std::string line; (line = _connection.ReadLine()) != protocol::kTerminator;) notice.groups.insert(line);
  notice.settings = ReadPayload();
  _notices.push_back(std::move(notice));
}

}  // namespace tavix::cli
