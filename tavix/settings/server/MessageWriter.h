#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>

#include "tavix/core/MemoryStream.h"
#include "tavix/osa/Mutex.h"
#include "tavix/osa/MutexAutoLock.h"
#include "tavix/osa/ThreadAnnotations.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/IClientOutput.h"
#include "tavix/settings/server/ISettingsSerializer.h"
#include "tavix/settings/server/MessageText.h"
#include "tavix/settings/server/NoticeRound.h"
#include "tavix/settings/server/SettingsManager.h"

namespace tavix::core {
class Logger;
}

namespace tavix::settings::server {

struct ServerEnv;

// Writes a connection's replies and notices, each whole and flushed. Once the output is broken, or can't reach the peer
// any more, messages are not even made.
//
// Threads: replies are written by the connection's handler, notices by the threads that make changes.
// Locks:   the output mutex, outside the store's "SettingsMutex". Nobody takes the notification gate or a dispatcher's
//          mutex inside it.
// Owns:    the output, if it is given it to own; neither environment nor stream, which outlive EndNotices. It may
//          itself outlive its handler in a round of notices, which are dropped then.
// Errors:  replies pass on what the store throws. A notice that can't be written breaks the output.
class MessageWriter : public NoticeRound::IReceiver {
 public:
  MessageWriter(const ServerEnv& env, IClientOutput& out);
  MessageWriter(const ServerEnv& env, std::unique_ptr<IClientOutput> out);

  // Used by all messages from now on. From any thread.
  void SetSerializer(const ISettingsSerializer& serializer) { _serializer = &serializer; }
  const ISettingsSerializer& GetSerializer() const { return *_serializer; }

  // All messages from now on wait until that change is durable. By the handler.
  void HoldMessages(ChangeTicket ticket);

  // Writes what "compose" adds to a StringOstream. groups: those that the reply shows; null: it may show any.
  template <class Compose>
  void Reply(const common::GroupNameMatcher* groups, Compose compose) {
    osa::MutexAutoLock lock(_outputMutex);
    if (!IsReachable()) return;
    MessageText text;
    compose(text.GetStream());
    WriteReply(text.GetStream().GetText(), groups);
  }

  // The same for a text that is made in parts. Notices wait for the output mutex, so it is taken before the last part
  // only. The reply then holds each change that was made before, and a notice of any later one follows it: a client may
  // rely on whichever comes last. compose: adds to the stream, as it is asked between the parts.
  using ComposeParts = std::function<void(core::StringOstream&, const SettingsManager::BetweenParts&)>;
  void ReplyInParts(const common::GroupNameMatcher* groups, const std::function<bool()>& isStopped,
                    const ComposeParts& compose) TAVIX_NO_THREAD_SAFETY_ANALYSIS;  // "compose" has the mutex taken

  // The same for a text that is made without the output mutex, and only if somebody may read it.
  void ReplyUnlocked(const common::GroupNameMatcher* groups, const std::function<void(core::StringOstream&)>& compose);

  void WriteNotice(const std::set<std::string>& changedGroups) noexcept override;

  // A notice could not even be kept for later: nothing may follow it.
  void OnNoticeLost(const char* reason) noexcept;

  // Returns when no notice is being written; none follows.
  void EndNotices();

 private:
  void LogLoss(const char* reason) noexcept;
  bool CanBeReached();
  bool IsReachable() const TAVIX_REQUIRES(_outputMutex);
  void MakeNotice(const std::set<std::string>& changedGroups) TAVIX_REQUIRES(_outputMutex);
  std::string Compose(const std::set<std::string>& changedGroups, const common::GroupNameMatcher& matcher,
                      const ISettingsSerializer& serializer) const;
  void Break() TAVIX_REQUIRES(_outputMutex);
  void WriteReply(const std::string& message, const common::GroupNameMatcher* groups) TAVIX_REQUIRES(_outputMutex);
  void Write(const std::string& message, const common::GroupNameMatcher* groups) TAVIX_REQUIRES(_outputMutex);

  core::Logger* const _logger;
  const SettingsManager& _settingsManager;
  const std::unique_ptr<IClientOutput> _ownOutput;  // may be null
  IClientOutput& _output;                           // but for HoldMessages, used with the mutex held
  std::atomic<const ISettingsSerializer*> _serializer;
  osa::Mutex _outputMutex;
  std::ostream* const _out TAVIX_PT_GUARDED_BY(_outputMutex);  // the output's; null: it has none
  bool _hasEnded TAVIX_GUARDED_BY(_outputMutex) = false;
};

}  // namespace tavix::settings::server
