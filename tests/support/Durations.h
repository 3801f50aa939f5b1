#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

namespace tavix::test {

// How long each of many calls took.
class Durations {
 public:
  template <class Call>
  void Measure(Call call) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - begin;
    _milliseconds.push_back(taken.count());
  }

  // Adds those of others.
  void Add(const Durations& others) {
    _milliseconds.insert(_milliseconds.end(), others._milliseconds.begin(), others._milliseconds.end());
  }

  size_t Count() const { return _milliseconds.size(); }

  // In milliseconds: what that share of the calls, from 0 to 1, did not exceed. There must have been calls.
  double Quantile(double share) const {
    std::vector<double> sorted = _milliseconds;
    std::sort(sorted.begin(), sorted.end());
    return sorted.at(static_cast<size_t>(share * static_cast<double>(sorted.size() - 1)));
  }

 private:
  std::vector<double> _milliseconds;
};

}  // namespace tavix::test
