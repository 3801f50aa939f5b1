#include "bench/Report.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "bench/Samples.h"

namespace tavix::bench {

namespace {

bool MoreIsBetter(const std::string& unit) {
  return unit.size() > 2 && unit.compare(unit.size() - 2, 2, "/s") == 0;
}

std::string ToText(double value) {
  char text[40];
  std::snprintf(text, sizeof text, value >= 1000 ? "%.0f" : "%.3g", value);
  return text;
}

std::string ToText(const Figure& figure) {
  return ToText(figure.median) + " " + figure.unit;
}

std::string ToText(const FigureName& name) {
  return name.peer + ": " + name.variant;
}

std::string AimText(double aim, bool moreIsBetter, double ratio) {
  if (aim == Comparison::kNoAim) return "";
  const bool reached = moreIsBetter ? ratio >= aim : ratio <= aim;
  return (moreIsBetter ? ">= " : "<= ") + ToText(aim) + (reached ? "" : "  missed");
}

enum Column { kItem, kVariant, kOursValue, kOther, kOtherValue, kRatio, kAim, kColumns };
using Row = std::array<std::string, kColumns>;

bool IsNumber(size_t column) {
  return column == kOursValue || column == kOtherValue || column == kRatio;
}

void PrintRows(std::FILE* out, const std::vector<Row>& rows) {
  std::array<size_t, kColumns> widths{};
  for (const Row& row : rows) {
    for (size_t column = 0; column < kColumns; ++column) widths[column] = std::max(widths[column], row[column].size());
  }
  for (const Row& row : rows) {
    std::string line;
    for (size_t column = 0; column < kColumns; ++column) {
      const std::string blanks(widths[column] - row[column].size(), ' ');
      line += IsNumber(column) ? blanks + row[column] : row[column] + blanks;
      line += "  ";
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::fprintf(out, "%s\n", line.c_str());
  }
}

}  // namespace

void Report::Add(int round, const Figure& figure) {
  Rounds& rounds = _figures[figure.name];
  if (rounds.empty()) _order.push_back(figure.name);
  rounds[round] = figure;
}

Figure Report::Summarise(const FigureName& name) const {
  Samples medians;
  Samples p99s;
  Figure summary;
  for (const auto& [round, figure] : _figures.at(name)) {
    summary.unit = figure.unit;
    summary.count += figure.count;
    medians.Add(figure.median);
    if (figure.p99 != Figure::kUnknown) p99s.Add(figure.p99);
  }
  summary.name = name;
  summary.median = medians.GetMedian();
  if (p99s.GetCount() > 0) summary.p99 = p99s.GetMedian();
  return summary;
}

double Report::GetRatio(const Comparison& comparison) const {
  Samples ratios;
  const Rounds& others = _figures.at(comparison.other);
  for (const auto& [round, ours] : _figures.at(comparison.ours)) {
    const auto other = others.find(round);
    if (other != others.end()) ratios.Add(ours.median / other->second.median);
  }
  return ratios.GetMedian();
}

void Report::PrintTable(std::FILE* out, const std::vector<Comparison>& comparisons) const {
  std::vector<Row> rows{{"item", "variant", "ours", "beside", "", "ratio", "aim"}};
  for (const FigureName& name : _order) {
    if (name.peer != kOurs) continue;
    const Figure ours = Summarise(name);
    Row row{name.item, name.variant, ToText(ours)};
    for (const Comparison& comparison : comparisons) {
      if (comparison.ours != name || _figures.count(comparison.other) == 0) continue;
      const double ratio = GetRatio(comparison);
      row[kOther] = ToText(comparison.other);
      row[kOtherValue] = ToText(Summarise(comparison.other));
      row[kRatio] = ToText(ratio);
      row[kAim] = AimText(comparison.aim, MoreIsBetter(ours.unit), ratio);
      rows.push_back(std::exchange(row, Row{}));
    }
    if (!row[kItem].empty()) rows.push_back(row);
  }
  PrintRows(out, rows);
}

void Report::PrintJson(std::FILE* out) const {
  for (const FigureName& name : _order) {
    const Figure figure = Summarise(name);
    std::fprintf(out, "{\"item\":\"%s\",\"peer\":\"%s\",\"variant\":\"%s\",\"unit\":\"%s\",\"median\":%.6g,",
                 name.item.c_str(), name.peer.c_str(), name.variant.c_str(), figure.unit.c_str(), figure.median);
    if (figure.p99 != Figure::kUnknown) std::fprintf(out, "\"p99\":%.6g,", figure.p99);
    std::fprintf(out, "\"n\":%zu}\n", figure.count);
  }
}

}  // namespace tavix::bench
