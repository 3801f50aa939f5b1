#pragma once

#include <algorithm>
#include <vector>

namespace tavix::bench {

// Measured values and their quantiles.
class Samples {
 public:
  void Add(double value) { _values.push_back(value); }
  size_t GetCount() const { return _values.size(); }

  // 0 when there are none.
  double GetQuantile(double share) const {
    if (_values.empty()) return 0;
    std::vector<double> sorted = _values;
    const auto place = static_cast<size_t>(share * static_cast<double>(sorted.size()));
    const auto at = sorted.begin() + static_cast<std::ptrdiff_t>(std::min(place, sorted.size() - 1));
    std::nth_element(sorted.begin(), at, sorted.end());
    return *at;
  }
  double GetMedian() const { return GetQuantile(0.5); }

 private:
  std::vector<double> _values;
};

}  // namespace tavix::bench
