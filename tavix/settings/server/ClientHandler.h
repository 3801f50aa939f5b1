#pragma once

#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/osa/Export.h"
#include "tavix/settings/IChangeCallback.h"
#include "tavix/settings/common/GroupNameMatcher.h"
#include "tavix/settings/server/IExtraCommands.h"
#include "tavix/settings/server/RefusedChange.h"

namespace tavix::core {
class IniFile;
class Logger;
class ViewIstream;
}  // namespace tavix::core

namespace tavix::settings::server {

class ClientState;
class CommandTable;
class IClientOutput;
class IServerInfo;
class MessageWriter;
class OwnSubscriptions;
class RequestInput;
class SerializationManager;
class SettingsManager;
struct ClientIdentity;
struct ServerEnv;

// Serves one connection: reads requests, carries them out on the store, writes replies, and writes a notice when groups
// change that the connection subscribed to. docs/protocol.md describes every message.
//
// Threads: requests are handled on the thread that calls Run or HandleNext; notices are written by whichever thread
//          made the change. Each reply and each notice is contiguous on the output and ends with a flush.
// Locks:   the output mutex, outside the store's "SettingsMutex". Nothing is held while a request changes the store, so
//          a connection is told of its own changes. A notice is made and written by the thread that made the change,
//          once that has released the store's notification gate.
// Owns:    neither environment nor streams nor output; all outlive the handler. The streams are never closed here.
// Errors:  a payload that can't be parsed, and whatever the store throws, leaves HandleNext: the connection is then out
//          of step and must end. A request that the end of the input cuts off changes nothing. A notice that can't be
//          written breaks the output and is nobody else's trouble. Once the output is broken, or the observer says that
//          nobody reads it, replies and notices are not made any more; requests are read, and changes are made.
// Methods: one for each command of the protocol, as CommandTable wants them, beside those that hosts call.
class TAVIX_EXPORT ClientHandler : public IChangeCallback {
 public:
  ClientHandler(ServerEnv* env, std::istream* in, std::ostream* out);

  // Reads from a view, which HandleNextIfShort needs.
  ClientHandler(ServerEnv* env, core::ViewIstream* in, std::ostream* out);

  // For a host that wants to know more of its messages; the environment's observer is not asked then.
  ClientHandler(ServerEnv* env, core::ViewIstream* in, IClientOutput* out);

  // Ends the subscription; returns once no notice is being written.
  ~ClientHandler() override;

  ClientHandler(const ClientHandler&) = delete;
  ClientHandler& operator=(const ClientHandler&) = delete;

  // Who the client is, before the first request; groups: its others. By default it is in the store's own process.
  void SetClient(const ClientIdentity& client, std::vector<gid_t> groups);

  // Handles requests until the client quits or the input ends, then ends the subscription.
  void Run();

  // Handles one line of input and what belongs to it. False, having read nothing, once the client has quit or the input
  // has ended.
  [[nodiscard]] bool HandleNext();

  // Why the store refused the change that the last HandleNext read; null: it did not. The client is told only where
  // there is a reply that can tell.
  const RefusedChange* GetRefusal() const { return _refusal ? &*_refusal : nullptr; }

  // What the last HandleNext changed, for a log: MakeChangeLines. The first line is for the level information, the
  // others are for trace. None when nothing was changed, or the log has no such lines.
  const std::vector<std::string>& GetChangeLines() const { return _changeLines; }

  // What became of a request that was to be handled only if it is short.
  enum class Attempt {
    kHandled,  // as true from HandleNext
    kEnded,    // as false from it
    kTooLong,  // it may take longer than a millisecond: nothing was done, and the input stands before it again
  };

  // As HandleNext, for a thread that others wait for. The input has to be a view that shows one whole request; without
  // a view it throws osa::Exception.
  [[nodiscard]] Attempt HandleNextIfShort();

  // As HandleNext, for a request that takes long: neither the store nor notices to this connection wait for longer than
  // a part of it takes. isStopped: asked between the parts; once it returns true, a request that only reads ends by an
  // osa::Exception.
  [[nodiscard]] bool HandleNextInParts(const std::function<bool()>& isStopped);

  // Whether a request, which is whole, means nothing for others than its client: it may be skipped once that has left.
  // From any thread.
  bool IsForClientOnly(std::string_view request) const;

