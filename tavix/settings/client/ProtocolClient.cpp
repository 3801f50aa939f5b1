#include "tavix/settings/client/ProtocolClient.h"

#include <utility>

#include "tavix/core/MemoryStream.h"
#include "tavix/settings/client/Commands.h"
#include "tavix/settings/client/PayloadParts.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/client/ProtocolExchange.h"
#include "tavix/settings/client/WireNames.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::settings::client {

using core::IniFile;
using Reason = ProtocolException::Reason;

namespace {

// Of one get: a daemon takes no more patterns by default, and ends the connection for it.
constexpr size_t kMaxPatterns = 256;

constexpr char kFeaturesTitle[] = "Features";

template <class Names>
void RequireSendableNamesOf(const Names& names) {
  try {
    RequireSendableNames(names);
  } catch (const osa::Exception& exception) {
    throw ProtocolException(Reason::kUsage, exception.what(), {}, false);
  }
}

// Counted first: a text that grows step by step takes half as much memory again.
std::string TextOf(RemoteCommand& command) {
  core::CountingOstream counter;
  command.SendRequest(counter);
  core::StringOstream text;
  text.Reserve(counter.GetCount());
  command.SendRequest(text);
  return text.TakeText();
}

std::string GetRequest(const ProtocolClient::Groups& groups) {
  GetSettingsCommand command;
  command._groups = &groups;
  return TextOf(command);
}

// The names and patterns in parts that one get can hold.
std::vector<ProtocolClient::Groups> SplitForGet(const ProtocolClient::Groups& namesAndPatterns) {
  std::vector<ProtocolClient::Groups> parts(1);
  size_t patterns = 0;
  for (const std::string& name : namesAndPatterns) {
    if (name.find('*') != std::string::npos && patterns++ == kMaxPatterns) {
      parts.emplace_back();
      patterns = 1;
    }
    parts.back().insert(parts.back().end(), name);
  }
  return parts;
}

[[noreturn]] void FailUnreadable(ProtocolExchange& exchange, const std::string& reason) {
  const LineSocket& socket = exchange.GetSocket();
  throw ProtocolException(Reason::kUnreadable, "the reply of " + socket.GetAddress() + " can't be read: " + reason, {},
                          socket.WasSent());
}

// Returns why it can't be read; empty when it can.
std::string TryParse(const std::string& payload, IniFile& settings) {
  try {
    settings.LoadFromString(payload);
  } catch (const osa::Exception& exception) {
    return exception.what();
  }
  return std::string();
}

// Behind the end of the call: the reply is whole, and the connection goes on.
IniFile Parse(ProtocolExchange& exchange, const std::string& payload) {
  IniFile settings;
  const std::string error = TryParse(payload, settings);
  if (!error.empty()) FailUnreadable(exchange, error);
  return settings;
}

// Reads a payload, and hands out its parts while the rest is still to come. An error ends the parts and not the reply:
// the connection goes on.
template <class Parts, class Take>
void ReadParts(ProtocolExchange& exchange, ProtocolExchange::Call& call, std::string line, const Take& take) {
  Parts parts;
  for (; line != protocol::kTerminator; line = exchange.ReadLine()) {
    if (const std::optional<typename Parts::Part> part = parts.ReadLine(line)) take(*part);
  }
  if (const std::optional<typename Parts::Part> part = parts.Finish()) take(*part);
  call.FinishReply();
  if (!parts.GetError().empty()) FailUnreadable(exchange, parts.GetError());
}

template <class Parts, class Take>
void GetParts(ProtocolExchange& exchange, const ProtocolClient::Groups& groups, const Take& take) {
  ProtocolExchange::Call call(exchange);
  exchange.Send(GetRequest(groups), false);
  exchange.ExpectFirstLine(protocol::kData);
  ReadParts<Parts>(exchange, call, exchange.ReadLine(), take);
}

void SendWrite(ProtocolExchange& exchange, const std::string& request) {
  ProtocolExchange::Call call(exchange);
  exchange.Send(request, true);
  call.Finish();
}

// Of a request without a reply that changes nothing by itself.
void SendLine(ProtocolExchange& exchange, const std::string& line) {
  ProtocolExchange::Call call(exchange);
  exchange.Send(line, false);
  call.Finish();
}

bool AskForResult(ProtocolExchange& exchange, const std::string& request) {
  ProtocolExchange::Call call(exchange);
  exchange.Send(request, true);
  exchange.ExpectFirstLine(protocol::kResult);
  const std::string result = exchange.ReadLine();
  if (result != protocol::kOk && result != protocol::kFailure) exchange.FailUnexpected(protocol::kOk, result);
  call.FinishReply();
  return result == protocol::kOk;
}

// An older daemon writes nothing for that request: what shows it is the reply to another one behind it.
std::optional<std::string> AskInfo(ProtocolExchange& exchange, const char* word, const char* title) {
  ProtocolExchange::Call call(exchange);
  exchange.Send(std::string(protocol::kInfo) + " " + word + "\n" + GetRequest({}), false);
  std::optional<std::string> lines = exchange.ReadInfo(title);
  call.FinishReply();
  return lines;
}

// A later reply is the newer one: what it is about replaces all that is known of these groups.
void Replace(const ProtocolClient::Groups& namesAndPatterns, IniFile&& reply, IniFile& settings) {
  common::GroupNameMatcher matcher;
  matcher.AddNamesAndPatterns(namesAndPatterns);
  ProtocolClient::Groups replaced;
  matcher.GetMatchingGroups(settings, replaced);
  for (const std::string& group : replaced) settings.RemoveGroup(group);
  settings.MergeSettings(std::move(reply));
}

}  // namespace

