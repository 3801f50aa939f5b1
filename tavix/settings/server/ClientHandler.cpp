#include "tavix/settings/server/ClientHandler.h"

#include <optional>
#include <ostream>
#include <string_view>
#include <utility>

#include "tavix/core/Logger.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/server/ClientHandlerDispatcher.h"
#include "tavix/settings/server/ClientHandlerRequests.h"
#include "tavix/settings/server/ClientState.h"
#include "tavix/settings/server/CommandTable.h"
#include "tavix/settings/server/IExtraCommands.h"
#include "tavix/settings/server/MessageWriter.h"
#include "tavix/settings/server/OwnSubscriptions.h"
#include "tavix/settings/server/RequestInput.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tavix/settings/server/StreamOutput.h"
#include "tavix/settings/server/Words.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

using core::IniFile;

namespace {

std::shared_ptr<MessageWriter> MakeWriter(const ServerEnv& env, std::ostream& out) {
  return std::make_shared<MessageWriter>(env, std::make_unique<StreamOutput>(out, env.messageObserver));
}

}  // namespace

ClientHandler::ClientHandler(ServerEnv* env, std::istream* in, std::ostream* out)
    : ClientHandler(env, std::make_unique<RequestInput>(*in), MakeWriter(*env, *out)) {}

ClientHandler::ClientHandler(ServerEnv* env, core::ViewIstream* in, std::ostream* out)
    : ClientHandler(env, std::make_unique<RequestInput>(*in), MakeWriter(*env, *out)) {}

ClientHandler::ClientHandler(ServerEnv* env, core::ViewIstream* in, IClientOutput* out)
    : ClientHandler(env, std::make_unique<RequestInput>(*in), std::make_shared<MessageWriter>(*env, *out)) {}

ClientHandler::ClientHandler(ServerEnv* env, std::unique_ptr<RequestInput> in, std::shared_ptr<MessageWriter> writer)
    : _logger(core::Logger::GetLogger("ClientHandler")),
      _in(std::move(in)),
      _settingsManager(env->settingsManager),
      _serializationManager(env->serializationManager),
      _maxListed(env->mostListed),
      _maxPatterns(env->mostPatterns),
      _maxMatchingWork(env->maxMatchingWork),
      _maxNameBytes(env->maxNameBytes),
      _serverInfo(env->serverInfo),
      _extraCommands(env->extraCommands),
      _client(std::make_unique<ClientState>()),
      _writer(std::move(writer)),
      _subscriptions(std::make_unique<OwnSubscriptions>(*env)) {}

ClientHandler::~ClientHandler() {
  EndSubscription();
}

void ClientHandler::SetClient(const ClientIdentity& client, std::vector<gid_t> groups) {
  _client->SetIdentity(client, std::move(groups));
}

void ClientHandler::Run() {
  while (HandleNext()) continue;
  EndSubscription();
}

// A notice may still be on its way behind the end of the subscription.
void ClientHandler::EndSubscription() {
  _settingsManager->Unsubscribe(this);
  _writer->EndNotices();
}

bool ClientHandler::HandleNext() {
  _maxWork = 0;
  _pIsStopped = nullptr;
  return HandleLine();
}

ClientHandler::Attempt ClientHandler::HandleNextIfShort() {
  core::ViewIstream* const view = _in->GetView();
  if (!view) throw osa::Exception("A request can't be looked at before it is handled: the input is no view");
  const std::string_view request = view->GetRest();
  ForgetOutcome();
  const IExtraCommands::Command* const extra = FindExtraOf(request);
  if (CommandTable::IsLong(request) || (extra && extra->isLong)) return Attempt::kTooLong;
  _maxWork = kShortWork;
  _pIsStopped = nullptr;
  _isSecondAttempt = false;  // the request before may have been skipped
  try {
    return HandleLine() ? Attempt::kHandled : Attempt::kEnded;
  } catch (const TooLong&) {
    view->SetText(request);
    _isSecondAttempt = true;
    return Attempt::kTooLong;
  }
}

bool ClientHandler::HandleNextInParts(const std::function<bool()>& isStopped) {
  _maxWork = 0;
  _pIsStopped = &isStopped;
  const bool goesOn = HandleLine();
  _isSecondAttempt = false;
  return goesOn;
}

bool ClientHandler::HandleLine() {
  ForgetOutcome();
  std::string_view line;
  if (_quit || !_in->TakeLine(line)) return false;
  const std::string_view word = TakeWord(line);
  if (word.empty() || word == protocol::kTerminator) return true;
  if (const IExtraCommands::Command* extra = FindExtra(word)) {
    if (extra->isForNextChange) {
      _client->TakeTrial(TrimBlanks(line));
    } else {
      CarryOutExtra(word, line, extra->isChange);
    }
  } else {
    MsgDispatcher::Get().Dispatch(*this, word, line, _isSecondAttempt);
  }
  return true;
}

// Null: the word is one of the protocol's, or of nobody's.
const IExtraCommands::Command* ClientHandler::FindExtra(std::string_view word) const {
  return !_extraCommands || CommandTable::Find(word) ? nullptr : _extraCommands->Find(word);
}

const IExtraCommands::Command* ClientHandler::FindExtraOf(std::string_view request) const {
  if (!_extraCommands) return nullptr;
  std::string_view line = request.substr(0, request.find('\n'));
  return FindExtra(TakeWord(line));
}

IExtraCommands::Answer ClientHandler::TryToCarryOut(const IExtraCommands::Call& call) {
  try {
    return _extraCommands->CarryOut(call);
  } catch (const RefusedChange& refusal) {
    _refusal = refusal;
    return {IExtraCommands::Answer::Kind::kRefused, {}, refusal.what()};
  }
}

bool ClientHandler::IsForClientOnly(std::string_view request) const {
  const IExtraCommands::Command* const extra = FindExtraOf(request);
  return extra ? extra->isForClientOnly : CommandTable::IsForClientOnly(request);
}

void ClientHandler::ForgetOutcome() {
  _refusal.reset();
  _changeLines.clear();
}

void ClientHandler::LogStatistics(void* logContext) {
  MsgDispatcher::Get().LogStatistics(logContext);
}

ClientHandler::Statistics ClientHandler::ReadStatistics() {
  return MsgDispatcher::Get().ReadStatistics();
}

void ClientHandler::TimeCommands() {
  MsgDispatcher::Get().TimeCommands();
}

// With the notification's locks held: the notice is written once they are released.
void ClientHandler::OnChange(const std::set<std::string>& changedGroups, const IniFile&) {
  try {
    if (!NoticeRound::Add(_writer, changedGroups)) _writer->WriteNotice(changedGroups);
  } catch (const std::exception& exception) {
    _writer->OnNoticeLost(exception.what());
  }
}

}  // namespace tavix::settings::server
