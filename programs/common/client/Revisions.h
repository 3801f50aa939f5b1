#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "programs/common/client/Changes.h"
#include "programs/common/client/Session.h"
#include "tavix/core/IniFile.h"

// What a server's history has of changes, and the changes that are on trial (docs/protocol.md).
namespace tavix::programs {

// Who made a change, as the kernel told the server: empty where nothing is known.
struct Author {
  std::string connection;  // "unix", "tcp", "local" or "daemon"
  std::string user;        // IDs
  std::string group;
  std::string process;

  // text: "unix 1000 100 812"; "-" stands for what is not known.
  static Author From(const std::string& text);
};

// The keys of a group of an answer, which describe one change.
using RecordedKeys = core::IniFile::KeyMap;

// One saved change.
struct Revision {
  uint64_t number = 0;
  std::chrono::system_clock::time_point time;  // of the server's clock
  Author author;
  std::string command;           // the word of the request; "-": there was none
  std::string note;              // empty: none
  std::string trial;             // the name of a trial that the change was on, or that it took back; empty: none
  std::string omitted;           // the bytes of an entry that is too long to be looked at; empty: it is not
  std::vector<Change> settings;  // as FindChanges has them

  // Stands for all revisions that are missing up to it.
  bool IsGap() const { return command == "gap"; }

  // name: a group of the answer. Unknown keys are skipped.
  static Revision From(const std::string& name, const RecordedKeys& keys);
};

// The settings of such a group: what stands behind "was" and "is".
std::vector<Change> ReadRecordedChanges(const RecordedKeys& keys);

// "[group]key" as a setting without values, or "[group]" as a group.
Change ReadRecordedName(const std::string& spelled);

// One change on trial, or one that was until a short time ago.
struct TrialState {
  std::string name;
  std::string state;    // "pending", "confirmed" or "reverted"
  std::string seconds;  // that are left; of a pending one
  std::string note;     // empty: none
  Author author;
  uint64_t revision = 0;         // of its last change, or of the one that took it back; 0: there is none
  std::vector<Change> settings;  // that it still has
  std::vector<Change> kept;      // that others have written since, without values

  bool IsPending() const { return state == "pending"; }

  static TrialState From(const std::string& name, const RecordedKeys& keys);
};

// Reads a server's history, the latest change first, in parts that are asked for as they are needed.
//
// Threads: one, the session's.
// Errors:  those of the session; Failure, kExitNotApplied, with the server's reason.
class HistoryReader {
 public:
  // session: outlives this. pattern: a group or '*' pattern, whose settings alone are shown; empty: all.
  HistoryReader(Session& session, std::string pattern) : _session(session), _pattern(std::move(pattern)) {}

  // The next part, which may be empty. count: how many changes are wanted, at least 1.
  std::vector<Revision> ReadNext(size_t count);

  // Whether that was all.
  bool HasEnded() const { return _hasEnded; }

 private:
  Session& _session;
  const std::string _pattern;
  std::string _before = "-";
  bool _hasEnded = false;
};

// Throws Failure, kExitUsage, for what can't be the name of a trial or a checkpoint. what: "trial".
void RequireKeptName(const std::string& name, const std::string& what);

// Asks, and throws Failure, kExitNotApplied, with "what" in front of the reason, when the server refuses or does not
// know the request. what: may be empty.
core::IniFile AskOrFail(Session& session, const std::string& line, Session::Effect effect,
                        const std::string& what = std::string());

}  // namespace tavix::programs