ProtocolClient::ProtocolClient(const Options& options, Trace trace)
    : _exchange(std::make_unique<ProtocolExchange>(options, std::move(trace), kMaxPendingNotices)) {}

ProtocolClient::~ProtocolClient() = default;

void ProtocolClient::RequireSendable(const Groups& namesAndPatterns) {
  RequireSendableNamesOf(namesAndPatterns);
}

void ProtocolClient::RequireSendable(const IniFile& settings) {
  RequireSendableNamesOf(settings);
}

const std::string& ProtocolClient::GetAddress() const {
  return _exchange->GetSocket().GetAddress();
}

void ProtocolClient::SetTimeouts(const Timeouts& timeouts) {
  _exchange->GetSocket().SetTimeouts(timeouts);
}

void ProtocolClient::SetProgress(Progress progress) {
  _exchange->SetProgress(std::move(progress));
}

bool ProtocolClient::IsOpen() const {
  return GetDescriptor() >= 0;
}

int ProtocolClient::GetDescriptor() const {
  return _exchange->GetSocket().GetDescriptor();
}

bool ProtocolClient::HasReceived() const {
  const NoticeQueue& notices = _exchange->GetNotices();
  return _exchange->GetSocket().GetReceivedBytes() > 0 || notices.IsInNotice() || !notices.IsEmpty();
}

IniFile ProtocolClient::Get(const Groups& namesAndPatterns) {
  RequireSendable(namesAndPatterns);
  ProtocolExchange::Call call(*_exchange);
  _exchange->Send(GetRequest(namesAndPatterns), false);
  const std::string payload = _exchange->ReadData();
  call.FinishReply();
  return Parse(*_exchange, payload);
}

IniFile ProtocolClient::GetUserSettings() {
  ProtocolExchange::Call call(*_exchange);
  _exchange->Send(std::string(protocol::kDump) + "\n", false);
  const std::string payload = _exchange->ReadPayload(_exchange->ReadFirstLine());
  call.FinishReply();
  return Parse(*_exchange, payload);
}

void ProtocolClient::GetEach(const Groups& namesAndPatterns, const TakeGroup& take) {
  RequireSendable(namesAndPatterns);
  GetParts<PayloadGroups>(*_exchange, namesAndPatterns, take);
}

