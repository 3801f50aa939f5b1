#include "programs/bridge/core/DocumentBook.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "programs/bridge/core/Hash.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr char kDocument[] = "document";
constexpr char kBytes[] = "bytes";
constexpr char kReleased[] = "released";
constexpr char kContent[] = "content";
constexpr char kPlace[] = "place";
constexpr char kClass[] = "class";

std::uint64_t HashOf(const std::string& bytes) {
  Hash hash;
  hash.Add(bytes);
  return hash.Get();
}

// Level and name, as the state's key.
std::string ToKey(const DocumentName& name) {
  return programs::Join({std::to_string(static_cast<int>(name.level)), "/", name.name});
}

std::optional<DocumentName> FromKey(const std::string& key) {
  if (key.size() < 3 || key[0] < '0' || key[0] > '2') return std::nullopt;
  return DocumentName{static_cast<Level>(key[0] - '0'), key.substr(2)};
}

}  // namespace

DocumentBook::DocumentBook(IStateStore& store, const Limits& limits, const std::string& place,
                           const std::string& deviceClass)
    : _store(store), _limits(limits), _place(place), _deviceClass(deviceClass) {
  Load();
  ReleaseOfOtherPlaces();
}

// What can't be read is as if it had never come: it comes again.
void DocumentBook::Load() {
  _store.Load(StateKind::kDocument, [this](const std::string& key, const IniFile& record) {
    const auto name = FromKey(key);
    const std::string bytes = record.GetValueOrDefault(kDocument, kBytes);
    if (!name) return;
    try {
      Known known;
      known.document = ParseDesired(bytes, bytes.size());
      known.size = bytes.size();
      known.isReleased = record.HasValue(kDocument, kReleased);
      const std::string content = record.GetValueOrDefault(kDocument, kContent);
      known.content = content.empty() ? HashOf(bytes) : std::strtoull(content.c_str(), nullptr, 10);
      _known[*name] = known;
      _maxBytes += known.size;
    } catch (const BadDocument&) {
    }
  });
}

void DocumentBook::ReleaseOfOtherPlaces() {
  std::optional<IniFile> before;
  _store.Load(StateKind::kMeta, [&before](const std::string& key, const IniFile& record) {
    if (key == kPlace) before = record;
  });
  const bool isPlaceOther = before && before->GetValueOrDefault(kPlace, kPlace) != _place;
  const bool isClassOther = before && before->GetValueOrDefault(kPlace, kClass) != _deviceClass;
  _isPlaceDue = !before || isPlaceOther || isClassOther;
  for (const auto& [name, known] : _known) {
    if (isPlaceOther || (isClassOther && name.level == Level::kClass)) Release(name);
  }
}

const DocumentBook::Known* DocumentBook::FindNewest(const DocumentName& name) const {
  const auto coming = _coming.find(name);
  if (coming != _coming.end() && coming->second.known) return &*coming->second.known;
  const auto known = _known.find(name);
  return known == _known.end() ? nullptr : &known->second;
}

std::optional<std::uint64_t> DocumentBook::FindVersion(const DocumentName& name) const {
  const Known* newest = FindNewest(name);
  return newest == nullptr ? std::nullopt : std::optional<std::uint64_t>(newest->document.version);
}

bool DocumentBook::HasRoom(const DocumentName& name, size_t size) {
  _maxBytes += size;
  if (_known.size() + _coming.size() < _limits.maxGroups && _maxBytes <= _limits.maxPendingBytes) return true;
  const std::map<DocumentName, size_t> sizes = ListSizes();
  _maxBytes = 0;
  for (const auto& [other, otherSize] : sizes) _maxBytes += otherSize;
  const auto own = sizes.find(name);  // an older version, which goes on holding when there is no room
  const size_t others = sizes.size() - (own == sizes.end() ? 0 : 1);
  const size_t bytesOfOthers = _maxBytes - (own == sizes.end() ? 0 : own->second);
  if (others >= _limits.maxGroups || bytesOfOthers + size > _limits.maxPendingBytes) return false;
  _maxBytes = bytesOfOthers + size;
  return true;
}

// Of all that hold, or will.
std::map<DocumentName, size_t> DocumentBook::ListSizes() const {
  std::map<DocumentName, size_t> sizes;
  for (const auto& [name, known] : _known) {
    if (!known.isReleased && _coming.count(name) == 0) sizes[name] = known.size;
  }
  for (const auto& [name, coming] : _coming) {
    if (coming.known) sizes[name] = coming.known->size;
  }
  return sizes;
}

std::vector<DocumentName> DocumentBook::FindFitting(const std::map<DocumentName, size_t>& refused) const {
  std::map<DocumentName, size_t> sizes = ListSizes();
  size_t bytes = 0;
  for (const auto& [name, size] : sizes) bytes += size;
  std::vector<DocumentName> fitting;
  for (const auto& [name, size] : refused) {
    const auto own = sizes.find(name);  // an older version
    const size_t others = bytes - (own == sizes.end() ? 0 : own->second);
    if ((own == sizes.end() && sizes.size() >= _limits.maxGroups) || others + size > _limits.maxPendingBytes) continue;
    bytes = others + size;
    sizes[name] = size;
    fitting.push_back(name);
  }
  return fitting;
}

