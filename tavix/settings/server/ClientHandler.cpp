#include "tavix/settings/server/ClientHandler.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <new>
#include <optional>
#include <ostream>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeLines.h"
#include "tavix/settings/server/ClientHandlerDispatcher.h"
#include "tavix/settings/server/CommandTable.h"
#include "tavix/settings/server/HandlerCounts.h"
#include "tavix/settings/server/IServerInfo.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/MessageWriter.h"
#include "tavix/settings/server/OwnSubscriptions.h"
#include "tavix/settings/server/RequestInput.h"
#include "tavix/settings/server/RequestLists.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tavix/settings/server/StreamOutput.h"
#include "tavix/settings/server/Words.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

using common::GroupNameMatcher;
using common::GroupNameMatcherInsertIterator;
using core::IniFile;

namespace {

// What takes less than a millisecond.
constexpr size_t kShortWork = 2'000;     // groups of the store that are visited
constexpr size_t kShortNotices = 1'024;  // groups in notices of a change

const GroupNameMatcher kNoGroups;

// The product, or the greatest number there is.
unsigned long long Multiply(unsigned long long a, unsigned long long b) {
  constexpr auto kMax = std::numeric_limits<unsigned long long>::max();
  return b > 0 && a > kMax / b ? kMax : a * b;
}

bool IsChangeLogged() {
  return core::Logger::IsEnabled(core::kLogInformation);
}

// Thrown by a handler that gives a request up before anything came of it.
struct TooLong {};

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
      _writer(std::move(writer)),
      _subscriptions(std::make_unique<OwnSubscriptions>(*env)) {}

ClientHandler::~ClientHandler() {
  EndSubscription();
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
  if (CommandTable::IsLong(request)) return Attempt::kTooLong;
  _maxWork = kShortWork;
  _pIsStopped = nullptr;
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
  if (!word.empty() && word != protocol::kTerminator)
    MsgDispatcher::Get().Dispatch(*this, word, line, _isSecondAttempt);
  return true;
}

void ClientHandler::ForgetOutcome() {
  _refusal.reset();
  _changeLines.clear();
}

std::set<std::string> ClientHandler::ReadGroupSet() {
  std::set<std::string> groups;
  _in->TakeList(CountingIterator(std::inserter(groups, groups.begin()), ListBounds{_maxListed, _maxNameBytes}));
  CheckPatterns(static_cast<size_t>(std::count_if(groups.begin(), groups.end(), IsPattern)));
  return groups;
}

GroupNameMatcher ClientHandler::ReadGroupMatcher() {
  GroupNameMatcher matcher;
  _in->TakeList(CountingIterator(GroupNameMatcherInsertIterator(matcher), ListBounds{_maxListed, _maxNameBytes}));
  CheckPatterns(matcher.GetPatterns().size());
  return matcher;
}

// Each may have to be tried on every group of the store.
void ClientHandler::CheckPatterns(size_t patterns) const {
  CheckCount(patterns, _maxPatterns, "patterns");
  if (_maxMatchingWork == 0 || patterns == 0) return;
  const size_t nameBytes = _settingsManager->CountNameBytes();
  if (Multiply(patterns, nameBytes) <= _maxMatchingWork) return;
  throw osa::Exception("To try %zu patterns on %zu bytes of group names is more than the %llu bytes allowed", patterns,
                       nameBytes, _maxMatchingWork);
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

void ClientHandler::Quit(std::string_view) {
  _quit = true;
}

void ClientHandler::Dump(std::string_view args) {
  const bool all = TakeWord(args) == protocol::kAll;
  if (_pIsStopped) return DumpInParts(all);
  _writer->Reply(nullptr, [&](core::StringOstream& message) {
    if (all) {
      _settingsManager->DumpAllSettings(message);
    } else {
      _settingsManager->DumpUserSettings(message);
    }
    message.AppendLine(protocol::kTerminator);
  });
}

void ClientHandler::DumpInParts(bool all) {
  const auto compose = [&](core::StringOstream& text, const SettingsManager::BetweenParts& between) {
    if (all) {
      _settingsManager->DumpAllSettingsInParts(text, between);
    } else {
      _settingsManager->DumpUserSettingsInParts(text, between);
    }
    text.AppendLine(protocol::kTerminator);
  };
  _writer->ReplyInParts(nullptr, *_pIsStopped, compose);
}

// A change may be short, and its notices many.
template <class Groups>
void ClientHandler::RequireShortNotices(const Groups& changed) const {
  if (_maxWork > 0 && _settingsManager->GetDispatcher().WouldCallMoreThan(kShortNotices, changed)) throw TooLong();
}

// The request was read to its end: the connection is in step whether the store takes the change or not. After a change
// the output is held until it is durable: a reply proves what the client asked for before it.
template <class Change>
bool ClientHandler::CarryOut(Change change) {
  try {
    ChangeTicket ticket = 0;
    change(ticket);
    _writer->HoldMessages(ticket);
    return true;
  } catch (const RefusedChange& refusal) {
    _refusal = refusal;
    return false;
  }
}

void ClientHandler::NoteChange(const char* command, const std::set<std::string>& removed, const IniFile& settings) {
  if (!IsChangeLogged()) return;
  try {
    _changeLines = MakeChangeLines(command, removed, settings, core::Logger::IsEnabled(core::kLogTrace));
  } catch (const std::bad_alloc&) {  // the change is made, with or without a line in the log
  }
}

void ClientHandler::Merge(std::string_view args) {
  const unsigned int flags = TakeWord(args) == protocol::kNoPersist ? SettingsManager::kNoPersist : 0;
  IniFile settings;
  if (!ReadPayload(settings)) return;
  RequireShortNotices(settings);
  const auto merge = [&](ChangeTicket& ticket) { _settingsManager->MergeSettings(settings, flags, ticket); };
  if (CarryOut(merge)) NoteChange(protocol::kMerge, {}, settings);
}

void ClientHandler::TestAndMerge(std::string_view) {
  IniFile condition;
  IniFile change;
  if (!ReadPayload(condition)) return;
  _in->SkipPayloadEnd(_writer->GetSerializer());
  if (!ReadPayload(change)) return;
  RequireShortNotices(change);
  bool isMerged = false;
  CarryOut([&](ChangeTicket& ticket) { isMerged = _settingsManager->TestAndMerge(condition, change, ticket); });
  if (isMerged) NoteChange(protocol::kTestAndMerge, {}, change);
  _writer->Reply(nullptr, [&](core::StringOstream& message) {
    message.AppendLine(protocol::kResult);
    message.AppendLine(isMerged ? protocol::kOk : protocol::kFailure);
  });
}

// What would pass a bound is left out as a whole: the client that asks for too much keeps what it had, and its
// connection. Ended, it would only come back and ask for the same.
void ClientHandler::Subscribe(std::string_view) {
  const size_t max = _maxListed > 0 ? std::max(_maxListed, _subscriptions->GetMax()) : 0;
  BoundedSet list({max, _maxNameBytes});
  _in->TakeList(list.GetIterator());
  if (list.IsTooLong())
    return RefuseSubscription("A list holds more than the " + std::to_string(max) + " names and patterns allowed");
  const std::set<std::string>& groups = list.GetValues();
  if (groups.empty()) return;
  const std::string reason = TakeSubscriptions(groups);
  if (!reason.empty()) return RefuseSubscription(reason);
  _settingsManager->Subscribe(this, groups);
}

// Empty when no bound is passed.
std::string ClientHandler::TakeSubscriptions(const std::set<std::string>& groups) {
  const common::CallbackDispatcher& dispatcher = _settingsManager->GetDispatcher();
  if (!dispatcher.WouldExceedMaxAlikePatterns(groups)) return _subscriptions->Add(groups);
  return "More patterns would be alike than the " + std::to_string(dispatcher.GetMaxAlikePatterns()) + " allowed";
}

void ClientHandler::RefuseSubscription(const std::string& reason) {
  HandlerCounts::CountOne(handlerCounts.refusedSubscriptions);
  _logger->Warning("Subscription refused: %s", reason.c_str());
}

void ClientHandler::GetSections(std::string_view args) {
  const bool delimited = TakeWord(args) == protocol::kDelimited;
  const GroupNameMatcher matcher = ReadGroupMatcher();
  if (_pIsStopped && !matcher.IsEmpty()) return GetInParts(matcher, delimited);
  _writer->Reply(&matcher, [&](core::StringOstream& message) {
    if (delimited) message.AppendLine(protocol::kData);
    if (!matcher.IsEmpty()) WriteGroups(message, matcher);
    if (delimited) message.AppendLine(protocol::kTerminator);
  });
}

void ClientHandler::WriteGroups(std::ostream& message, const GroupNameMatcher& matcher) const {
  const ISettingsSerializer& serializer = _writer->GetSerializer();
  if (_maxWork == 0) return _settingsManager->WriteGroups(message, matcher, serializer);
  if (!_settingsManager->TryWriteGroups(message, matcher, serializer, _maxWork)) throw TooLong();
}

void ClientHandler::GetInParts(const GroupNameMatcher& matcher, bool delimited) {
  const auto compose = [&](core::StringOstream& text, const SettingsManager::BetweenParts& between) {
    if (delimited) text.AppendLine(protocol::kData);
    _settingsManager->WriteGroupsInParts(text, matcher, _writer->GetSerializer(), between);
    if (delimited) text.AppendLine(protocol::kTerminator);
  };
  _writer->ReplyInParts(&matcher, *_pIsStopped, compose);
}

void ClientHandler::Overwrite(std::string_view) {
  const std::set<std::string> groups = ReadGroupSet();
  IniFile settings;
  if (WasCutOff() || !ReadPayload(settings)) return;
  RequireShortNotices(groups);
  RequireShortNotices(settings);
  const auto overwrite = [&](ChangeTicket& ticket) { _settingsManager->OverwriteSettings(groups, settings, ticket); };
  if (CarryOut(overwrite)) NoteChange(protocol::kOverwrite, groups, settings);
}

void ClientHandler::ChangeSerialization(std::string_view args) {
  const std::string name(TakeWord(args));
  const ISettingsSerializer* serializer = _serializationManager->GetSerializer(name);
  if (!serializer) return;
  _logger->Trace("switching to serialization mode: %s", name.c_str());
  _writer->SetSerializer(*serializer);
}

void ClientHandler::RestoreDefaults(std::string_view) {
  const GroupNameMatcher matcher = ReadGroupMatcher();
  if (WasCutOff()) return;
  const auto restore = [&](ChangeTicket& ticket) { _settingsManager->RestoreToDefaults(matcher, ticket); };
  if (!CarryOut(restore) || !IsChangeLogged()) return;
  std::set<std::string> groups = matcher.GetNames();
  groups.insert(matcher.GetPatterns().begin(), matcher.GetPatterns().end());
  NoteChange(protocol::kRestore, groups, {});
}

void ClientHandler::Info(std::string_view args) {
  const std::string_view word = TakeWord(args);
  if (word == protocol::kSubscribed) ShowSubscribed();
  if (word == protocol::kServer && _serverInfo) ShowServer();
}

// Made without the output mutex: notices need not wait for it.
void ClientHandler::ShowSubscribed() {
  _writer->ReplyUnlocked(&kNoGroups, [this](core::StringOstream& text) {
    std::set<std::string> groups;
    _settingsManager->GetAllSubscribedGroups(groups);
    text.AppendLine("Subscribed groups\n-----------------");
    for (const std::string& group : groups) text.AppendLine(group);
    text.AppendLine("");
  });
}

void ClientHandler::ShowServer() {
  IniFile document;
  _serverInfo->AddFigures(document[""]);
  core::StringOstream lines;
  document.SaveToStream(lines);
  _writer->Reply(&kNoGroups, [&](core::StringOstream& message) {
    message.AppendLine("Server\n------");
    message.Append(std::string_view(lines.GetText()).substr(lines.GetText().find('\n') + 1));
    message.AppendLine("");
  });
}

// With the notification's locks held: the notice is written once they are released.
void ClientHandler::OnChange(const std::set<std::string>& changedGroups, const IniFile&) {
  try {
    if (!NoticeRound::Add(_writer, changedGroups)) _writer->WriteNotice(changedGroups);
  } catch (const std::exception& exception) {
    _writer->OnNoticeLost(exception.what());
  }
}

// False when the input ended before the payload did: what came of it must not be carried out.
bool ClientHandler::ReadPayload(IniFile& document) {
  _in->TakePayload(_writer->GetSerializer(), document);
  CheckNames(document, _maxNameBytes);
  return !WasCutOff();
}

bool ClientHandler::WasCutOff() const {
  return !_in->IsGood();
}

}  // namespace tavix::settings::server
