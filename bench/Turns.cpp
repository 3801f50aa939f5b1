#include "bench/Turns.h"

#include "bench/Timing.h"

namespace tavix::bench {

namespace {

class Turns {
 public:
  Turns(Recorder& recorder, const std::vector<Contender>& contenders) : _recorder(recorder) {
    for (const Contender& contender : contenders) {
      if (recorder.Wants(contender.name)) _entries.push_back({&contender, {}});
    }
  }

  void TakeOne(int times) {
    for (Entry& entry : _entries) {
      for (int i = 0; i < times; ++i) entry.samples.Add(entry.contender->once());
    }
  }

  void WarmUp(int times) {
    TakeOne(times);
    for (Entry& entry : _entries) entry.samples = Samples();
  }

  void Record() {
    for (const Entry& entry : _entries) _recorder.Add(entry.contender->name, kMicroseconds, entry.samples);
  }

 private:
  struct Entry {
    const Contender* contender;
    Samples samples;
  };

  Recorder& _recorder;
  std::vector<Entry> _entries;
};

}  // namespace

void MeasureInTurns(Recorder& recorder, const std::vector<Contender>& contenders, int turns, int timesPerTurn) {
  Turns all(recorder, contenders);
  all.WarmUp(timesPerTurn);
  for (int i = 0; i < turns; ++i) all.TakeOne(timesPerTurn);
  all.Record();
}

void MeasureInTurnsFor(Recorder& recorder, const std::vector<Contender>& contenders, double seconds, int fewestTurns) {
  Turns all(recorder, contenders);
  all.WarmUp(1);
  const double end = NowInMicroseconds() + seconds * 1e6;
  for (int i = 0; i < fewestTurns || NowInMicroseconds() < end; ++i) all.TakeOne(1);
  all.Record();
}

}  // namespace tavix::bench
