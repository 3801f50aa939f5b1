#include "programs/server/history/HistoryWords.h"

#include <cstdint>
#include <exception>

#include "programs/server/history/HistoryPage.h"
#include "programs/server/history/RequestWords.h"

namespace tavix::daemon {

namespace {

constexpr uint64_t kMaxCount = 256;

}  // namespace

struct HistoryWords::Word {
  std::string_view name;
  Command command;
  Answer (HistoryWords::*carryOut)(const Call&);
};

const HistoryWords::Word* HistoryWords::FindWord(std::string_view word) {
  static const Word kWords[] = {
      {"history", {true, false, true}, &HistoryWords::ShowHistory},
  };
  for (const Word& known : kWords) {
    if (known.name == word) return &known;
  }
  return nullptr;
}

const HistoryWords::Command* HistoryWords::Find(std::string_view word) const {
  const Word* const known = FindWord(word);
  return known ? &known->command : nullptr;
}

HistoryWords::Answer HistoryWords::CarryOut(const Call& call) {
  const Word* const known = FindWord(call.word);
  return known ? (this->*known->carryOut)(call) : Answer();
}

void HistoryWords::AddFeatures(std::set<std::string>& features) const {
  const HistoryParts::Range range = _history.GetRange();
  features.insert("history " + std::to_string(range.oldest) + " " + std::to_string(range.last));
}

HistoryWords::Answer HistoryWords::ShowHistory(const Call& call) {
  std::string_view args = call.args;
  const std::string before = TakeArgument(args);
  const std::string count = TakeArgument(args);
  const std::optional<uint64_t> revision = before == "-" ? KeptHistory::kNewest : ParseDecimal(before);
  if (!revision) return Refuse("'" + before + "' is neither a revision nor \"-\"");
  const std::optional<uint64_t> entries = ParseDecimal(count);
  if (!entries || *entries < 1 || *entries > kMaxCount) return Refuse("'" + count + "' is no number from 1 to 256");
  try {
    HistoryPage page(_history, SettingsFilter(TakeRest(args)));
    return Show(page.Read(*revision, static_cast<size_t>(*entries)));
  } catch (const std::exception& exception) {
    return Refuse(std::string("the history can't be read: ") + exception.what());
  }
}

}  // namespace tavix::daemon
