#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/osa/Export.h"
#include "tavix/settings/Amendment.h"
#include "tavix/settings/client/ProtocolException.h"
#include "tavix/settings/client/ProtocolOptions.h"

namespace tavix::settings::client {

class ProtocolExchange;

// One connection to a daemon, and the requests of the protocol (docs/protocol.md) over it, for programs that want to
// know what went wrong. TavixSettingsClient is the interface for all others: it connects again by itself, repeats, and
// hides lost connections.
//
// Connecting is one attempt, and no request is ever sent twice. Requests keep their order, so that what is read behind
// a write holds it.
//
// Threads: one at a time for each object; several objects are independent. There is no thread of its own.
// Time:    no call waits longer than its Timeouts allow, but for the system's resolver while it finds the address of a
//          host's name.
// Errors:  ProtocolException. After kUsage, kUnreadable, kDropped and kTooOld the connection goes on. After any other
//          failure, std::bad_alloc included, it is closed at once, as the next reply could belong to any request:
//          each later call throws kLost, and a new object makes a new connection. What comes that no request asked for,
//          and is no notice, is such a failure of the next call.
// Signals: an interrupted wait goes on; a peer that is gone raises no SIGPIPE.
// Fork:    the descriptor is closed on exec. A child that uses the object would take its parent's replies: it may only
//          destroy it.
// Owns:    the connection. Functions that are passed in are called by the calls of this object, on their thread; what
//          they throw passes through, and the connection is closed.
// Methods: one for each request of the protocol, and those for notices.
class TAVIX_EXPORT ProtocolClient {
 public:
  using Groups = std::set<std::string>;
  using Milliseconds = std::chrono::milliseconds;
  using Timeouts = ProtocolTimeouts;
  using Options = ProtocolOptions;
  using Notice = ProtocolNotice;

  using Trace = ProtocolTrace;
  using Progress = ProtocolProgress;

  // Take a part of a reply while the rest is still to come: a document of one group, or the name of a group. They may
  // not use the object.
  using TakeGroup = std::function<void(const core::IniFile& group)>;
  using TakeName = std::function<void(const std::string& name)>;

  // How many pending notices are kept one by one.
  static constexpr size_t kMaxPendingNotices = 64;

  // Connects.
  explicit ProtocolClient(const Options& options, Trace trace = nullptr);
  ~ProtocolClient();

  ProtocolClient(const ProtocolClient&) = delete;
  ProtocolClient& operator=(const ProtocolClient&) = delete;

  // Throw kUsage for what no line of the protocol can hold: names with a line feed, the name ".", and lines of more
  // than 16 MiB. All calls that send names do so, before they send anything.
  static void RequireSendable(const Groups& namesAndPatterns);
  static void RequireSendable(const core::IniFile& settings);

  // HOST:PORT, [V6]:PORT or unix:PATH, as it was found.
  const std::string& GetAddress() const;

  // Count from the next call on.
  void SetTimeouts(const Timeouts& timeouts);

  void SetProgress(Progress progress);

  bool IsOpen() const;

  // The connection's descriptor, to be waited for by poll(2) with POLLIN; -1 once it is closed. Call AwaitNotice(0)
  // until it returns nothing before each such wait: what was received already does not wake poll. Nobody else may read
  // from it, write to it or close it.
  int GetDescriptor() const;

  // Whether something was received that no call has taken, such as a further notice, or a part of one.
  bool HasReceived() const;

  // The groups that names and '*' patterns mean. A name that does not exist is just not there.
  core::IniFile Get(const Groups& namesAndPatterns);

  // What clients wrote, with the bookkeeping of what they deleted.
  core::IniFile GetUserSettings();

  // The same in parts, for stores that are large: each group, in ascending order, is handed out when the next one
  // begins, and then dropped. What was handed out before a failure counts for nothing. kUnreadable, too: the groups do
  // not ascend.
  void GetEach(const Groups& namesAndPatterns, const TakeGroup& take);
  void GetEachOfUser(const TakeGroup& take);

  // The names of the groups that Get would return, for less than GetEach takes.
  void GetEachName(const Groups& namesAndPatterns, const TakeName& take);

