#pragma once

#include <functional>
#include <vector>

#include "bench/Figure.h"
#include "bench/Recorder.h"

namespace tavix::bench {

// One of several that are measured beside each other.
struct Contender {
  FigureName name;
  std::function<double()> once;  // does it and returns the microseconds that it took
};

// Has the contenders that are wanted take turns, so that what disturbs the one disturbs the others, and records what
// they took. The first turn is a warm-up.
void MeasureInTurns(Recorder& recorder, const std::vector<Contender>& contenders, int turns, int timesPerTurn);

// The same until "seconds" have passed, with a fewest number of turns.
void MeasureInTurnsFor(Recorder& recorder, const std::vector<Contender>& contenders, double seconds, int fewestTurns);

}  // namespace tavix::bench
