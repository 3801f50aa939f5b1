#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "programs/cli/terminal/Console.h"
#include "programs/common/client/Revisions.h"

// How changes of the past, and changes on trial, are shown.
namespace tavix::programs::cli {

// Says who made a change, "admin, process 812". The server knows users by number: they have names here only if it is
// on the same machine.
//
// Threads: one.
class AuthorNames {
 public:
  // address: of the server, as Session::GetAddress has it.
  explicit AuthorNames(const std::string& address);

  std::string Find(const Author& author);

 private:
  std::string FindUser(const std::string& id) const;

  const bool _isSameMachine;
  std::map<std::string, std::string> _users;  // by ID: to look one up may ask another machine
};

nlohmann::json AuthorToJson(const Author& author);

// For people: a line for the change, then one for each setting.
//
//     118  2026-11-22 01:44:15  admin, process 812  merge  site 4
//          [Network/Eth0]address: (default) -> 10.0.0.2
//
void PrintRevision(Console& console, AuthorNames& names, const Revision& revision);
nlohmann::json RevisionToJson(const Revision& revision);

// An object for one trial, as "trials" prints it.
nlohmann::json TrialToJson(const TrialState& trial);

// Lines "[group]key: old -> new" behind so many blanks. What no user had set, or has not any more, is "(default)", and
// an empty value "''"; values that look so themselves are spelled with a backslash.
void PrintRecordedChanges(Console& console, size_t indent, const std::vector<Change>& changes);

}  // namespace tavix::programs::cli