DocumentBook::Outcome DocumentBook::Take(const DocumentName& name, const DesiredDocument& document,
                                         const std::string& bytes, Milliseconds now) {
  const auto coming = _coming.find(name);
  const Known* last = FindNewest(name);
  const std::uint64_t content = HashOf(bytes);
  const bool isReleased = (coming != _coming.end() && !coming->second.known) || (last != nullptr && last->isReleased);
  if (last != nullptr && last->document.epoch == document.epoch && document.version <= last->document.version) {
    const bool isSame = document.version == last->document.version && content == last->content;
    if (!isSame) return Outcome::kStale;
    if (!isReleased) return Outcome::kKnown;
  }
  if (!HasRoom(name, bytes.size())) return Outcome::kFull;
  _coming[name] = {Known{document, bytes, content, bytes.size(), false}, now + FindDelay(name, document)};
  return Outcome::kTaken;
}

void DocumentBook::Release(const DocumentName& name) {
  const auto known = _known.find(name);
  if (known == _known.end() || known->second.isReleased) {
    _coming.erase(name);
  } else {
    _coming[name] = {std::nullopt, Milliseconds(0)};
  }
}

std::set<DocumentName> DocumentBook::Advance(Milliseconds now, std::set<DocumentName>& fresh) {
  std::set<DocumentName> changed;
  std::vector<StateRecord> records;
  for (const auto& [name, coming] : _coming) {
    if (coming.when > now) continue;
    changed.insert(name);
    Known next = coming.known ? *coming.known : _known.at(name);
    next.isReleased = !coming.known;
    if (next.isReleased) Shrink(next);
    records.push_back(MakeRecord(name, next));
  }
  if (_isPlaceDue) records.push_back(MakePlaceRecord());
  if (records.empty()) return changed;
  _store.Commit(records);
  _isPlaceDue = false;

  for (const DocumentName& name : changed) {
    const Coming coming = _coming.at(name);
    _coming.erase(name);
    if (!coming.known) {
      _known.at(name).isReleased = true;
      Shrink(_known.at(name));
      continue;
    }
    const auto known = _known.find(name);
    if (known != _known.end() && known->second.document.epoch != coming.known->document.epoch) fresh.insert(name);
    _known[name] = *coming.known;
    _known[name].bytes.clear();
  }
  return changed;
}

std::optional<Milliseconds> DocumentBook::GetNext() const {
  std::optional<Milliseconds> next;
  for (const auto& [name, coming] : _coming) next = std::min(next.value_or(coming.when), coming.when);
  return next;
}

// What stands later overrides: the levels in their order, and of a level the name that sorts first at last.
Targets DocumentBook::ComputeTargets() const {
  Targets targets;
  for (const Level level : {Level::kAll, Level::kClass, Level::kDevice}) {
    for (auto entry = _known.rbegin(); entry != _known.rend(); ++entry) {
      const auto& [name, known] = *entry;
      if (name.level != level || known.isReleased) continue;
      const Origin origin{name, known.document.epoch, known.document.version};
      for (const auto& [group, keys] : known.document.groups) {
        for (const auto& [key, value] : keys) {
          Target& target = targets.groups[group][key];
          const DocumentName& loser = target.origin.document;
          if (!loser.name.empty() && loser.level == level) {
            targets.losers[loser][programs::SpellSetting(group, key)] =
                programs::Join({"the document '", name.name, "' names it, too"});
          }
          target = {origin, value};
        }
      }
    }
  }
  return targets;
}

std::map<DocumentName, Origin> DocumentBook::GetOrigins() const {
  std::map<DocumentName, Origin> origins;
  for (const auto& [name, known] : _known) {
    if (!known.isReleased) origins[name] = {name, known.document.epoch, known.document.version};
  }
  return origins;
}

Milliseconds DocumentBook::FindDelay(const DocumentName& name, const DesiredDocument& document) const {
  if (name.level == Level::kDevice || _limits.spread.count() <= 0) return Milliseconds(0);
  Hash hash;
  hash.Add(_place);
  hash.Add(name.name);
  hash.Add(document.epoch);
  hash.Add(std::to_string(document.version));
  return Milliseconds(static_cast<Milliseconds::rep>(hash.Get() % static_cast<uint64_t>(_limits.spread.count() + 1)));
}

// The version alone is of use then.
void DocumentBook::Shrink(Known& known) {
  known.document.groups.clear();
  known.bytes = ComposeDesired(known.document);
  known.size = known.bytes.size();
}

StateRecord DocumentBook::MakeRecord(const DocumentName& name, const Known& known) {
  IniFile record;
  record.SetValue(kDocument, kBytes, known.bytes);
  record.SetValue(kDocument, kContent, std::to_string(known.content));
  if (known.isReleased) record.SetValue(kDocument, kReleased, "1");
  return {StateKind::kDocument, ToKey(name), record};
}

StateRecord DocumentBook::MakePlaceRecord() const {
  IniFile record;
  record.SetValue(kPlace, kPlace, _place);
  record.SetValue(kPlace, kClass, _deviceClass);
  return {StateKind::kMeta, kPlace, record};
}

}  // namespace tavix::bridge
