#include "tavix/settings/server/ClientHandlerRequests.h"

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
#include "tavix/settings/Amendment.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/ChangeLines.h"
#include "tavix/settings/server/ChangeOrigin.h"
#include "tavix/settings/server/ClientState.h"
#include "tavix/settings/server/HandlerCounts.h"
#include "tavix/settings/server/IServerInfo.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/InfoText.h"
#include "tavix/settings/server/MessageWriter.h"
#include "tavix/settings/server/OwnSubscriptions.h"
#include "tavix/settings/server/RecordedPatterns.h"
#include "tavix/settings/server/RefusalReasons.h"
#include "tavix/settings/server/RequestInput.h"
#include "tavix/settings/server/RequestLists.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/SettingsManager.h"
#include "tavix/settings/server/Words.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

using common::GroupNameMatcher;
using common::GroupNameMatcherInsertIterator;
using core::IniFile;
using AnswerKind = IExtraCommands::Answer::Kind;

namespace {

const GroupNameMatcher kNoGroups;

// The product, or the greatest number there is.
unsigned long long Multiply(unsigned long long a, unsigned long long b) {
  constexpr auto kMax = std::numeric_limits<unsigned long long>::max();
  return b > 0 && a > kMax / b ? kMax : a * b;
}

bool IsChangeLogged() {
  return core::Logger::IsEnabled(core::kLogInformation);
}

const GroupNameMatcher& AllGroups() {
  static const GroupNameMatcher all = [] {
    GroupNameMatcher matcher;
    matcher.AddNameOrPattern("*");
    return matcher;
  }();
  return all;
}

std::set<std::string> NamesOf(std::initializer_list<const IniFile*> documents) {
  std::set<std::string> names;
  for (const IniFile* const document : documents) {
    for (const auto& group : *document) names.insert(names.end(), group.first);
  }
  return names;
}

std::string MakeFeatureLines(const IExtraCommands* extraCommands) {
  std::set<std::string> features{protocol::kAmend};
  if (extraCommands) extraCommands->AddFeatures(features);
  std::string lines;
  for (const std::string& feature : features) lines.append(feature).append(1, '\n');
  return lines;
}

}  // namespace

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
bool ClientHandler::CarryOut(std::string_view command, Change change) {
  try {
    ChangeTicket ticket = 0;
    change(_client->BeginChange(command), ticket);
    _writer->HoldMessages(ticket);
    return true;
  } catch (const RefusedChange& refusal) {
    _refusal = refusal;
    _client->Refuse(ReasonOf(refusal));
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
  if (!ReadPayloads({&settings})) return;
  RequireShortNotices(settings);
  const auto merge = [&](const ChangeOrigin& origin, ChangeTicket& ticket) {
    _settingsManager->MergeSettings(settings, flags, origin, ticket);
  };
  if (!CarryOut(protocol::kMerge, merge)) return;
  _client->Refuse(ReasonOfRestricted(settings));
  NoteChange(protocol::kMerge, {}, settings);
}

void ClientHandler::TestAndMerge(std::string_view) {
  IniFile condition;
  IniFile change;
  if (!ReadPayloads({&condition, &change})) return;
  RequireShortNotices(change);
  bool isMerged = false;
  const auto merge = [&](const ChangeOrigin& origin, ChangeTicket& ticket) {
    isMerged = _settingsManager->TestAndMerge(condition, change, origin, ticket);
  };
  const bool isTested = CarryOut(protocol::kTestAndMerge, merge);
  if (isTested && !isMerged) _client->Refuse(kConditionFailed);
  if (isMerged) _client->Refuse(ReasonOfRestricted(change));
  if (isMerged) NoteChange(protocol::kTestAndMerge, {}, change);
  ReplyResult(isMerged);
}

void ClientHandler::ReplyResult(bool isMade) {
  _writer->Reply(nullptr, [&](core::StringOstream& message) {
    message.AppendLine(protocol::kResult);
    message.AppendLine(isMade ? protocol::kOk : protocol::kFailure);
  });
}

// A pattern that joins or leaves the record of deleted groups may take many groups away, or bring them back.
void ClientHandler::Amend(std::string_view) {
  Amendment amendment;
  if (!ReadPayloads({&amendment.present, &amendment.absent, &amendment.set, &amendment.unset, &amendment.replace}))
    return;
  const std::set<std::string> changed = NamesOf({&amendment.set, &amendment.unset, &amendment.replace});
  if (_maxWork > 0 && changed.count(SettingsManager::kDeletedGroups) != 0) throw TooLong();
  const std::set<std::string> unset = NamesOf({&amendment.unset});
  CheckPatterns(static_cast<size_t>(std::count_if(unset.begin(), unset.end(), IsPattern)),
                CountRecordedPatterns(amendment, *_settingsManager));
  RequireShortNotices(changed);
  bool isMade = false;
  const auto amend = [&](const ChangeOrigin& origin, ChangeTicket& ticket) {
    isMade = _settingsManager->Amend(amendment, origin, ticket);
  };
  const bool isTested = CarryOut(protocol::kAmend, amend);
  if (isTested && !isMade) _client->Refuse(ReasonOfFailure(amendment));
  if (isMade) _client->Refuse(ReasonOfRestricted(changed));
  if (isMade && IsChangeLogged()) {
    amendment.set.MergeSettings(amendment.replace);
    NoteChange(protocol::kAmend, changed, amendment.set);
  }
  ReplyResult(isMade);
}

// What would pass a bound is left out as a whole: the client that asks for too much keeps what it had, and its
// connection. Ended, it would only come back and ask for the same.
void ClientHandler::Subscribe(std::string_view) {
  _client->BeginRequest();
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
  _client->Refuse("bound: " + reason);
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
  if (WasCutOff() || !ReadPayloads({&settings})) return;
  RequireShortNotices(groups);
  RequireShortNotices(settings);
  const auto overwrite = [&](const ChangeOrigin& origin, ChangeTicket& ticket) {
    _settingsManager->OverwriteSettings(groups, settings, origin, ticket);
  };
  if (!CarryOut(protocol::kOverwrite, overwrite)) return;
  _client->Refuse(ReasonOfRestricted(settings));
  _client->Refuse(ReasonOfRestricted(groups));
  NoteChange(protocol::kOverwrite, groups, settings);
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
  const auto restore = [&](const ChangeOrigin& origin, ChangeTicket& ticket) {
    _settingsManager->RestoreToDefaults(matcher, origin, ticket);
  };
  if (!CarryOut(protocol::kRestore, restore) || !IsChangeLogged()) return;
  std::set<std::string> groups = matcher.GetNames();
  groups.insert(matcher.GetPatterns().begin(), matcher.GetPatterns().end());
  NoteChange(protocol::kRestore, groups, {});
}

void ClientHandler::Info(std::string_view args) {
  const std::string_view word = TakeWord(args);
  if (word == protocol::kSubscribed) ShowSubscribed();
  if (word == protocol::kFeatures) ShowLines("Features", MakeFeatureLines(_extraCommands));
  IniFile::KeyMap figures;
  if (word == protocol::kServer && _serverInfo) {
    _serverInfo->AddFigures(figures);
    ShowLines("Server", MakeFigureLines(std::move(figures)));
  } else if (word == protocol::kWhoami) {
    _client->AddIdentity(figures);
    ShowLines("Whoami", MakeFigureLines(std::move(figures)));
  } else if (word == protocol::kRefused) {
    _client->TakeReason(figures);
    ShowLines("Refused", MakeFigureLines(std::move(figures)));
  }
}

// Made without the output mutex: notices need not wait for it.
void ClientHandler::ShowSubscribed() {
  _writer->ReplyUnlocked(&kNoGroups, [this](core::StringOstream& text) {
    std::set<std::string> groups;
    _settingsManager->GetAllSubscribedGroups(groups);
    std::string lines;
    for (const std::string& group : groups) lines.append(group).append(1, '\n');
    text.Append(MakeInfoText("Subscribed groups", lines));
  });
}

void ClientHandler::ShowLines(std::string_view title, std::string_view lines) {
  _writer->Reply(&kNoGroups, [&](core::StringOstream& message) { message.Append(MakeInfoText(title, lines)); });
}

void ClientHandler::TakeNote(std::string_view args) {
  const std::string_view text = TrimBlanks(args);
  if (_client->TakeNote(text)) return;
  _logger->Warning("Note ignored: it has %zu bytes, %zu are allowed", text.size(), ClientState::kMaxNoteBytes);
}

// A line that the end of the input cut off may be the beginning of another one.
void ClientHandler::CarryOutExtra(std::string_view word, std::string_view args, bool isChange) {
  if (WasCutOff()) return;
  IExtraCommands::Call call{word, args, {}};
  call.origin = isChange ? _client->BeginChange(word) : ChangeOrigin{_client->GetIdentity(), word, {}};
  const IExtraCommands::Answer answer = TryToCarryOut(call);
  _writer->HoldMessages(answer.ticket);
  if (!isChange) _client->BeginRequest();
  _client->Refuse(answer.kind == AnswerKind::kRefused ? std::string(word) + ": " + answer.reason : answer.reason);
  if (answer.kind != AnswerKind::kNone) WriteAnswer(answer);
}

void ClientHandler::WriteAnswer(const IExtraCommands::Answer& answer) {
  _writer->Reply(nullptr, [&](core::StringOstream& message) {
    if (answer.kind == AnswerKind::kRefused) {
      message.AppendLine(protocol::kRefused);
      message.AppendLine(EscapeText(answer.reason, ClientState::kMaxReasonBytes));
    } else {
      message.AppendLine(protocol::kData);
      _writer->GetSerializer().OnSerialize(answer.data, AllGroups(), message);
      message.AppendLine(protocol::kTerminator);
    }
  });
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

// Each may have to be tried on every group of the store, a recorded one like one that the request names.
void ClientHandler::CheckPatterns(size_t named, size_t recorded) const {
  CheckCount(named, _maxPatterns, "patterns");
  const size_t patterns = named + recorded;
  if (_maxMatchingWork == 0 || patterns == 0) return;
  const size_t nameBytes = _settingsManager->CountNameBytes();
  if (Multiply(patterns, nameBytes) <= _maxMatchingWork) return;
  throw osa::Exception("To try %zu patterns on %zu bytes of group names is more than the %llu bytes allowed", patterns,
                       nameBytes, _maxMatchingWork);
}

// Payloads that follow one another. False when the input ended before the last one did: what came of them must not be
// carried out.
bool ClientHandler::ReadPayloads(std::initializer_list<IniFile*> documents) {
  for (IniFile* const document : documents) {
    if (document != *documents.begin()) _in->SkipPayloadEnd(_writer->GetSerializer());
    _in->TakePayload(_writer->GetSerializer(), *document);
    CheckNames(*document, _maxNameBytes);
    if (WasCutOff()) return false;
  }
  return true;
}

bool ClientHandler::WasCutOff() const {
  return !_in->IsGood();
}

}  // namespace tavix::settings::server