  // Whether the client has quit: nothing more is read.
  bool HasQuit() const { return _quit; }

  // Writes the notice. Throws nothing.
  void OnChange(const std::set<std::string>& changedGroups, const core::IniFile& settings) override;

  // Logs how often each command was handled, by all handlers of the process together, through the core logging entry
  // point. logContext: passed to it untouched.
  static void LogStatistics(void* logContext);

  // What all handlers of the process together have done so far.
  struct Statistics {
    struct Command {
      std::string name;
      unsigned long long count;  // calls that ended without an exception
      double seconds;            // that these took together, since TimeCommands
    };

    std::vector<Command> commands;                // every command, in ascending order of names
    unsigned long long unknown = 0;               // words that were no command
    unsigned long long notices = 0;               // that were written
    unsigned long long refusedSubscriptions = 0;  // requests that would have passed a bound
    unsigned long long replies = 0;               // that were written
  };
  static Statistics ReadStatistics();

  // Has all handlers of the process time their commands from now on: reading the clock is a part of a short one.
  static void TimeCommands();

 private:
  friend class CommandTable;

  ClientHandler(ServerEnv* env, std::unique_ptr<RequestInput> in, std::shared_ptr<MessageWriter> writer);

  // The commands; "args" is the rest of the command's line.
  void Quit(std::string_view args);
  void Dump(std::string_view args);
  void Merge(std::string_view args);
  void TestAndMerge(std::string_view args);
  void Subscribe(std::string_view args);
  void GetSections(std::string_view args);
  void Overwrite(std::string_view args);
  void ChangeSerialization(std::string_view args);
  void RestoreDefaults(std::string_view args);
  void Info(std::string_view args);
  void TakeNote(std::string_view args);
  void Amend(std::string_view args);

  template <class Groups>
  void RequireShortNotices(const Groups& changed) const;
  template <class Change>
  bool CarryOut(std::string_view command, Change change);
  void NoteChange(const char* command, const std::set<std::string>& removed, const core::IniFile& settings);
  void ShowSubscribed();
  void ReplyResult(bool isMade);
  void ShowLines(std::string_view title, std::string_view lines);
  const IExtraCommands::Command* FindExtra(std::string_view word) const;
  const IExtraCommands::Command* FindExtraOf(std::string_view request) const;
  void CarryOutExtra(std::string_view word, std::string_view args, bool isChange);
  IExtraCommands::Answer TryToCarryOut(const IExtraCommands::Call& call);
  void WriteAnswer(const IExtraCommands::Answer& answer);
  bool HandleLine();
  void ForgetOutcome();
  void DumpInParts(bool all);
  void GetInParts(const common::GroupNameMatcher& matcher, bool delimited);
  void WriteGroups(std::ostream& message, const common::GroupNameMatcher& matcher) const;
  std::set<std::string> ReadGroupSet();
  common::GroupNameMatcher ReadGroupMatcher();
  void CheckPatterns(size_t named, size_t recorded = 0) const;
  std::string TakeSubscriptions(const std::set<std::string>& groups);
  void RefuseSubscription(const std::string& reason);
  bool ReadPayloads(std::initializer_list<core::IniFile*> documents);
  bool WasCutOff() const;
  void EndSubscription();

  core::Logger* const _logger;
  bool _quit = false;
  std::optional<RefusedChange> _refusal;  // of the last request
  std::vector<std::string> _changeLines;  // likewise
  const std::unique_ptr<RequestInput> _in;
  SettingsManager* const _settingsManager;
  SerializationManager* const _serializationManager;
  const size_t _maxListed;
  const size_t _maxPatterns;
  const unsigned long long _maxMatchingWork;
  const size_t _maxNameBytes;
  const IServerInfo* const _serverInfo;  // may be null
  IExtraCommands* const _extraCommands;  // may be null
  const std::unique_ptr<ClientState> _client;
  const std::shared_ptr<MessageWriter> _writer;  // a thread that makes a change may hold it for a while longer
  const std::unique_ptr<OwnSubscriptions> _subscriptions;

  // How the request at hand is handled.
  size_t _maxWork = 0;                                 // beyond which it is given up; 0: no limit
  const std::function<bool()>* _pIsStopped = nullptr;  // null: not in parts
  bool _isSecondAttempt = false;                       // the first one was given up
};

}  // namespace tavix::settings::server
