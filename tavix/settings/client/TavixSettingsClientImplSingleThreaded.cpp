#include "tavix/settings/client/TavixSettingsClientImplSingleThreaded.h"

#include <istream>
#include <ostream>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/settings/client/Commands.h"
#include "tavix/settings/client/KeptByServer.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/client/ReplyLine.h"
#include "tavix/settings/client/TavixSettingsConnection.h"
#include "tavix/settings/client/WireNames.h"

namespace tavix::settings::client {

using core::IniFile;

namespace {

constexpr int kTries = 5;
constexpr int kConnectAttempts = 5;

// Each try begins with nothing: what a reply that was cut off had brought is no part of the next one.
class RepeatedGetSettingsCommand : public GetSettingsCommand {
 public:
  void SendRequest(std::ostream& os) override {
    _result->Clear();
    GetSettingsCommand::SendRequest(os);
  }
};

}  // namespace

TavixSettingsClientImplSingleThreaded::TavixSettingsClientImplSingleThreaded(TavixSettingsConnection* connection)
    : _mutex(nullptr), _pConnection(connection), _isInProcess(connection->OutlivesClosing()) {
  if (_isInProcess) BindToProcess();  // its server is a thread
}

TavixSettingsClientImplSingleThreaded::~TavixSettingsClientImplSingleThreaded() = default;

bool TavixSettingsClientImplSingleThreaded::GetSettings(const std::set<std::string>& groups, IniFile& out) const {
  RequireSendableNames(groups);
  IniFile result;  // a call that fails leaves "out" as it was
  RepeatedGetSettingsCommand command;
  command._responseKeyword = protocol::kData;
  command._groups = &groups;
  command._result = &result;
  RunCommand("getsettings", command);
  out.MergeSettings(std::move(result));
  return true;
}

void TavixSettingsClientImplSingleThreaded::MergeSettings(const IniFile& settings, unsigned int flags) {
  RequireSendableNames(settings);
  MergeCommand command;
  command._settings = &settings;
  command._flags = flags;
  RunCommand("merge", command);
}

bool TavixSettingsClientImplSingleThreaded::TestAndMerge(const IniFile& test, const IniFile& merge) {
  RequireSendableNames(test);
  RequireSendableNames(merge);
  TestAndMergeCommand command;
  command._responseKeyword = protocol::kResult;
  command._test = &test;
  command._settings = &merge;
  RunCommand("test-and-merge", command);
  return command._success;
}

bool TavixSettingsClientImplSingleThreaded::Amend(const Amendment& amendment) {
  RequireSendableNames(amendment);
  AmendCommand command;
  command._responseKeyword = protocol::kResult;
  command._isLater = true;
  command._amendment = &amendment;
  RunCommand("amend", command);
  return command._success;
}

void TavixSettingsClientImplSingleThreaded::Subscribe(IChangeCallback*, const std::set<std::string>&) {
  throw osa::Exception("TavixSettingsClient::Subscribe not supported in single threaded mode");
}

void TavixSettingsClientImplSingleThreaded::OverwriteSettings(const std::set<std::string>& groups,
                                                              const IniFile& settings) {
  RequireSendableNames(groups);
  RequireSendableNames(settings);
  OverwriteCommand command;
  command._groups = &groups;
  command._settings = &settings;
  RunCommand("overwrite", command);
}

void TavixSettingsClientImplSingleThreaded::RestoreToDefaults(const std::set<std::string>& groups) {
  RequireSendableNames(groups);
  RestoreToDefaultsCommand command;
  command._groups = &groups;
  RunCommand("restore", command);
}

Keeping TavixSettingsClientImplSingleThreaded::AskForKeeping() const {
  return _isInProcess ? Keeping::kNotKept : AskServerForKeeping();
}

void TavixSettingsClientImplSingleThreaded::RunCommand(const char*, RemoteCommand& command) const {
  osa::MutexAutoLock lock(_mutex);
  bool isTooOld = false;
  for (int tries = kTries; tries > 0; --tries) {
    try {
      _pConnection->EnsureConnection(kConnectAttempts);
      if (!command._isLater || TryAsk()) {
        isTooOld = command._isLater && !_canAmend;
        if (isTooOld) break;
        if (TryExchange(command)) return;
      }
    } catch (const osa::Exception& exception) {
      _logger->Error("%s", exception.what());
    } catch (...) {
      CloseConnection();
      throw;
    }
    CloseConnection();
  }
  if (isTooOld) ThrowTooOld("Amend");
  throw osa::Exception("Failed to connect to tavix-settings-server");  // the log has the reason
}

// Whether it is known what the server of this connection can do.
bool TavixSettingsClientImplSingleThreaded::TryAsk() const {
  if (_askedNumber == _pConnection->GetNumber()) return true;
  FeaturesCommand command;
  command._responseKeyword = protocol::kData;
  if (!TryExchange(command)) return false;
  _askedNumber = _pConnection->GetNumber();
  _canAmend = command._success;
  return true;
}

// After a failed exchange the rest of a reply may still be on its way: it must not meet the next request.
void TavixSettingsClientImplSingleThreaded::CloseConnection() const {
  _pConnection->CloseConnection();
  _pConnection->ClearStreams();
}

// False when the connection failed on the way, a reply that was cut off included.
bool TavixSettingsClientImplSingleThreaded::TryExchange(RemoteCommand& command) const {
  std::istream& in = *_pConnection->GetIstream();
  std::ostream& out = *_pConnection->GetOstream();
  command.SendRequest(out);
  if (out.fail() || in.fail()) return false;
  if (command._responseKeyword.empty()) return true;
  for (std::string line; std::getline(in, line);) {
    if (!command.Accepts(FirstWord(line))) continue;
    command.HandleResponse(in);
    if (!in.good()) return false;
    if (!command.AwaitsMore()) return true;
  }
  return false;
}

}  // namespace tavix::settings::client
