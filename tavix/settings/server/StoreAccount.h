#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/DocumentTally.h"
#include "tavix/settings/server/HiddenLayers.h"

namespace tavix::settings::server {

// Roughly how much memory the store's documents take: their texts beyond what a string holds in itself, and a fixed
// cost for each group and each key, as the C library's allocator rounds them. Beside that, what each of them holds.
// Kept as the documents change, at the cost of the change.
//
// Threads: whatever takes a document under the store's lock; the rest from any.
class StoreAccount {
 public:
  using Groups = std::vector<core::IniFile::const_iterator>;

  // What they take.
  static size_t CountSetting(const std::string& key, const std::string& value);
  static size_t CountGroup(const std::string& name, const core::IniFile::KeyMap& keys);
  static size_t Count(const core::IniFile& document);

  // By how much a merge makes the document larger; negative: smaller. Costs what "settings" are long.
  static std::ptrdiff_t CountGrowth(const core::IniFile& document, const core::IniFile& settings);
  static std::ptrdiff_t CountGrowth(const core::IniFile& document, core::IniFile::const_iterator group);

  // By how much the two documents grow together when the groups "removed" go and then "set" are merged into both.
  static std::ptrdiff_t CountGrowth(const core::IniFile& one, const core::IniFile& other,
                                    const std::set<std::string>& removed, const Groups& set);

  // What the document of all settings holds, and that of the user settings.
  DocumentTally& GetAllTally() { return _allTally; }
  DocumentTally& GetUserTally() { return _userTally; }
  const DocumentTally& GetAllTally() const { return _allTally; }
  const DocumentTally& GetUserTally() const { return _userTally; }

  // All were loaded.
  void CountAnew(const core::IniFile& allSettings, const core::IniFile& userSettings, const HiddenLayers& hidden = {});

  // Changes a document of the store, and the account and its tally with it.
  void RemoveGroup(core::IniFile& document, DocumentTally& tally, const std::string& name) noexcept;

  // The documents were changed otherwise by so many bytes, or take so many altogether.
  void Add(std::ptrdiff_t growth) { _bytes += static_cast<size_t>(growth); }
  void Set(size_t bytes) { _bytes = bytes; }
  size_t GetBytes() const { return _bytes; }

  // 0: none.
  void SetBound(size_t bytes) { _bound = bytes; }

  // Whether so much more fits.
  bool HasRoom(size_t growth) const;

  // Throws RefusedChange when so much more is too much. Whatever does not grow fits, with what it hides: a group that
  // is erased only moves there.
  void RequireRoom(std::ptrdiff_t growth, std::ptrdiff_t hidden = 0) const;

 private:
  std::atomic<size_t> _bytes{0};
  std::atomic<size_t> _bound{0};
  DocumentTally _allTally;
  DocumentTally _userTally;
};

// Takes documents out of an account once they were taken out of the store's: their memory moved, nothing was copied.
// Large ones are counted after the store's lock is released.
class LateCount {
 public:
  explicit LateCount(StoreAccount& account) : _account(account) {}
  ~LateCount();

  LateCount(const LateCount&) = delete;
  LateCount& operator=(const LateCount&) = delete;

  // As they are in the end; they outlive the object. Six documents at most.
  void Subtract(const core::IniFile& document);
  void Subtract(const core::IniFile& one, const core::IniFile& other);

  // Subtracts now. Later calls of Subtract count anew.
  void Finish();

 private:
  StoreAccount& _account;
  std::array<const core::IniFile*, 6> _documents{};
  size_t _count = 0;
};

}  // namespace tavix::settings::server
