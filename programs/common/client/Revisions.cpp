#include "programs/common/client/Revisions.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "programs/common/client/Failure.h"
#include "programs/common/client/Join.h"
#include "programs/common/client/Spelling.h"

namespace tavix::programs {

using core::IniFile;

namespace {

constexpr char kWas[] = "was ";
constexpr char kIs[] = "is ";
constexpr char kKept[] = "kept ";

std::string Find(const RecordedKeys& keys, const std::string& key) {
  const auto found = keys.find(key);
  return found == keys.end() ? std::string() : found->second;
}

uint64_t NumberOf(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

// Goes over the keys that begin so.
template <class Take>
void ForEach(const RecordedKeys& keys, const std::string& kind, const Take& take) {
  for (auto key = keys.lower_bound(kind); key != keys.end() && key->first.rfind(kind, 0) == 0; ++key)
    take(ReadRecordedName(key->first.substr(kind.size())), key->second);
}

}  // namespace

Author Author::From(const std::string& text) {
  std::string words[4];
  size_t at = 0;
  for (std::string& word : words) {
    const size_t end = std::min(text.find(' ', at), text.size());
    word = text.substr(at, end - at);
    if (word == "-") word.clear();
    at = std::min(end + 1, text.size());
  }
  return {words[0], words[1], words[2], words[3]};
}

// A ']' in the name of a group is spelled otherwise.
Change ReadRecordedName(const std::string& spelled) {
  const size_t end = std::min(spelled.find(']'), spelled.size());
  Change change;
  change.group = Unspell(spelled.substr(std::min<size_t>(1, end), end - std::min<size_t>(1, end)));
  const std::string key = spelled.substr(std::min(end + 1, spelled.size()));
  if (!key.empty()) change.key = key == "=" ? std::string() : Unspell(key);
  return change;
}

std::vector<Change> ReadRecordedChanges(const RecordedKeys& keys) {
  std::map<std::pair<std::string, std::optional<std::string>>, Change> changes;
  const auto find = [&](Change change) -> Change& {
    auto name = std::make_pair(change.group, change.key);
    return changes.emplace(std::move(name), std::move(change)).first->second;
  };
  ForEach(keys, kWas, [&](Change name, const std::string& value) {
    Change& change = find(std::move(name));
    if (change.key) change.before = value;
  });
  ForEach(keys, kIs, [&](Change name, const std::string& value) {
    Change& change = find(std::move(name));
    change.hasCome = !change.key;
    if (change.key) change.after = value;
  });
  std::vector<Change> all;
  for (auto& [name, change] : changes) all.push_back(std::move(change));
  return all;
}

Revision Revision::From(const std::string& name, const RecordedKeys& keys) {
  using std::chrono::nanoseconds;
  using std::chrono::system_clock;
  Revision revision;
  revision.number = NumberOf(name);
  const nanoseconds sinceEpoch(std::strtoll(Find(keys, "time").c_str(), nullptr, 10));
  revision.time = system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(sinceEpoch));
  revision.author = Author::From(Find(keys, "by"));
  revision.command = Find(keys, "command");
  revision.note = Find(keys, "note");
  revision.trial = Find(keys, "trial");
  revision.omitted = Find(keys, "omitted");
  revision.settings = ReadRecordedChanges(keys);
  return revision;
}

TrialState TrialState::From(const std::string& name, const RecordedKeys& keys) {
  TrialState trial;
  trial.name = name;
  trial.state = Find(keys, "state");
  trial.seconds = Find(keys, "seconds");
  trial.note = Find(keys, "note");
  trial.author = Author::From(Find(keys, "by"));
  trial.revision = NumberOf(Find(keys, "revision"));
  trial.settings = ReadRecordedChanges(keys);
  ForEach(keys, kKept, [&](Change change, const std::string&) { trial.kept.push_back(std::move(change)); });
  return trial;
}

void RequireKeptName(const std::string& name, const std::string& what) {
  constexpr size_t kMaxBytes = 64;
  const bool hasCharacters = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
  });
  const bool isName = hasCharacters && !name.empty() && name.size() <= kMaxBytes && name != "." && name != "..";
  if (!isName)
    throw Failure(kExitUsage,
                  Join({"'", SpellValue(name), "' is no name of a ", what, ": 1 to 64 of A-Z a-z 0-9 . _ -"}));
}

IniFile AskOrFail(Session& session, const std::string& line, Session::Effect effect, const std::string& what) {
  Session::Answer answer;
  try {
    answer = session.Ask(line, effect);
  } catch (const Failure& failure) {
    if (failure.GetCode() != kExitNotApplied) throw;
    throw Failure(kExitNotApplied, what + failure.what(), failure.GetHint());
  }
  if (answer.isRefused) throw Failure(kExitNotApplied, what + SpellValue(answer.reason));
  return std::move(answer.data);
}

std::vector<Revision> HistoryReader::ReadNext(size_t count) {
  constexpr size_t kMaxCount = 256;
  constexpr char kScanned[] = "scanned";
  std::string line = Join({"history ", _before, " ", std::to_string(std::min(count, kMaxCount))});
  if (!_pattern.empty()) line += " " + _pattern;
  const IniFile data = AskOrFail(_session, line, Session::Effect::kNoSettings);
  std::vector<Revision> revisions;
  for (const auto& [name, keys] : data) {
    if (name != kScanned) revisions.push_back(Revision::From(name, keys));
  }
  std::sort(revisions.begin(), revisions.end(),
            [](const Revision& left, const Revision& right) { return left.number > right.number; });
  const bool hasMore = data.HasValue(kScanned, "more") && data.GetValue(kScanned, "more") == "true";
  const std::string next = data.HasValue(kScanned, "next") ? data.GetValue(kScanned, "next") : std::string();
  // A server that goes nowhere is not asked for ever.
  _hasEnded = !hasMore || next.empty() || next == _before;
  _before = next;
  return revisions;
}

}  // namespace tavix::programs
