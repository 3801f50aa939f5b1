#pragma once

#include <string>
#include <tuple>

namespace tavix::bench {

// Who a figure belongs to, beside the names of peers. A floor is what the machine allows with no settings store at all.
constexpr char kOurs[] = "ours";
constexpr char kFloor[] = "floor";

// Of units that end with "/s" more is better, of all others less.
constexpr char kNanoseconds[] = "ns";
constexpr char kMicroseconds[] = "us";
constexpr char kMilliseconds[] = "ms";
constexpr char kMebibytes[] = "MiB";
constexpr char kMegabytesPerSecond[] = "MB/s";
constexpr char kOperationsPerSecond[] = "op/s";

struct FigureName {
  std::string item;     // what is measured
  std::string peer;     // whose
  std::string variant;  // how

  bool operator<(const FigureName& other) const {
    return std::tie(item, peer, variant) < std::tie(other.item, other.peer, other.variant);
  }
  bool operator!=(const FigureName& other) const {
    return std::tie(item, peer, variant) != std::tie(other.item, other.peer, other.variant);
  }
};

struct Figure {
  static constexpr double kUnknown = -1;

  FigureName name;
  std::string unit;
  double median = 0;
  double p99 = kUnknown;
  size_t count = 0;
};

}  // namespace tavix::bench