void ProtocolClient::GetEachName(const Groups& namesAndPatterns, const TakeName& take) {
  RequireSendable(namesAndPatterns);
  GetParts<PayloadNames>(*_exchange, namesAndPatterns, take);
}

void ProtocolClient::GetEachOfUser(const TakeGroup& take) {
  ProtocolExchange::Call call(*_exchange);
  _exchange->Send(std::string(protocol::kDump) + "\n", false);
  ReadParts<PayloadGroups>(*_exchange, call, _exchange->ReadFirstLine(), take);
}

void ProtocolClient::Merge(const IniFile& settings, bool isVolatile) {
  RequireSendable(settings);
  MergeCommand command;
  command._settings = &settings;
  command._flags = isVolatile ? MergeCommand::kNoPersistFlag : 0;
  SendWrite(*_exchange, TextOf(command));
}

void ProtocolClient::Overwrite(const Groups& namesAndPatterns, const IniFile& settings) {
  RequireSendable(namesAndPatterns);
  RequireSendable(settings);
  OverwriteCommand command;
  command._groups = &namesAndPatterns;
  command._settings = &settings;
  SendWrite(*_exchange, TextOf(command));
}

void ProtocolClient::Restore(const Groups& namesAndPatterns) {
  RequireSendable(namesAndPatterns);
  RestoreToDefaultsCommand command;
  command._groups = &namesAndPatterns;
  SendWrite(*_exchange, TextOf(command));
}

bool ProtocolClient::TestAndMerge(const IniFile& test, const IniFile& settings) {
  RequireSendable(test);
  RequireSendable(settings);
  TestAndMergeCommand command;
  command._test = &test;
  command._settings = &settings;
  return AskForResult(*_exchange, TextOf(command));
}

bool ProtocolClient::Amend(const Amendment& amendment) {
  for (const IniFile* const part : PartsOf(amendment)) RequireSendable(*part);
  AmendCommand command;
  command._amendment = &amendment;
  if (!_canAmend) GetFeatures();
  if (!*_canAmend) throw ProtocolException(Reason::kTooOld, GetAddress() + " is too old for amendments", {}, false);
  return AskForResult(*_exchange, TextOf(command));
}

void ProtocolClient::Note(const std::string& text) {
  constexpr size_t kMaxBytes = 256;
  if (text.size() > kMaxBytes || text.find('\n') != std::string::npos)
    throw ProtocolException(Reason::kUsage, "a note is one line of 256 bytes at most", {}, false);
  SendLine(*_exchange, std::string(protocol::kNote) + " " + text + "\n");
}

void ProtocolClient::Try(unsigned seconds, const std::string& name) {
  RequireSendable(Groups{name});
  SendLine(*_exchange, std::string(protocol::kTry) + " " + std::to_string(seconds) + " " + name + "\n");
}

// For a request that it does not know a daemon writes nothing: what shows it is the reply to another one behind it.
ProtocolClient::Answer ProtocolClient::Ask(const std::string& line) {
  RequireSendable(Groups{line});
  ProtocolExchange::Call call(*_exchange);
  _exchange->Send(line + "\n" + protocol::kInfo + " " + protocol::kFeatures + "\n", true);
  Answer answer;
  const std::string first = _exchange->ReadFirstLine();
  answer.isRefused = first == protocol::kRefused;
  const bool isKnown = answer.isRefused || first == protocol::kData;
  if (!isKnown && first != kFeaturesTitle) _exchange->FailUnexpected(protocol::kData, first);
  std::string text = _exchange->ReadLine();
  if (isKnown && !answer.isRefused) text = _exchange->ReadPayload(text);
  if (isKnown) _exchange->ExpectFirstLine(kFeaturesTitle);
  while (!_exchange->ReadLine().empty()) continue;
  call.FinishReply();
  if (!isKnown)
    throw ProtocolException(Reason::kTooOld, GetAddress() + " is too old for '" + line.substr(0, line.find(' ')) + "'",
                            {}, false);
  if (answer.isRefused) {
    answer.reason = std::move(Parse(*_exchange, "[]\nreason=" + text)[""]["reason"]);
  } else {
    answer.data = Parse(*_exchange, text);
  }
  return answer;
}

