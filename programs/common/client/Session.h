#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/Amendment.h"

namespace tavix::programs {

// One way to a store, all that the commands know of it: a daemon's, or a file.
//
// Threads: one.
// Errors:  Failure: kExitNoServer when the store can't be reached or does not answer in time, kExitBadInput when what
//          it holds can't be parsed, kExitNotApplied when a file can't be written, kExitUsage for a name that can't be
//          sent.
class Session {
 public:
  using Groups = std::set<std::string>;

  // Some groups have changed.
  struct Notice {
    Groups groups;           // that have changed
    core::IniFile settings;  // what they hold now; those that are missing are gone
  };

  // Take a part of what is read, which may not use the session: a document of one group, or the name of a group.
  using TakeGroup = std::function<void(const core::IniFile& group)>;
  using TakeName = std::function<void(const std::string& name)>;

  // Told how many of all bytes of a write have left.
  using Progress = std::function<void(size_t done, size_t all)>;

  Session() = default;
  virtual ~Session() = default;

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The store's address, for people.
  virtual std::string GetAddress() const = 0;

  // The groups that names and '*' patterns mean.
  virtual core::IniFile Get(const Groups& groups) = 0;

  // The same in parts, in ascending order. A daemon's are handed out while the rest is still to come, and no more than
  // one is kept. What was handed out before a failure counts for nothing.
  virtual void GetEach(const Groups& groups, const TakeGroup& take);
  virtual void GetEachName(const Groups& groups, const TakeName& take);

  // From now on a store that does not exist yet reads as an empty one: it is about to be written.
  virtual void AllowNew() {}

  // What clients wrote, with the bookkeeping of what they deleted.
  virtual core::IniFile GetUserSettings() = 0;

  // The same in parts.
  virtual void GetEachOfUser(const TakeGroup& take);

  // Throws Failure, kExitUsage, when this store is only read: so that nobody is asked or edits in vain.
  virtual void RequireWritable() const {}

  // Whether clients can't write the group.
  virtual bool IsRestricted(const std::string& group) const = 0;

  // Runs "change", which reads this store and writes what follows from that. No other command writes in between where
  // the store can promise that: a file can; a daemon has nothing but the conditions of TestAndMerge and Amend. May be
  // nested.
  virtual void RunAlone(const std::function<void()>& change) { change(); }
  virtual bool CanRunAlone() const { return false; }

  // Names and patterns that anybody has subscribed to.
  virtual std::vector<std::string> GetSubscribed() = 0;

  // What the store's server reports of itself, by name (docs/protocol.md): of the moment behind all that was read
  // before. Empty: there is none, or it is older than that request.
  virtual std::map<std::string, std::string> GetServerInfo() { return {}; }

  // Whether Amend may be called. An older server does not know it.
  virtual bool CanAmend() = 0;

  // How the server sees this client, by name (docs/protocol.md); empty when it is older than that request.
  virtual std::map<std::string, std::string> GetWhoami() = 0;

  // Why the last change was not made, once, in the words of docs/protocol.md. Empty: there is no reason, or the server
  // is older than that request.
  virtual std::string TakeRefusal() { return {}; }

  // The later requests that the server knows, each with what it reports behind the name; null: it is too old to report
  // any. Throws Failure, kExitUsage, where there is no server.
  virtual const std::map<std::string, std::string>* FindFeatures() { return nullptr; }

  // What a request changes: with settings, the note and the trial go.
  enum class Effect { kNoSettings, kSettings };

  // What came of a request of one line.
  struct Answer {
    bool isRefused = false;
    std::string reason;  // of the refusal
    core::IniFile data;  // else
  };

  // Sends a request of one line that is one of the server's features. Throws Failure, kExitNotApplied, where there can
  // be none.
  virtual Answer Ask(const std::string& line, Effect effect);

  // Each write from now on is put on trial under that name: it goes back by itself after so many seconds, unless it is
  // confirmed. Only where the server has the feature. A write behind the first throws Failure, before anything of it is
  // sent, when the trial has ended: kExitReverted, or kExitConditionFailed when somebody has confirmed it.
  virtual void SetTrial(unsigned seconds, const std::string& name);

  // Goes with each write from now on, as the reason for it. Throws Failure, before anything is sent: kExitUsage when
  // no line can hold it, or the store has no place for it; kExitNotApplied when the server is too old.
  virtual void SetNote(const std::string& note) = 0;

  // Returns what the groups hold at the moment from which on notices come.
  virtual core::IniFile Subscribe(const Groups& groups) = 0;

  // The next notice of the subscription; nothing when none came within the limit. Without a limit it waits for ever.
  virtual std::optional<Notice> AwaitNotice(std::optional<std::chrono::milliseconds> limit) = 0;

  virtual void SetProgress(Progress progress) = 0;

 private:
  friend class SessionWriter;  // of Writes.cpp: the commands write by the functions of Writes.h alone

  // A write returns when it was handed over: what became of it is found by reading.
  virtual void Merge(const core::IniFile& settings, bool isVolatile) = 0;
  [[nodiscard]] virtual bool TestAndMerge(const core::IniFile& test, const core::IniFile& settings) = 0;
  [[nodiscard]] virtual bool Amend(const settings::Amendment& amendment) = 0;
  virtual void Overwrite(const Groups& groups, const core::IniFile& settings) = 0;
  virtual void Restore(const Groups& groups) = 0;
};

}  // namespace tavix::programs
