#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

class DocumentTally;
class StoreAccount;
class UserLayer;

// A merge of few settings into one document of a store, in two steps: Prepare asks for all memory, CarryOut can't fail.
// So a change of several documents is made in all of them or in none.
//
// Threads: one at a time, which holds the store's write lock from Prepare until CarryOut has returned.
class PreparedMerge {
 public:
  PreparedMerge() = default;

  PreparedMerge(const PreparedMerge&) = delete;
  PreparedMerge& operator=(const PreparedMerge&) = delete;

  // Adds the settings to the merge. removed: groups that the document loses before CarryOut. Until then nothing else
  // changes in the groups that are merged. The document is not changed yet. A second call brings other keys than the
  // first. Throws std::bad_alloc.
  void Prepare(core::IniFile& document, const core::IniFile& settings, const std::set<std::string>& removed) {
    for (const auto& group : settings) Prepare(document, nullptr, group, removed);
  }

  // The same for user settings, without the groups that are shared and stay so: what readers see gets the settings,
  // too, and has not got them yet. different: gets the groups that are not removed and will hold something else; a
  // new one without keys is one, too. Null: nobody asks.
  void Prepare(UserLayer& user, const core::IniFile& settings, const std::set<std::string>& removed,
               std::set<std::string>* different);

  // How many keys the shared groups get.
  std::ptrdiff_t CountSharedKeys() const { return static_cast<std::ptrdiff_t>(_sharedKeys); }

  // Once, after Prepare. What was replaced is destroyed with the object.
  void CarryOut(core::IniFile& document, StoreAccount& account, DocumentTally& tally) noexcept;

 private:
  using Group = core::IniFile::GroupMap::value_type;

  bool Prepare(core::IniFile& document, const UserLayer* user, const Group& change,
               const std::set<std::string>& removed);
  bool AddKeys(const Group& group);
  bool CountShared(const core::IniFile::KeyMap& keys, const Group& change);
  bool MergeKeys(core::IniFile::KeyMap& keys, const Group& change);

  core::IniFile _added;  // groups, and keys of groups, that the document lacks
  std::vector<std::pair<std::string*, std::string>>
      _changed;                // values in the document, and what they are exchanged for
  std::ptrdiff_t _growth = 0;  // in bytes, of the keys alone
  size_t _sharedKeys = 0;
};

}  // namespace tavix::settings::server
