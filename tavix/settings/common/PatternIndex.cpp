#include "tavix/settings/common/PatternIndex.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>

#include "tavix/core/StringUtil.h"

namespace tavix::settings::common {

namespace {

// Differs from process to process, so that nobody can choose texts whose hashes collide.
uint64_t Seed() {
  static const char place = 0;
  return 0xcbf29ce484222325u ^ (reinterpret_cast<uintptr_t>(&place) * 0x9e3779b97f4a7c15u);
}

uint64_t Mix(uint64_t hash) {
  hash ^= hash >> 32;
  hash *= 0xd6e8feb86659fd93u;
  return hash ^ (hash >> 32);
}

// FNV-1a, which can be asked for the hash of each prefix on its way.
class PrefixHash {
 public:
  explicit PrefixHash(std::string_view text) : _text(text) {}

  // length: not less than the time before.
  uint64_t Get(size_t length) {
    for (; _done < length; ++_done) _hash = (_hash ^ static_cast<unsigned char>(_text[_done])) * 0x100000001b3u;
    return Mix(_hash + length);
  }

 private:
  const std::string_view _text;
  uint64_t _hash = Seed();
  size_t _done = 0;
};

uint64_t HashOf(std::string_view text) {
  return PrefixHash(text).Get(text.size());
}

constexpr unsigned int kFilterBits = 15;

size_t FilterBit(uint64_t hash) {
  return static_cast<size_t>(hash >> (64 - kFilterBits));
}

bool IsPattern(std::string_view text) {
  return text.find('*') != std::string_view::npos;
}

}  // namespace

PatternIndex::Key PatternIndex::GramAt(std::string_view text, size_t at, uint32_t length) {
  uint64_t bytes = length;
  for (uint32_t i = 0; i < length; ++i) bytes = bytes << 8 | static_cast<unsigned char>(text[at + i]);
  return {Mix(Seed() + bytes * 0x9e3779b97f4a7c15u), length, Kind::kGram};
}

// All keys of a pattern that it may be filed under, the better ones first, until "visit" returns false. Of a long
// pattern some at its end: with more it would only take longer to file it.
template <class Visit>
void PatternIndex::ForEachKey(std::string_view pattern, Visit visit) {
  constexpr int kMaxKeys = 64;
  const size_t prefix = std::min(pattern.find('*'), pattern.size());
  const Key prefixKey{HashOf(pattern.substr(0, prefix)), static_cast<uint32_t>(prefix), Kind::kPrefix};
  if (prefix >= kMaxGram && !visit(prefixKey)) return;
  int keys = 0;
  for (uint32_t length = kMaxGram; length > 0 && keys == 0; --length) {
    for (size_t end = pattern.size(); end >= length && keys < kMaxKeys; --end) {
      const size_t at = end - length;
      if (at + length <= prefix || IsPattern(pattern.substr(at, length))) continue;
      ++keys;
      if (!visit(GramAt(pattern, at, length))) return;
    }
    if (prefix > 0 && prefix < kMaxGram && length == kMaxGram && !visit(prefixKey)) return;
  }
  if (keys == 0 && prefix == 0) visit(Key());
}

// The key with the fewest patterns, and how many they are.
template <class CountPatterns>
std::pair<PatternIndex::Key, size_t> PatternIndex::ChooseKey(std::string_view pattern, CountPatterns countPatterns) {
  std::pair<Key, size_t> best(Key(), std::numeric_limits<size_t>::max());
  ForEachKey(pattern, [&](const Key& key) {
    const size_t count = countPatterns(key);
    if (count < best.second) best = {key, count};
    return count > 0;
  });
  return best;
}

uint32_t PatternIndex::FindBucket(const Key& key) const {
  return _buckets.Find(key.hash,
                       [&](const Bucket& there) { return there.kind == key.kind && there.length == key.length; });
}

uint32_t PatternIndex::OpenBucket(const Key& key) {
  const uint32_t there = FindBucket(key);
  if (there != kNone) return there;
  if (key.kind == Kind::kGram && _gramFilter.empty()) _gramFilter.resize(size_t{1} << kFilterBits);
  if (key.kind == Kind::kPrefix) {
    const auto at = std::lower_bound(_prefixLengths.begin(), _prefixLengths.end(), std::pair(key.length, size_t{0}));
    const bool isNew = at == _prefixLengths.end() || at->first != key.length;
    ++(isNew ? _prefixLengths.emplace(at, key.length, 0) : at)->second;
  }
  Bucket bucket;
  bucket.length = key.length;
  bucket.kind = key.kind;
  const uint32_t opened = _buckets.Add(key.hash, bucket);
  if (key.kind == Kind::kGram) {
    ++_gramBuckets[key.length];
    _gramFilter[FilterBit(key.hash)] = true;
  }
  return opened;
}

void PatternIndex::CloseBucket(uint32_t bucket) {
  const Kind kind = _buckets[bucket].kind;
  const uint32_t length = _buckets[bucket].length;
  _buckets.Remove(bucket);
  if (kind == Kind::kPrefix) {
    const auto at = std::lower_bound(_prefixLengths.begin(), _prefixLengths.end(), std::pair(length, size_t{0}));
    if (--at->second == 0) _prefixLengths.erase(at);
  } else if (kind == Kind::kGram) {
    --_gramBuckets[length];
    const bool isLast = std::all_of(std::begin(_gramBuckets), std::end(_gramBuckets), [](size_t n) { return n == 0; });
    if (isLast) _gramFilter = {};  // until then bits stay set, which costs a look into the table
  }
}

PatternIndex::Id PatternIndex::Find(std::string_view text) const {
  return _texts.Find(HashOf(text), [&](const Text& there) { return there.text == text; });
}

PatternIndex::Id PatternIndex::Add(std::string_view text) {
  const uint64_t hash = HashOf(text);
  const Id there = _texts.Find(hash, [&](const Text& entry) { return entry.text == text; });
  if (there != kNone) return there;
  Text entry;
  entry.isUsed = true;
  entry.text = text;
  const Id id = _texts.Add(hash, std::move(entry));
  if (!IsPattern(text)) return id;
  try {
    File(id);
  } catch (...) {
    _texts.Remove(id);
    throw;
  }
  return id;
}

void PatternIndex::File(Id id) {
  Text& text = _texts[id];
  const auto count = [this](const Key& key) -> size_t {
    const uint32_t bucket = FindBucket(key);
    return bucket == kNone ? 0 : _buckets[bucket].size;
  };
  text.bucket = OpenBucket(ChooseKey(text.text, count).first);
  Bucket& bucket = _buckets[text.bucket];
  text.after = bucket.first;
  if (bucket.first != kNone) _texts[bucket.first].before = id;
  bucket.first = id;
  ++bucket.size;
}

void PatternIndex::Unfile(Id id) {
  const Text& text = _texts[id];
  Bucket& bucket = _buckets[text.bucket];
  (text.before == kNone ? bucket.first : _texts[text.before].after) = text.after;
  if (text.after != kNone) _texts[text.after].before = text.before;
  if (--bucket.size == 0) CloseBucket(text.bucket);
}

void PatternIndex::Remove(Id id) {
  if (_texts[id].bucket != kNone) Unfile(id);
  _texts.Remove(id);
}

// The name itself, and the buckets of its prefixes.
void PatternIndex::CollectByHash(std::string_view name, Search& search) const {
  PrefixHash hash(name);
  for (const auto& [length, count] : _prefixLengths) {
    if (length > name.size()) break;
    const uint32_t bucket = FindBucket({hash.Get(length), length, Kind::kPrefix});
    if (bucket != kNone) search._buckets.push_back(bucket);
  }
  const auto isName = [&](const Text& text) { return text.bucket == kNone && text.text == name; };
  const Id id = _texts.Find(hash.Get(name.size()), isName);
  if (id != kNone) search._found.push_back(id);
  const uint32_t everything = FindBucket(Key());
  if (everything != kNone) search._buckets.push_back(everything);
}

void PatternIndex::CollectGrams(std::string_view name, uint32_t length, Search& search) const {
  for (size_t at = 0; at + length <= name.size(); ++at) {
    const Key key = GramAt(name, at, length);
    if (!_gramFilter[FilterBit(key.hash)]) continue;
    const uint32_t bucket = FindBucket(key);
    if (bucket != kNone) search._buckets.push_back(bucket);
  }
}

// Calls "found" for each text that matches, until it returns false. False when too many were tried.
template <class Found>
bool PatternIndex::Try(std::string_view name, Search& search, Found found) const {
  search._found.clear();
  search._buckets.clear();
  CollectByHash(name, search);
  for (const Id id : search._found) {
    if (!found(id)) return true;
  }
  for (uint32_t length = 1; length <= kMaxGram; ++length) {
    if (_gramBuckets[length] > 0) CollectGrams(name, length, search);
  }
  std::vector<uint32_t>& buckets = search._buckets;
  if (buckets.size() > 1) {  // the same bytes may stand in the name many times
    std::sort(buckets.begin(), buckets.end());
    buckets.erase(std::unique(buckets.begin(), buckets.end()), buckets.end());
  }
  for (const uint32_t bucket : buckets) {
    for (Id id = _buckets[bucket].first; id != kNone; id = _texts[id].after) {
      if (search._tried >= search._maxTried) return false;
      ++search._tried;
      if (core::StringUtil::MatchesPattern(_texts[id].text, name) && !found(id)) return true;
    }
  }
  return true;
}

bool PatternIndex::FindMatching(std::string_view name, Search& search) const {
  std::vector<Id>& all = search._found;
  // A name is found before all patterns, and is there already.
  return Try(name, search, [&](Id id) {
    if (_texts[id].bucket != kNone) all.push_back(id);
    return true;
  });
}

bool PatternIndex::HasMatching(std::string_view name, Search& search) const {
  bool hasFound = false;
  Try(name, search, [&](Id) {
    hasFound = true;
    return false;
  });
  return hasFound;
}

size_t PatternIndex::CountAlikeWith(const std::set<std::string>& patterns) const {
  std::unordered_map<uint64_t, size_t> more;
  size_t max = 0;
  for (const std::string& pattern : patterns) {
    if (Find(pattern) != kNone) continue;
    const auto [key, count] = ChooseKey(pattern, [&](const Key& candidate) -> size_t {
      const uint32_t bucket = FindBucket(candidate);
      const auto added = more.find(candidate.hash);
      return (bucket == kNone ? 0 : _buckets[bucket].size) + (added == more.end() ? 0 : added->second);
    });
    ++more[key.hash];
    max = std::max(max, count + 1);
  }
  return max;
}

}  // namespace tavix::settings::common
