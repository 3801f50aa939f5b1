#pragma once

#include <benchmark/benchmark.h>

#include <functional>

#include "bench/Figure.h"
#include "bench/Recorder.h"

namespace tavix::bench {

// What counts as an iteration's time: all that its loop does, or what the body gives by SetIterationTime.
enum class Counted { kAll, kByHand };

// Has Google Benchmark run "body", the usual loop over its state, and records the median over repetitions of the
// processor time that one iteration takes: what else the machine does is not counted. Does nothing when the figure is
// not wanted.
//
// amount: for a unit of time, how many calls one iteration makes; for MB/s, how many bytes it handles.
void MeasureMicro(Recorder& recorder, const FigureName& name, const char* unit, double amount,
                  const std::function<void(benchmark::State&)>& body, Counted counted = Counted::kAll);

// As MeasureMicro for a body that is one call.
template <class Call>
void MeasureCall(Recorder& recorder, const FigureName& name, const char* unit, double amount, Call call) {
  MeasureMicro(recorder, name, unit, amount, [&](benchmark::State& state) {
    while (state.KeepRunning()) call();
  });
}

}  // namespace tavix::bench
