#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/Figure.h"
#include "bench/Recorder.h"

namespace tavix::bench {

class Report;

// One piece of work that is measured as a whole.
struct Bench {
  enum class Frequency {
    kEveryRound,
    kFewRounds,  // takes long
    kFullRuns,   // the same, and a short look leaves it out unless it is selected
  };

  std::vector<std::string> items;  // what it reports figures of
  Frequency frequency;
  std::function<void(Recorder&)> run;
};

// One figure of ours beside another one.
struct Comparison {
  static constexpr double kNoAim = 0;

  FigureName ours;
  FigureName other;
  double aim = kNoAim;  // of ours / other: at most this, or at least this where more is better
};

// All benches and what their figures are compared with.
//
// Each bench runs once in a round, in a process of its own: it starts with a fresh heap, and neither its memory nor its
// placement outlives it. One that fails says so on standard error and reports nothing.
class Suite {
 public:
  using Frequency = Bench::Frequency;

  void Add(std::vector<std::string> items, std::function<void(Recorder&)> run,
           Frequency frequency = Frequency::kEveryRound);
  void Compare(FigureName ours, FigureName other, double aim = Comparison::kNoAim);

  // Keeps the benches that report one of the items, in which '*' stands for any text. False, with all items' names on
  // standard error, when one of them stands for none.
  [[nodiscard]] bool Select(const std::vector<std::string>& items);

  // Returns whether every bench could be run.
  [[nodiscard]] bool Run(const Setup& setup, int rounds, Report& report) const;

  const std::vector<Comparison>& GetComparisons() const { return _comparisons; }

 private:
  std::vector<Bench> _benches;
  std::vector<Comparison> _comparisons;
  bool _selected = false;
};

}  // namespace tavix::bench
