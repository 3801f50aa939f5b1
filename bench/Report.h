#pragma once

#include <cstdio>
#include <map>
#include <vector>

#include "bench/Figure.h"
#include "bench/Suite.h"

namespace tavix::bench {

// The figures of all rounds, and what they come to: a figure is the median of its rounds, a ratio the median of the
// ratios within each round. What else the machine does then moves both sides of a ratio alike.
class Report {
 public:
  void Add(int round, const Figure& figure);

  // One row for each comparison and for each figure of ours without one, for people.
  void PrintTable(std::FILE* out, const std::vector<Comparison>& comparisons) const;

  // One JSON object a line for each figure.
  void PrintJson(std::FILE* out) const;

 private:
  using Rounds = std::map<int, Figure>;

  Figure Summarise(const FigureName& name) const;
  double GetRatio(const Comparison& comparison) const;

  std::vector<FigureName> _order;  // in which the figures first came
  std::map<FigureName, Rounds> _figures;
};

}  // namespace tavix::bench
