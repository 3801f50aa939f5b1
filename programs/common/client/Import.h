#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "programs/common/client/Changes.h"
#include "programs/common/client/Session.h"
#include "programs/common/client/UserLayer.h"
#include "tavix/core/IniFile.h"

namespace tavix::programs {

struct ImportOptions {
  std::set<std::string> groups;  // names and '*' patterns to bring back; all without any
  bool replaces = false;         // takes away what the document lacks; restricted groups stay
  bool isUserLayer = false;      // with "replaces": takes away only what users changed
  bool isFile = false;           // the store is a file: it has one layer, and no record of what was deleted
};

// Brings a document, such as a backup, into a store.
//
// Threads: one.
// Errors:  Failure. Nothing is written when the constructor or FindDifferences throws; Run throws as the functions of
//          Writes.h do, too.
class Import {
 public:
  struct Result {
    std::vector<Change> changes;
    size_t copies = 0;  // settings that the document lacks and that are user settings now, at their defaults
  };

  // session: outlives this. source: what errors call the document.
  // Throws Failure: kExitRefused for restricted groups that differ; kExitBadInput for names that can't be sent;
  // kExitUsage when the whole store would be replaced by a backup of the user layer.
  Import(Session& session, const core::IniFile& document, const std::string& source, ImportOptions options);

  // What would change.
  std::vector<Change> FindDifferences() const;

  // The groups that go, or with "isUserLayer" back to their defaults: the store holds them, and the document does not.
  std::set<std::string> FindGone() const;

  // confirm: is given the groups that go at this moment; what it throws ends the import.
  Result Run(const std::function<void(const std::set<std::string>& gone)>& confirm);

  // Whether the document held nothing of these groups.
  bool IsEmpty() const { return _isEmpty; }

 private:
  UserLayer Select(const core::IniFile& document, const std::string& source) const;
  void TakeOutUnchangedRestricted();
  bool ReplacesUserLayer() const { return _options.replaces && _options.isUserLayer && !_options.isFile; }
  UserLayer ReadUserLayer() const;
  core::IniFile ReadBefore() const;
  core::IniFile WithoutRestricted(core::IniFile settings) const;
  core::IniFile FindAfter(const core::IniFile& before) const;
  void Write(const core::IniFile& before, const core::IniFile& after) const;
  size_t CountCopies() const;

  Session& _session;
  const ImportOptions _options;
  UserLayer _wanted;
  bool _isEmpty;
};

}  // namespace tavix::programs
