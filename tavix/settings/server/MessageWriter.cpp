#include "tavix/settings/server/MessageWriter.h"

#include <exception>
#include <utility>

#include "tavix/core/IniFile.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/client/ProtocolConstants.h"
#include "tavix/settings/server/HandlerCounts.h"
#include "tavix/settings/server/RequestLists.h"
#include "tavix/settings/server/SerializationManager.h"
#include "tavix/settings/server/ServerEnv.h"

namespace tavix::settings::server {

namespace protocol = client::protocol;

using common::GroupNameMatcher;
using osa::MutexAutoLock;

namespace {

std::ostream* StreamOf(IClientOutput& out) {
  return out.HasStream() ? &out.GetOstream() : nullptr;
}

}  // namespace

MessageWriter::MessageWriter(const ServerEnv& env, IClientOutput& out)
    : _logger(core::Logger::GetLogger("ClientHandler")),
      _settingsManager(*env.settingsManager),
      _output(out),
      _serializer(env.serializationManager->GetSerializer("ini")),
      _outputMutex(nullptr),
      _out(StreamOf(out)) {}

MessageWriter::MessageWriter(const ServerEnv& env, std::unique_ptr<IClientOutput> out)
    : _logger(core::Logger::GetLogger("ClientHandler")),
      _settingsManager(*env.settingsManager),
      _ownOutput(std::move(out)),
      _output(*_ownOutput),
      _serializer(env.serializationManager->GetSerializer("ini")),
      _outputMutex(nullptr),
      _out(StreamOf(_output)) {}

void MessageWriter::HoldMessages(ChangeTicket ticket) {
  if (ticket != 0) _output.HoldMessages(ticket);
}

void MessageWriter::ReplyInParts(const GroupNameMatcher* groups, const std::function<bool()>& isStopped,
                                 const ComposeParts& compose) {
  if (!CanBeReached()) return;
  core::StringOstream text;
  std::optional<MutexAutoLock> lock;
  compose(text, SettingsManager::BetweenParts{isStopped, [&] { lock.emplace(_outputMutex); }});
  if (IsReachable()) WriteReply(text.GetText(), groups);
}

void MessageWriter::ReplyUnlocked(const GroupNameMatcher* groups,
                                  const std::function<void(core::StringOstream&)>& compose) {
  if (!CanBeReached()) return;
  core::StringOstream text;
  compose(text);
  MutexAutoLock lock(_outputMutex);
  if (IsReachable()) WriteReply(text.GetText(), groups);
}

void MessageWriter::WriteNotice(const std::set<std::string>& changedGroups) noexcept {
  try {
    MutexAutoLock lock(_outputMutex);
    if (_hasEnded || !IsReachable()) return;
    try {
      MakeNotice(changedGroups);
      HandlerCounts::CountOne(handlerCounts.notices);
    } catch (...) {
      Break();
      throw;
    }
  } catch (const std::exception& exception) {
    LogLoss(exception.what());
  } catch (...) {
    LogLoss("unknown");
  }
}

void MessageWriter::OnNoticeLost(const char* reason) noexcept {
  try {
    MutexAutoLock lock(_outputMutex);
    if (_hasEnded || !IsReachable()) return;
    Break();
  } catch (const std::exception&) {  // of a stream that throws when it breaks
  }
  LogLoss(reason);
}

// A line that can't be written for want of memory is left out.
void MessageWriter::LogLoss(const char* reason) noexcept {
  try {
    _logger->Warning("Failed to write a change notice: %s", reason);
  } catch (const std::exception&) {
  }
}

void MessageWriter::EndNotices() {
  MutexAutoLock lock(_outputMutex);
  _hasEnded = true;
}

bool MessageWriter::CanBeReached() {
  MutexAutoLock lock(_outputMutex);
  return IsReachable();
}

bool MessageWriter::IsReachable() const {
  return (!_out || _out->good()) && _output.IsReachable();
}

// Subscribers of the same change are mostly sent the same bytes, which this thread may just have made.
void MessageWriter::MakeNotice(const std::set<std::string>& changedGroups) {
  NoticeText& known = NoticeText::OfThisThread();
  const unsigned long long version = _settingsManager.GetVersion();
  const NoticeText::Key key{version, _serializer.load(), changedGroups};
  NoticeText::Notice notice = known.Find(key);
  if (!notice.text) {
    auto groups = std::make_shared<GroupNameMatcher>();
    groups->AddNamesAndPatterns(changedGroups);
    notice.text = std::make_shared<const std::string>(Compose(changedGroups, *groups, *key.serializer));
    notice.groups = std::move(groups);
    if (version == _settingsManager.GetVersion()) known.Keep(key, notice);
  }
  if (!_output.WriteSharedMessage(notice.text, notice.groups.get())) Write(*notice.text, notice.groups.get());
}

std::string MessageWriter::Compose(const std::set<std::string>& changedGroups, const GroupNameMatcher& matcher,
                                   const ISettingsSerializer& serializer) const {
  MessageText text;
  core::StringOstream& message = text.GetStream();
  message.AppendLine(protocol::kAsyncChange);
  for (const std::string& group : changedGroups) {
    if (IsLine(group)) message.AppendLine(group);
  }
  message.AppendLine(protocol::kTerminator);
  _settingsManager.WriteGroups(message, matcher, serializer);
  message.AppendLine(protocol::kTerminator);
  return message.GetText();
}

// Half a notice may be out: nothing may follow it.
void MessageWriter::Break() {
  _output.OnMessageLost();
  if (_out) _out->setstate(std::ios::badbit);
}

void MessageWriter::WriteReply(const std::string& message, const GroupNameMatcher* groups) {
  Write(message, groups);
  HandlerCounts::CountOne(handlerCounts.replies);
}

void MessageWriter::Write(const std::string& message, const GroupNameMatcher* groups) {
  if (!_out) return _output.WriteMessage(message, groups);
  _output.BeginMessage(groups);
  _out->write(message.data(), static_cast<std::streamsize>(message.size()));
  _out->flush();
}

}  // namespace tavix::settings::server
