#include "programs/bridge/core/DocumentBook.h"

#include <algorithm>
#include <vector>

#include "programs/bridge/core/Hash.h"
#include "programs/common/client/Spelling.h"

namespace tavix::bridge {

using core::IniFile;

namespace {

constexpr char kDocument[] = "document";
constexpr char kBytes[] = "bytes";
constexpr char kReleased[] = "released";

// Level and name, as the state's key.
std::string ToKey(const DocumentName& name) {
  return std::to_string(static_cast<int>(name.level)) + "/" + name.name;
}

DocumentName FromKey(const std::string& key) {
  return {static_cast<Level>(key.at(0) - '0'), key.substr(2)};
}

}  // namespace

DocumentBook::DocumentBook(IStateStore& store, const Limits& limits, const std::string& device)
    : _store(store), _limits(limits), _device(device) {
  Load();
}

void DocumentBook::Load() {
  _store.Load(StateKind::kDocument, [this](const std::string& key, const IniFile& record) {
    Known known;
    known.bytes = record.GetValueOrDefault(kDocument, kBytes);
    known.document = ParseDesired(known.bytes, known.bytes.size());
    known.isReleased = record.HasValue(kDocument, kReleased);
    _known[FromKey(key)] = known;
  });
}

DocumentBook::Outcome DocumentBook::Take(const DocumentName& name, const DesiredDocument& document,
                                         const std::string& bytes, Milliseconds now) {
  const auto coming = _coming.find(name);
  const auto known = _known.find(name);
  const Known* last = coming != _coming.end() && coming->second.known ? &*coming->second.known
                      : known != _known.end()                         ? &known->second
                                                                      : nullptr;
  const bool isReleased = (coming != _coming.end() && !coming->second.known) || (last != nullptr && last->isReleased);
  if (last != nullptr && last->document.epoch == document.epoch && document.version <= last->document.version) {
    const bool isSame = document.version == last->document.version && bytes == last->bytes;
    if (!isSame) return Outcome::kStale;
    if (!isReleased) return Outcome::kKnown;
  }
  _coming[name] = {Known{document, bytes, false}, now + FindDelay(name, document)};
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
    records.push_back(MakeRecord(name, next));
  }
  if (records.empty()) return changed;
  _store.Commit(records);

  for (const DocumentName& name : changed) {
    const Coming coming = _coming.at(name);
    _coming.erase(name);
    if (!coming.known) {
      _known.at(name).isReleased = true;
      continue;
    }
    const auto known = _known.find(name);
    if (known != _known.end() && known->second.document.epoch != coming.known->document.epoch) fresh.insert(name);
    _known[name] = *coming.known;
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
                "the document '" + name.name + "' names it, too";
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
  hash.Add(_device);
  hash.Add(name.name);
  hash.Add(document.epoch);
  hash.Add(std::to_string(document.version));
  return Milliseconds(static_cast<Milliseconds::rep>(hash.Get() % static_cast<uint64_t>(_limits.spread.count() + 1)));
}

StateRecord DocumentBook::MakeRecord(const DocumentName& name, const Known& known) const {
  IniFile record;
  record.SetValue(kDocument, kBytes, known.bytes);
  if (known.isReleased) record.SetValue(kDocument, kReleased, "1");
  return {StateKind::kDocument, ToKey(name), record};
}

}  // namespace tavix::bridge
