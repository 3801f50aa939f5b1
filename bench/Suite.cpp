#include "bench/Suite.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <set>
#include <utility>

#include "bench/OwnProcess.h"
#include "bench/Report.h"
#include "tavix/core/StringUtil.h"

namespace tavix::bench {

namespace {

// What takes long is measured in no more rounds than this.
constexpr int kFewRounds = 2;

bool Reports(const Bench& bench, const std::string& pattern) {
  return std::any_of(bench.items.begin(), bench.items.end(),
                     [&](const std::string& item) { return core::StringUtil::MatchesPattern(pattern, item); });
}

}  // namespace

void Suite::Add(std::vector<std::string> items, std::function<void(Recorder&)> run, Frequency frequency) {
  _benches.push_back({std::move(items), frequency, std::move(run)});
}

void Suite::Compare(FigureName ours, FigureName other, double aim) {
  _comparisons.push_back({std::move(ours), std::move(other), aim});
}

bool Suite::Select(const std::vector<std::string>& items) {
  std::vector<Bench> selected;
  std::set<std::string> known;
  std::set<std::string> unused(items.begin(), items.end());
  for (Bench& bench : _benches) {
    known.insert(bench.items.begin(), bench.items.end());
    bool wanted = false;
    for (const std::string& item : items) {
      if (!Reports(bench, item)) continue;
      unused.erase(item);
      wanted = true;
    }
    if (wanted) selected.push_back(std::move(bench));
  }
  for (const std::string& item : unused) std::fprintf(stderr, "tavix-bench: no item '%s'\n", item.c_str());
  if (!unused.empty()) {
    std::fputs("The items are:\n", stderr);
    for (const std::string& item : known) std::fprintf(stderr, "  %s\n", item.c_str());
  }
  _benches = std::move(selected);
  _selected = true;
  return unused.empty();
}

bool Suite::Run(const Setup& setup, int rounds, Report& report) const {
  bool allRan = true;
  for (int round = 0; round < rounds; ++round) {
    for (const Bench& bench : _benches) {
      if (bench.frequency != Frequency::kEveryRound && round >= kFewRounds) continue;
      if (bench.frequency == Frequency::kFullRuns && setup.quick && !_selected) continue;
      try {
        for (const Figure& figure : MeasureInOwnProcess(setup, bench.run)) report.Add(round, figure);
      } catch (const std::exception& exception) {
        std::fprintf(stderr, "tavix-bench: %s: %s\n", bench.items.front().c_str(), exception.what());
        allRan = false;
      }
    }
  }
  return allRan;
}

}  // namespace tavix::bench
