#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/PreparedMerge.h"

namespace tavix::settings::server {

class DocumentTally;
class StoreAccount;

// A change of one document of a store, key by key: groups and keys leave it, values are set. Filled first, then
// prepared, which asks for all memory, then carried out, which can't fail.
//
// Threads: one at a time, which holds the store's write lock from Prepare until CarryOut has returned.
// Errors:  std::bad_alloc.
class DocumentEdit {
 public:
  DocumentEdit() = default;

  DocumentEdit(const DocumentEdit&) = delete;
  DocumentEdit& operator=(const DocumentEdit&) = delete;

  // Nothing of a group that is removed is erased or set. What is removed or erased is there.
  void RemoveGroup(const std::string& group);
  void Erase(const std::string& group, const std::string& key) { _erased[group].emplace(key, std::string()); }
  void Set(const std::string& group, const std::string& key, const std::string& value) { _set[group][key] = value; }
  void Create(const std::string& group) { _set[group]; }

  bool Touches(const std::string& group) const;

  // By how many bytes the document grows, as the store's account counts them.
  std::ptrdiff_t CountGrowth(const core::IniFile& document) const;

  void Prepare(core::IniFile& document) { _merge.Prepare(document, _set, _removed); }

  // Once. What is removed is destroyed with the object.
  void CarryOut(core::IniFile& document, StoreAccount& account, DocumentTally& tally) noexcept;

 private:
  std::set<std::string> _removed;
  core::IniFile _erased;  // the values are empty
  core::IniFile _set;
  PreparedMerge _merge;
  core::IniFile _removedGroups;
};

}  // namespace tavix::settings::server
