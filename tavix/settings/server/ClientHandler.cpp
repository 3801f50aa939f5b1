#include "tavix/settings/server/ClientHandler.h"

#include <algorithm>
#include <istream>
#include <iterator>
#include <limits>
#include <optional>
#include <ostream>
#include <string_view>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/core/SettingsText.h"
#include "tavix/osa/Exception.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/common/DelimitedValues.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ClientHandlerDispatcher.h"
#include "tavix/settings/server/IMessageObserver.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/NoticeText.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tavix/settings/server/SubscriptionBudget.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

using common::GroupNameMatcher;
using common::GroupNameMatcherInsertIterator;
using common::readDelimitedValues;
using core::IniFile;
using osa::MutexAutoLock;

namespace {

constexpr size_t kKeptMemory = 4 * 1024;         // an idle connection keeps no more than this
constexpr size_t kShortRequest = 32 * 1024;      // bytes that are read and carried out in less than a millisecond
constexpr size_t kShortSubscription = 8 * 1024;  // bytes of a subscription, likewise
constexpr size_t kShortWork = 2'000;             // groups of the store, likewise
constexpr size_t kShortNotices = 1'024;          // groups in notices of a change, likewise

const GroupNameMatcher kNoGroups;

// How much a list may hold. 0: no limit.
struct ListBounds {
  size_t listed;
  size_t nameBytes;
};

void CheckCount(size_t count, size_t most, const char* what) {
  if (count > most && most > 0) throw osa::Exception("A list holds more than the %zu %s allowed", most, what);
}

void CheckName(const std::string& name, size_t max) {
  if (name.size() > max && max > 0) {
    throw osa::Exception("The name \"%s...\" of %zu bytes is longer than the %zu allowed",
                         core::PrintableText(name, 40).c_str(), name.size(), max);
  }
}

// Passes a list's values on to another iterator. Throws once there are too many, or one is too long, whatever follows.
template <class Target>
class CountingIterator {
 public:
  CountingIterator(Target target, const ListBounds& bounds) : _target(target), _bounds(bounds) {}

  CountingIterator& operator=(const std::string& value) {
    CheckName(value, _bounds.nameBytes);
    CheckCount(++_count, _bounds.listed, "names and patterns");
    *_target++ = value;
    return *this;
  }
  CountingIterator& operator*() { return *this; }
  CountingIterator& operator++() { return *this; }
  CountingIterator& operator++(int) { return *this; }

 private:
  Target _target;
  const ListBounds _bounds;
  size_t _count = 0;
};

bool IsPattern(const std::string& value) {
  return value.find('*') != std::string::npos;
}

// The product, or the greatest number there is.
unsigned long long Multiply(unsigned long long a, unsigned long long b) {
  constexpr auto kMax = std::numeric_limits<unsigned long long>::max();
  return b > 0 && a > kMax / b ? kMax : a * b;
}

// Keeps a list's values up to that many, and counts the others, so that the list is read to its end in any case.
class BoundedSet {
 public:
  explicit BoundedSet(const ListBounds& bounds) : _bounds(bounds) {}

  // For readDelimitedValues, by reference.
  struct Iterator {
    Iterator& operator=(const std::string& value) {
      set->Add(value);
      return *this;
    }
    Iterator& operator*() { return *this; }
    Iterator& operator++(int) { return *this; }

    BoundedSet* set;
  };

  Iterator GetIterator() { return {this}; }
  bool IsTooLong() const { return _count > _bounds.listed && _bounds.listed > 0; }
  const std::set<std::string>& GetValues() const { return _values; }

 private:
  void Add(const std::string& value) {
    CheckName(value, _bounds.nameBytes);
    ++_count;
    if (IsTooLong()) {
      _values.clear();
    } else {
      _values.insert(value);
    }
  }

