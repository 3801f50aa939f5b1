#include "bench/Micro.h"

#include <string>
#include <vector>

#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

// Keeps what the repetitions took instead of printing it.
class Collector : public benchmark::BenchmarkReporter {
 public:
  explicit Collector(Counted counted) : _counted(counted) {}

  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) throw osa::Exception("%s", run.error_message.c_str());
      if (run.run_type != Run::RT_Iteration) continue;
      const auto iterations = static_cast<double>(run.iterations);
      const double seconds = _counted == Counted::kAll ? run.cpu_accumulated_time : run.real_accumulated_time;
      _seconds.Add(seconds / iterations);
      _iterations += static_cast<size_t>(run.iterations);
    }
  }

  double GetSeconds() const { return _seconds.GetMedian(); }
  size_t GetIterations() const { return _iterations; }

 private:
  const Counted _counted;
  Samples _seconds;
  size_t _iterations = 0;
};

double Convert(double seconds, const std::string& unit, double amount) {
  if (unit == kNanoseconds) return seconds * 1e9 / amount;
  if (unit == kMicroseconds) return seconds * 1e6 / amount;
  if (unit == kMegabytesPerSecond) return amount / seconds / 1e6;
  throw osa::Exception("No small benchmark is measured in %s", unit.c_str());
}

}  // namespace

void MeasureMicro(Recorder& recorder, const FigureName& name, const char* unit, double amount,
                  const std::function<void(benchmark::State&)>& body, Counted counted) {
  if (!recorder.Wants(name)) return;
  benchmark::ClearRegisteredBenchmarks();
  auto* registered = benchmark::RegisterBenchmark(name.variant.c_str(), body);
  registered->MinTime(recorder.Choose(0.01, 0.02))->Repetitions(recorder.Choose(1, 2));
  if (counted == Counted::kByHand) registered->UseManualTime();
  Collector collector(counted);
  benchmark::RunSpecifiedBenchmarks(&collector);
  recorder.Add(
      {name, unit, Convert(collector.GetSeconds(), unit, amount), Figure::kUnknown, collector.GetIterations()});
}

}  // namespace tavix::bench
