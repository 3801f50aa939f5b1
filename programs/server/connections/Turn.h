#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>
#include <vector>

namespace tavix::daemon {

// What a loop knows of a connection to decide when it serves it. A loop owns what is in here.
//
// When many connections have requests at a time, serving each of them once takes long. First come the few that have
// waited longest, whatever they cost, so that everybody goes on. Then come those whose turns have been short: a client
// with one short request waits for few others, however many send long ones.
//
// Threads: the loop's.
struct Turn {
  static constexpr unsigned int kUnknown = std::numeric_limits<unsigned int>::max();
  static constexpr size_t kOldest = 4;

  bool isQueued = false;              // among those that are given a turn without an event
  unsigned long long lastServed = 0;  // in which round; 0: never
  unsigned int cost = kUnknown;       // of a turn, lately, in microseconds

  // A turn took that long. One that was long only because the machine had other things to do changes little.
  void NoteCost(unsigned int microseconds) {
    constexpr unsigned int kMax = 1'000'000;
    if (cost == kUnknown) {
      cost = std::min(microseconds, kMax);
    } else {
      cost = (7 * cost + std::min({microseconds, 4 * cost + 50, kMax})) / 8;
    }
  }

  // Turns that take about as long are alike.
  unsigned int GetCostClass() const {
    unsigned int result = 0;
    for (unsigned int rest = cost / 64; rest > 0; rest /= 2) ++result;
    return result;
  }

  // Puts those that wait into the order in which they are to be served. turnOf: returns the turn of an element.
  // Clients that ask again as soon as they are answered come in that order already, as a rule.
  template <class Waiting, class TurnOf>
  static void Order(std::vector<Waiting>& waiting, TurnOf turnOf) {
    bool isByCost = false;  // one comparison for both, as the compiler makes much of each
    const auto isBefore = [&](const Waiting& a, const Waiting& b) {
      if (isByCost) return turnOf(a).GetCostClass() < turnOf(b).GetCostClass();
      return turnOf(a).lastServed < turnOf(b).lastServed;
    };
    for (auto first = waiting.begin();; isByCost = true) {
      if (!std::is_sorted(first, waiting.end(), isBefore)) std::stable_sort(first, waiting.end(), isBefore);
      if (isByCost) return;
      first += static_cast<std::ptrdiff_t>(std::min(kOldest, waiting.size()));
    }
  }
};

}  // namespace tavix::daemon
