#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include "programs/common/client/Changes.h"
#include "programs/common/client/Session.h"
#include "programs/common/client/UserLayer.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/common/GroupNameMatcher.h"

namespace tavix::programs {

struct ImportOptions {
  std::set<std::string> groups;  // names and '*' patterns to bring back; all without any
  bool replaces = false;         // takes away what the document lacks; restricted groups stay
  bool isUserLayer = false;      // with "replaces": takes away only what users changed
  bool isFile = false;           // the store is a file: it has one layer, and no record of what was deleted
};

// Brings a document, such as a backup, into a store. Both may be large: the document is kept once, and of the store no
// more than a group at a time; with "replaces" and "isUserLayer" also what the user layer holds and the document lacks.
//
// Threads: one.
// Errors:  Failure. Nothing is written when the constructor, FindDifferences or FindGone throws; Run throws as the
//          functions of Writes.h do, too.
class Import {
 public:
  struct Result {
    size_t differences = 0;  // settings that changed, and groups that came without any or went
    size_t copies = 0;       // settings that the document lacks and that are user settings now, at their defaults
  };

  // The groups that go. No name is in both.
  struct Gone {
    std::set<std::string> deleted;  // readers see them, and will not any more
    std::set<std::string> reset;    // with "isUserLayer": users changed them, and they go back to their defaults

    bool IsEmpty() const { return deleted.empty() && reset.empty(); }
    size_t GetCount() const { return deleted.size() + reset.size(); }
  };

  using Confirm = std::function<void(const Gone& gone)>;
  using TakeChange = std::function<void(const Change& change)>;

  // session: outlives this. source: what errors call the document.
  // Throws Failure: kExitRefused for restricted groups that differ; kExitBadInput for names that can't be sent;
  // kExitUsage when the whole store would be replaced by a backup of the user layer.
  Import(Session& session, core::IniFile document, const std::string& source, ImportOptions options);

  // What would change, in the order of FindChanges.
  void FindDifferences(const TakeChange& take);

  // What the store holds, and the document lacks. With "isUserLayer" only the groups that the document records as
  // deleted are deleted.
  Gone FindGone();

  // confirm: is given the groups that go at this moment; what it throws ends the import. Uses up the document: nothing
  // may be called behind it but IsEmpty.
  Result Run(const Confirm& confirm);

  // Whether the document held nothing of these groups.
  bool IsEmpty() const { return _isEmpty; }

 private:
  // Is given a group: as a document what the store holds, and its place in the document, or the end.
  using Read = std::function<void(const Session::TakeGroup& take)>;
  using Visit =
      std::function<void(const std::string& name, const core::IniFile& before, core::IniFile::iterator wanted)>;

  UserLayer Select(core::IniFile document, const std::string& source) const;
  void TakeOutUnchangedRestricted();
  bool ReplacesUserLayer() const { return _options.replaces && _options.isUserLayer && !_options.isFile; }
  void ReadBefore(const Session::TakeGroup& take) const;
  void Walk(const Visit& visit) {
    WalkOver([this](const auto& take) { ReadBefore(take); }, visit);
  }
  void WalkOver(const Read& read, const Visit& visit);
  core::IniFile FindAfter(const std::string& name, const core::IniFile& before, core::IniFile::iterator wanted);
  void Prune(const core::IniFile& before, core::IniFile::iterator wanted);
  void FindLayerDifferences(const TakeChange& take);
  Gone FindGoneOf(const LayerSurplus& surplus) const;
  Result RunOnUserLayer(const Confirm& confirm) const;
  size_t CountDifferences(const LayerSurplus& before, const LayerSurplus& after) const;

  Session& _session;
  const ImportOptions _options;
  UserLayer _wanted;
  settings::common::GroupNameMatcher _deleted;  // by the document
  bool _isEmpty;
};

}  // namespace tavix::programs