  // These writes have no reply: they return when the request has left. Flush, or any call that reads, confirms that
  // they were carried out; when a later call fails before that, its ProtocolException::WasSent is true for these. What
  // they may not write, such as restricted groups, the daemon drops without a word. isVolatile: the change is not
  // saved.
  void Merge(const core::IniFile& settings, bool isVolatile = false);
  void Overwrite(const Groups& namesAndPatterns, const core::IniFile& settings);
  void Restore(const Groups& namesAndPatterns);

  // Sets "settings" if all that "test" holds is so still. Returns whether it was.
  [[nodiscard]] bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings);

  // Makes a conditional change as one step. Returns whether it was made. Asks for the features first, once a
  // connection: kTooOld when the daemon can't do it.
  [[nodiscard]] bool Amend(const Amendment& amendment);

  // Describes the next change of this connection: one line of 256 bytes at most, else kUsage. A daemon that is older
  // than GetFeatures knows no notes, and logs a warning.
  void Note(const std::string& text);

  // Puts the next change of this connection on trial: it goes back by itself after so many seconds unless somebody
  // confirms it by that name. For a daemon with the feature `trial` only.
  void Try(unsigned seconds, const std::string& name);

  // What came of a request of one line.
  struct Answer {
    bool isRefused = false;
    std::string reason;  // of the refusal
    core::IniFile data;  // else
  };

  // Sends a request of one line that is a later feature, to a daemon that has GetFeatures. kTooOld: it does not know
  // the request.
  Answer Ask(const std::string& line);

  // Waits until the daemon has carried out all that was sent.
  void Flush();

  // Names and patterns that any client has subscribed to.
  std::vector<std::string> GetSubscribed();

  // What the daemon reports of itself, by name: docs/protocol.md lists the figures. Empty when it is older than that
  // request. They are of the moment when the daemon handles the request: Flush before it, so that they show what
  // became of a change.
  std::map<std::string, std::string> GetServerInfo();

  // The requests that the daemon knows beyond those that all do: a line each, as docs/protocol.md has them. None: it is
  // older than that request.
  std::optional<std::set<std::string>> GetFeatures();

  // How the daemon sees this client, by name. Empty when it is older than that request.
  std::map<std::string, std::string> GetWhoami();

  // Why the last request of this connection that can be refused was not carried out as a whole; empty: it was, or the
  // daemon is older than that request. A reason is given once.
  std::string TakeRefusal();

  // From now on changes of these groups give notices, on top of earlier subscriptions; only the end of the connection
  // takes one back. Returns what the groups hold at the moment from which on notices come: what pending notices held of
  // them is dropped. More than 256 patterns are read in several requests, each with a moment of its own.
  //
  // A daemon refuses a subscription that is beyond its limits, as a whole and without a word; the groups are read all
  // the same. Names and patterns that GetSubscribed lacks afterwards were refused. It shows those of all clients: where
  // others may have subscribed to the same, ask before, too.
  core::IniFile Subscribe(const Groups& namesAndPatterns);

  // The next notice; nothing when none came within the limit. Zero does not wait. Without a limit it waits for the
  // first byte of a notice as long as the time-out of a call lets it, for ever if there is none. Once a notice has
  // begun, its rest must come within that time-out, and the server may not be silent for longer than its own:
  // kTimedOut. Silence counts from the last byte on, over several calls.
  //
  // Notices that come before they are asked for are pending: every call takes those that were received. From
  // kMaxPendingNotices on, a notice is merged into the last one, which then holds each group as it is now. When they
  // take more than ProtocolOptions::maxPendingBytes, all are dropped, and so are those that follow, until this call has
  // thrown kDropped, once: the subscriptions go on, and Subscribe with the same groups returns what they hold. A notice
  // that pends alone may be as large as a message may.
  //
  // kUnreadable: a notice is lost, and what it was about has to be read.
  std::optional<Notice> AwaitNotice(std::optional<Milliseconds> limit);

 private:
  std::map<std::string, std::string> AskForFigures(const char* word, const char* title);

  std::unique_ptr<ProtocolExchange> _exchange;
  std::optional<bool> _canAmend;  // empty: not asked yet
};

}  // namespace tavix::settings::client