void ProtocolClient::Flush() {
  Get({});
}

// The list ends with an empty line, and so may a name be one: the reply to another request shows the end.
std::vector<std::string> ProtocolClient::GetSubscribed() {
  ProtocolExchange::Call call(*_exchange);
  _exchange->Send(std::string(protocol::kInfo) + " " + protocol::kSubscribed + "\n" + GetRequest({}), false);
  _exchange->ExpectFirstLine("Subscribed groups");
  const std::string rule = _exchange->ReadLine();
  if (rule != "-----------------") _exchange->FailUnexpected("-----------------", rule);
  std::vector<std::string> names = _exchange->ReadSubscribed();
  call.FinishReply();
  return names;
}

std::map<std::string, std::string> ProtocolClient::AskForFigures(const char* word, const char* title) {
  const std::string lines = AskInfo(*_exchange, word, title).value_or("");
  IniFile document = Parse(*_exchange, "[]\n" + lines);
  return std::move(document[""]);
}

std::map<std::string, std::string> ProtocolClient::GetServerInfo() {
  return AskForFigures(protocol::kServer, "Server");
}

std::map<std::string, std::string> ProtocolClient::GetWhoami() {
  return AskForFigures(protocol::kWhoami, "Whoami");
}

std::string ProtocolClient::TakeRefusal() {
  return std::move(AskForFigures(protocol::kRefused, "Refused")["reason"]);
}

// Whether the server knows amendments is noted last: without memory for the list it is asked again.
std::optional<ProtocolClient::Groups> ProtocolClient::GetFeatures() {
  const std::optional<std::string> lines = AskInfo(*_exchange, protocol::kFeatures, kFeaturesTitle);
  std::optional<Groups> features;
  bool canAmend = false;
  if (lines) {
    features.emplace();
    for (size_t at = 0, end = 0; (end = lines->find('\n', at)) != std::string::npos; at = end + 1)
      canAmend |= FeaturesCommand::IsAbout(*features->insert(lines->substr(at, end - at)).first, protocol::kAmend);
  }
  _canAmend = canAmend;
  return features;
}

// What came before a reply is in it: the server carries out one request after the other. What comes between two replies
// is newer than the first, and is kept unless the second is about these groups, too. A reply that does not parse ends
// the call in order, as nothing more was asked for.
IniFile ProtocolClient::Subscribe(const Groups& namesAndPatterns) {
  RequireSendable(namesAndPatterns);
  core::StringOstream subscribe;
  WriteSubscribeRequest(subscribe, namesAndPatterns);
  std::string request = subscribe.TakeText();
  IniFile settings;
  ProtocolExchange::Call call(*_exchange);
  _exchange->NoteSubscription();
  for (const Groups& part : SplitForGet(namesAndPatterns)) {
    _exchange->Send(request + GetRequest(part), false);
    request.clear();
    IniFile reply;
    const std::string error = TryParse(_exchange->ReadData(), reply);
    if (!error.empty()) {
      call.FinishReply();
      FailUnreadable(*_exchange, error);
    }
    _exchange->GetNotices().Forget(part);
    Replace(part, std::move(reply), settings);
  }
  call.FinishReply();
  return settings;
}

std::optional<ProtocolClient::Notice> ProtocolClient::AwaitNotice(std::optional<Milliseconds> limit) {
  ProtocolExchange::Call call(*_exchange);
  if (!_exchange->AwaitNotice(limit)) {
    call.Finish();
    return std::nullopt;
  }
  NoticeQueue::Entry entry = _exchange->GetNotices().Pop();
  call.Finish();
  if (entry.isDropped)
    throw ProtocolException(Reason::kDropped, "notices of " + GetAddress() + " were dropped: too many were pending", {},
                            _exchange->GetSocket().WasSent());
  if (!entry.error.empty()) FailUnreadable(*_exchange, entry.error);
  return std::move(entry.notice);
}

}  // namespace tavix::settings::client
