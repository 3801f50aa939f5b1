#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tavix/settings/common/NumberedTable.h"

namespace tavix::settings::common {

// A set of names and patterns, together called texts, which finds those that match a name in one pass over the name.
//
// Names are found by their hash. Each pattern is filed under one key, which a name that it matches must have: the text
// before its first '*', or up to three bytes in a row of another piece of it. Of all its keys it is the one with the
// fewest patterns, so that patterns which are alike spread. The keys of a name lead to the patterns that are tried on
// it. Patterns of stars alone share a key that every name has.
//
// Threads: as a standard container.
class PatternIndex {
 public:
  using Id = uint32_t;  // of a text; small numbers, used again after Remove
  static constexpr Id kNone = UINT32_MAX;

  // A question, and its memory for the next one.
  class Search {
   public:
    // The texts that match, each once, in no order.
    const std::vector<Id>& GetFound() const { return _found; }

    // How many patterns were compared with names, over all questions.
    size_t GetTried() const { return _tried; }

    // From then on a question ends without an answer once that many patterns more were compared.
    void SetMaxTried(size_t more) { _maxTried = _tried + more; }

   private:
    friend class PatternIndex;
    std::vector<Id> _found;
    std::vector<uint32_t> _buckets;  // that the name at hand leads to
    size_t _tried = 0;
    size_t _maxTried = std::numeric_limits<size_t>::max();
  };

  // The text's id. One that is there keeps its own.
  Id Add(std::string_view text);
  void Remove(Id id);

  // kNone: it is not there.
  Id Find(std::string_view text) const;

  const std::string& GetText(Id id) const { return _texts[id].text; }

  // For walks through all texts in pieces: all ids are below the end, and those that are not in use have no text.
  Id GetEndOfIds() const { return _texts.GetEnd(); }
  bool IsUsed(Id id) const { return _texts[id].isUsed; }

  // Finds the texts that match. False, with some of them missing, when too many patterns would have to be tried.
  bool FindMatching(std::string_view name, Search& search) const;

  // Whether one of the texts matches. search: see FindMatching; what it has found is undefined afterwards.
  bool HasMatching(std::string_view name, Search& search) const;

  // How many patterns the fullest key would have of those that these patterns would be filed under.
  size_t CountAlikeWith(const std::set<std::string>& patterns) const;

 private:
  enum class Kind : uint8_t {
    kEverything,  // every name has this key
    kPrefix,      // names that begin with some text
    kGram,        // names that hold one, two or three given bytes in a row
  };

  struct Key {
    uint64_t hash = 0;
    uint32_t length = 0;
    Kind kind = Kind::kEverything;
  };

  struct Bucket {
    uint64_t hash = 0;
    uint32_t next = kNone;
    uint32_t length = 0;
    Id first = kNone;  // of a list of patterns
    uint32_t size = 0;
    Kind kind = Kind::kEverything;
  };

  struct Text {
    uint64_t hash = 0;
    uint32_t next = kNone;
    uint32_t bucket = kNone;  // none for a name
    Id before = kNone;        // in the bucket's list
    Id after = kNone;
    bool isUsed = false;
    std::string text;
  };

  static constexpr uint32_t kMaxGram = 3;

  template <class Visit>
  static void ForEachKey(std::string_view pattern, Visit visit);
  template <class CountPatterns>
  static std::pair<Key, size_t> ChooseKey(std::string_view pattern, CountPatterns countPatterns);
  static Key GramAt(std::string_view text, size_t at, uint32_t length);

  uint32_t FindBucket(const Key& key) const;
  uint32_t OpenBucket(const Key& key);
  void CloseBucket(uint32_t bucket);
  void File(Id id);
  void Unfile(Id id);
  void CollectByHash(std::string_view name, Search& search) const;
  void CollectGrams(std::string_view name, uint32_t length, Search& search) const;
  template <class Found>
  bool Try(std::string_view name, Search& search, Found found) const;

  NumberedTable<Text> _texts;
  NumberedTable<Bucket> _buckets;
  std::vector<std::pair<uint32_t, size_t>> _prefixLengths;  // ascending, with how many buckets have each
  size_t _gramBuckets[kMaxGram + 1] = {};                   // how many there are, by length
  std::vector<bool> _gramFilter;                            // false for hashes of grams without a bucket
};

}  // namespace tavix::settings::common