  const ListBounds _bounds;
  std::set<std::string> _values;
  size_t _count = 0;
};

std::string FormatExcess(const char* what, size_t count, size_t max) {
  return std::to_string(count) + what + " are more than the " + std::to_string(max) + " allowed";
}

bool IsBlank(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

// The next word as ">>" finds it in the classic locale, empty when there is none, but without what a stream does around
// it, which takes longer than the reading. args: the rest of a command's line, which is always a view.
std::string_view TakeWord(std::istream& args) {
  auto& view = static_cast<core::ViewIstream&>(args);
  const std::string_view rest = view.GetRest();
  size_t begin = 0;
  while (begin < rest.size() && IsBlank(rest[begin])) ++begin;
  size_t end = begin;
  while (end < rest.size() && !IsBlank(rest[end])) ++end;
  view.Skip(end);
  return rest.substr(begin, end - begin);
}

// Thrown by a handler that gives a request up before anything came of it.
struct TooLong {};

// Whether a request takes long whatever the store holds: reading it, reading the files of defaults, or going through
// the whole store. What a get takes shows only when it is tried.
bool IsLong(std::string_view request) {
  if (request.size() > kShortRequest) return true;
  const std::string_view word = request.substr(0, request.find_first_of(" \t\r\n"));
  if (word == protocol::kSubscribe) return request.size() > kShortSubscription;
  if (word == protocol::kOverwrite) return request.find('*') != std::string_view::npos;
  return word == protocol::kRestore || word == protocol::kDump || word == protocol::kInfo;
}

// Whether the name can stand on a line of a list.
bool IsLine(const std::string& name) {
  return name != protocol::kTerminator && name.find('\n') == std::string::npos;
}

// A group whose name can't stand in a list could be announced to nobody.
void CheckNames(const IniFile& document, size_t maxBytes) {
  for (const auto& [name, keys] : document) {
    CheckName(name, maxBytes);
    if (!IsLine(name)) {
      throw osa::Exception("Group name \"%s\" can't stand on a line of its own", core::PrintableText(name, 80).c_str());
    }
    for (const auto& key : keys) CheckName(key.first, maxBytes);
  }
}

}  // namespace

ClientHandler::ClientHandler(ServerEnv* env, std::istream* in, std::ostream* out)
    : _logger(core::Logger::GetLogger("ClientHandler")),
      _in(in),
      _outputMutex(nullptr),
      _out(out),
      _settingsManager(env->settingsManager),
      _serializationManager(env->serializationManager),
      _mostSubscriptions(env->mostSubscriptions),
      _mostSubscriptionBytes(env->mostSubscriptionBytes),
      _mostListed(env->mostListed),
      _mostPatterns(env->mostPatterns),
      _maxMatchingWork(env->maxMatchingWork),
      _maxNameBytes(env->maxNameBytes),
      _subscriptionBudget(env->subscriptionBudget),
      _messageObserver(env->messageObserver),
      _serializer(_serializationManager->GetSerializer("ini")) {}

ClientHandler::~ClientHandler() {
  _settingsManager->Unsubscribe(this);
  if (_subscriptionBudget) _subscriptionBudget->Return(_subscriptionBytes);
}

void ClientHandler::Run() {
  while (HandleNext()) continue;
  _settingsManager->Unsubscribe(this);
}

bool ClientHandler::HandleNext() {
  _maxWork = 0;
  _pIsStopped = nullptr;
  return HandleLine();
}

ClientHandler::Attempt ClientHandler::HandleNextIfShort() {
  auto& view = static_cast<core::ViewIstream&>(*_in);
  const std::string_view request = view.GetRest();
  if (IsLong(request)) return Attempt::kTooLong;
  _maxWork = kShortWork;
  _pIsStopped = nullptr;
  try {
    return HandleLine() ? Attempt::kHandled : Attempt::kEnded;
  } catch (const TooLong&) {
    view.SetText(request);
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
  if (_line.capacity() > kKeptMemory) std::string().swap(_line);
  _refusal.reset();
  std::string_view line;
  if (_quit || !TakeLine(line)) return false;
  _args.SetText(line);
  const std::string_view word = TakeWord(_args);
  if (!word.empty() && word != protocol::kTerminator) MsgDispatcher::Get().Dispatch(*this, word, _args);
  return true;
}

bool ClientHandler::TakeLine(std::string_view& line) {
  if (core::ViewIstream* view = core::ViewIstream::From(*_in)) return view->TakeLine(line);
  if (!std::getline(*_in, _line)) return false;
  line = _line;
  return true;
}

std::set<std::string> ClientHandler::ReadGroupSet() {
  std::set<std::string> groups;
  readDelimitedValues(_in,
                      CountingIterator(std::inserter(groups, groups.begin()), ListBounds{_mostListed, _maxNameBytes}));
  CheckPatterns(static_cast<size_t>(std::count_if(groups.begin(), groups.end(), IsPattern)));
  return groups;
}

GroupNameMatcher ClientHandler::ReadGroupMatcher() {
  GroupNameMatcher matcher;
  readDelimitedValues(
      _in, CountingIterator(GroupNameMatcherInsertIterator(matcher), ListBounds{_mostListed, _maxNameBytes}));
  CheckPatterns(matcher.GetPatterns().size());
  return matcher;
}

// Each may have to be tried on every group of the store.
void ClientHandler::CheckPatterns(size_t patterns) const {
  CheckCount(patterns, _mostPatterns, "patterns");
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

void ClientHandler::Quit(std::istream&) {
  _quit = true;
}

void ClientHandler::Dump(std::istream& args) {
  const bool all = TakeWord(args) == protocol::kAll;
  if (_pIsStopped) return DumpInParts(all);
  MutexAutoLock lock(_outputMutex);
  if (!IsReachable()) return;
  _message.Reset(kKeptMemory);
  if (all) {
    _settingsManager->DumpAllSettings(_message);
  } else {
    _settingsManager->DumpUserSettings(_message);
  }
  _message.AppendLine(protocol::kTerminator);
  SendMessage(nullptr);
}

void ClientHandler::DumpInParts(bool all) {
  AnswerInParts(nullptr, "", [&](std::ostream& text, const SettingsManager::BetweenParts& between) {
    if (all) {
      _settingsManager->DumpAllSettingsInParts(text, between);
    } else {
      _settingsManager->DumpUserSettingsInParts(text, between);
    }
    text << protocol::kTerminator << '\n';
  });
}

// Notices wait for the output mutex, so it is taken before the last part only. The reply then holds each change that
// was made before, and a notice of any later one follows it: a client may rely on whichever comes last.
template <class WriteParts>
void ClientHandler::AnswerInParts(const GroupNameMatcher* groups, std::string_view firstLine, WriteParts write) {
  {
    MutexAutoLock lock(_outputMutex);
    if (!IsReachable()) return;
  }
  core::StringOstream text;
  if (!firstLine.empty()) text.AppendLine(firstLine);
  std::optional<MutexAutoLock> lock;
  const auto takeLock = [&] { lock.emplace(_outputMutex); };
  write(text, SettingsManager::BetweenParts{*_pIsStopped, takeLock});
  if (!IsReachable()) return;
  Write(text.GetText(), groups);
}

// A change may be short, and its notices many.
template <class Groups>
void ClientHandler::RequireShortNotices(const Groups& changed) const {
  if (_maxWork > 0 && _settingsManager->GetDispatcher().WouldCallMoreThan(kShortNotices, changed)) throw TooLong();
}

// The request was read to its end: the connection is in step whether the store takes the change or not.
template <class Change>
void ClientHandler::CarryOut(Change change) {
  try {
    change();
  } catch (const RefusedChange& refusal) {
    _refusal = refusal;
  }
}

void ClientHandler::Merge(std::istream& args) {
  const unsigned int flags = TakeWord(args) == protocol::kNoPersist ? SettingsManager::kNoPersist : 0;
  IniFile settings;
  if (!ReadPayload(settings)) return;
  RequireShortNotices(settings);
  CarryOut([&] { _settingsManager->MergeSettings(settings, flags); });
}

void ClientHandler::TestAndMerge(std::istream&) {
  IniFile condition;
  IniFile change;
  if (!ReadPayload(condition)) return;
  _serializer.load()->SkipPayloadEnd(*_in);
  if (!ReadPayload(change)) return;
  RequireShortNotices(change);
  bool merged = false;
  CarryOut([&] { merged = _settingsManager->TestAndMerge(condition, change); });

  MutexAutoLock lock(_outputMutex);
  if (!IsReachable()) return;
  _message.Reset(kKeptMemory);
  _message.AppendLine(protocol::kResult);
  _message.AppendLine(merged ? protocol::kOk : protocol::kFailure);
  SendMessage(nullptr);
}

// What would pass a bound is left out as a whole: the client that asks for too much keeps what it had, and its
// connection. Ended, it would only come back and ask for the same.
void ClientHandler::Subscribe(std::istream&) {
  const size_t most = _mostListed > 0 ? std::max(_mostListed, _mostSubscriptions) : 0;
  BoundedSet list({most, _maxNameBytes});
  readDelimitedValues(_in, list.GetIterator());
  if (list.IsTooLong())
    return RefuseSubscription("A list holds more than the " + std::to_string(most) + " names and patterns allowed");
  const std::set<std::string>& groups = list.GetValues();
  if (groups.empty()) return;
  std::string reason;
  if (!TakeSubscriptions(groups, reason)) return RefuseSubscription(reason);
  _settingsManager->Subscribe(this, groups);
}

// Counts what is new of them. False, having counted nothing, when that would pass a bound.
bool ClientHandler::TakeSubscriptions(const std::set<std::string>& groups, std::string& reason) {
  const common::CallbackDispatcher& dispatcher = _settingsManager->GetDispatcher();
  if (dispatcher.WouldExceedMaxAlikePatterns(groups)) {
    reason = "More patterns would be alike than the " + std::to_string(dispatcher.GetMaxAlikePatterns()) + " allowed";
    return false;
  }
  if (_mostSubscriptions == 0 && _mostSubscriptionBytes == 0 && !_subscriptionBudget) return true;
  size_t count = _subscriptions.GetNames().size() + _subscriptions.GetPatterns().size();
  size_t newBytes = 0;
  for (const std::string& group : groups) {
    if (_subscriptions.GetNames().count(group) + _subscriptions.GetPatterns().count(group) > 0) continue;
    ++count;
    newBytes += group.size();
  }
  const size_t bytes = _subscriptionBytes + newBytes;
  if (count > _mostSubscriptions && _mostSubscriptions > 0) {
    reason = FormatExcess(" subscriptions", count, _mostSubscriptions);
  } else if (bytes > _mostSubscriptionBytes && _mostSubscriptionBytes > 0) {
    reason = FormatExcess(" bytes of subscriptions", bytes, _mostSubscriptionBytes);
  } else if (_subscriptionBudget && !_subscriptionBudget->Take(newBytes)) {
    reason = "All subscriptions together would have more than the " + std::to_string(_subscriptionBudget->GetMax()) +
             " bytes allowed";
  }
  if (!reason.empty()) return false;
  _subscriptionBytes = bytes;
  _subscriptions.AddNamesAndPatterns(groups);
  return true;
}

void ClientHandler::RefuseSubscription(const std::string& reason) {
  MsgDispatcher::Get().CountRefusedSubscription();
  _logger->Warning("Subscription refused: %s", reason.c_str());
}

void ClientHandler::GetSections(std::istream& args) {
  const bool delimited = TakeWord(args) == protocol::kDelimited;
  const GroupNameMatcher matcher = ReadGroupMatcher();
  if (_pIsStopped && !matcher.IsEmpty()) return GetInParts(matcher, delimited);
  MutexAutoLock lock(_outputMutex);
  if (!IsReachable()) return;
  _message.Reset(kKeptMemory);
  if (delimited) _message.AppendLine(protocol::kData);
  if (!matcher.IsEmpty()) AppendGroups(matcher);
  if (delimited) _message.AppendLine(protocol::kTerminator);
  SendMessage(&matcher);
}

// To the message.
void ClientHandler::AppendGroups(const GroupNameMatcher& matcher) {
  const ISettingsSerializer& serializer = *_serializer.load();
  if (_maxWork == 0) return _settingsManager->WriteGroups(_message, matcher, serializer);
  if (_settingsManager->TryWriteGroups(_message, matcher, serializer, _maxWork)) return;
  _message.Reset(kKeptMemory);
  throw TooLong();
}

void ClientHandler::GetInParts(const GroupNameMatcher& matcher, bool delimited) {
  const char* const firstLine = delimited ? protocol::kData : "";
  AnswerInParts(&matcher, firstLine, [&](std::ostream& text, const SettingsManager::BetweenParts& between) {
    _settingsManager->WriteGroupsInParts(text, matcher, *_serializer.load(), between);
    if (delimited) text << protocol::kTerminator << '\n';
  });
}

void ClientHandler::Overwrite(std::istream&) {
  const std::set<std::string> groups = ReadGroupSet();
  IniFile settings;
  if (WasCutOff() || !ReadPayload(settings)) return;
  RequireShortNotices(groups);
  RequireShortNotices(settings);
  CarryOut([&] { _settingsManager->OverwriteSettings(groups, settings); });
}

void ClientHandler::ChangeSerialization(std::istream& args) {
  const std::string name(TakeWord(args));
  const ISettingsSerializer* serializer = _serializationManager->GetSerializer(name);
  if (!serializer) return;
  _logger->Trace("switching to serialization mode: %s", name.c_str());
  _serializer.store(serializer);
}

void ClientHandler::RestoreDefaults(std::istream&) {
  const GroupNameMatcher matcher = ReadGroupMatcher();
  if (WasCutOff()) return;
  CarryOut([&] { _settingsManager->RestoreToDefaults(matcher); });
}

// A notification takes the output mutex after the dispatcher's, and waits for it: so all is made without it.
void ClientHandler::Info(std::istream& args) {
  if (TakeWord(args) != protocol::kSubscribed) return;
  {
    MutexAutoLock lock(_outputMutex);
    if (!IsReachable()) return;
  }
  std::set<std::string> groups;
  _settingsManager->GetAllSubscribedGroups(groups);
  core::StringOstream text;
  text.AppendLine("Subscribed groups\n-----------------");
  for (const std::string& group : groups) text.AppendLine(group);
  text.AppendLine("");
  MutexAutoLock lock(_outputMutex);
  if (IsReachable()) Write(text.GetText(), &kNoGroups);
}

void ClientHandler::OnChange(const std::set<std::string>& changedGroups, const IniFile&) {
  try {
    MutexAutoLock lock(_outputMutex);
    if (!IsReachable()) return;
    try {
      WriteNotice(changedGroups);
      MsgDispatcher::Get().CountNotice();
    } catch (...) {
      if (_messageObserver) _messageObserver->OnMessageLost(*_out);
      _out->setstate(std::ios::badbit);  // half a notice may be out: nothing may follow it
      throw;
    }
  } catch (const std::exception& exception) {
    _logger->Warning("Failed to write a change notice: %s", exception.what());
  } catch (...) {
    _logger->Warning("Failed to write a change notice: %s", "unknown");
  }
}

// The caller holds the output mutex.
void ClientHandler::WriteNotice(const std::set<std::string>& changedGroups) {
  NoticeText& known = NoticeText::OfThisThread();
  const unsigned long long version = _settingsManager->GetVersion();
  const NoticeText::Key key{version, _serializer.load(), changedGroups};
  NoticeText::Notice notice = known.Find(key);
  if (!notice.text) {
    auto groups = std::make_shared<GroupNameMatcher>();
    groups->AddNamesAndPatterns(changedGroups);
    _message.Reset(kKeptMemory);
    ComposeNotice(changedGroups, *groups, *key.serializer);
    notice = {std::make_shared<const std::string>(_message.GetText()), std::move(groups)};
    _message.Reset(kKeptMemory);
    if (version == _settingsManager->GetVersion()) known.Keep(key, notice);
  }
  SendNotice(notice.text, *notice.groups);
}

void ClientHandler::ComposeNotice(const std::set<std::string>& changedGroups, const GroupNameMatcher& matcher,
                                  const ISettingsSerializer& serializer) {
  _message.AppendLine(protocol::kAsyncChange);
  for (const std::string& group : changedGroups) {
    if (IsLine(group)) _message.AppendLine(group);
  }
  _message.AppendLine(protocol::kTerminator);
  _settingsManager->WriteGroups(_message, matcher, serializer);
  _message.AppendLine(protocol::kTerminator);
}

// False when the input ended before the payload did: what came of it must not be carried out.
bool ClientHandler::ReadPayload(IniFile& document) {
  _serializer.load()->OnDeserialize(*_in, document);
  CheckNames(document, _maxNameBytes);
  return !WasCutOff();
}

bool ClientHandler::WasCutOff() const {
  return !_in->good();
}

// The caller holds the output mutex, here and below.
void ClientHandler::SendMessage(const GroupNameMatcher* groups) {
  Write(_message.GetText(), groups);
  _message.Reset(kKeptMemory);
}

void ClientHandler::SendNotice(const std::shared_ptr<const std::string>& text, const GroupNameMatcher& groups) {
  if (!_messageObserver || !_messageObserver->OnSharedMessage(*_out, text, &groups)) Write(*text, &groups);
}

void ClientHandler::Write(const std::string& message, const GroupNameMatcher* groups) {
  if (_messageObserver) _messageObserver->OnMessage(*_out, groups);
  _out->write(message.data(), static_cast<std::streamsize>(message.size()));
  _out->flush();
}

bool ClientHandler::IsReachable() const {
  return _out->good() && (!_messageObserver || _messageObserver->IsReachable(*_out));
}

}  // namespace tavix::settings::server
