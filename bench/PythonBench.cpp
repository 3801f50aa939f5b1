// What the Python package adds to a bare exchange in Python: one get, and the way of a change to a watcher, of a store
// that waits and of one of asyncio, and many gets at once.

#include <cstdio>
#include <memory>
#include <string>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/Placement.h"
#include "bench/SampleSettings.h"
#include "bench/Samples.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 42;
constexpr int kGroups = 100;
constexpr int kTimesPerTurn = 200;
constexpr int kPipelined = 10000;
constexpr double kAim = 1.6;
constexpr char kGet[] = "python-get";
constexpr char kNotice[] = "python-change-to-watcher";
constexpr char kManyGets[] = "python-get-10000";
constexpr char kPipelinedKind[] = "pipelined";
constexpr const char* kKinds[] = {"sync", "asyncio"};
constexpr const char* kWatchKinds[] = {"sync-watch", "asyncio-watch"};

struct Kind {
  FigureName ours;
  FigureName bare;
};

Kind KindOf(const char* item, const std::string& kind, const Placement& placement) {
  const std::string variant = kind + ", " + placement.name;
  return {{item, kOurs, variant}, {item, kFloor, "bare exchange, " + variant}};
}

Kind PipelinedKind(const Placement& placement) {
  return {{kManyGets, kOurs, std::string(kPipelinedKind) + ", " + placement.name},
          {kManyGets, kFloor, std::string("bare exchanges one by one, ") + placement.name}};
}

struct Exchanges {
  Samples ours;
  Samples bare;
};

std::string Quoted(const std::string& word) {
  return "'" + word + "'";
}

Exchanges RunPython(const std::string& kind, int port, int turns, int times) {
  const std::string words = "exec python3 " + Quoted(TAVIX_BENCH_PYTHON) + " " + kind +
                            " 127.0.0.1:" + std::to_string(port) + " " + Quoted(GroupName(kGroup)) + " " +
                            Quoted(KeyName(kKeysOfGroup - 1)) + " " + Quoted(ValueText(kGroup, kKeysOfGroup - 1)) +
                            " " + std::to_string(turns) + " " + std::to_string(times);
  const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(words.c_str(), "re"), pclose);
  if (!output) throw osa::Exception("Failed to start python3");
  Exchanges exchanges;
  char name[8];
  double microseconds = 0;
  while (std::fscanf(output.get(), "%7s %lf", name, &microseconds) == 2)
    (std::string(name) == "ours" ? exchanges.ours : exchanges.bare).Add(microseconds);
  const size_t expected = kind == kPipelinedKind ? static_cast<size_t>(turns) : static_cast<size_t>(turns * times);
  if (exchanges.ours.GetCount() != expected || exchanges.bare.GetCount() != expected)
    throw osa::Exception("bench/python-exchange.py %s has failed", kind.c_str());
  return exchanges;
}

void Measure(Recorder& recorder, const Placement& placement, const char* word, const Kind& kind, int turns, int times) {
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "python.ini", kGroups);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  PinToCore(placement.client);
  const Exchanges exchanges = RunPython(word, daemon.GetPort(), turns, times);
  recorder.Add(kind.ours, kMicroseconds, exchanges.ours);
  if (recorder.Wants(kind.bare)) recorder.Add(kind.bare, kMicroseconds, exchanges.bare);
}

void AddInTurns(Suite& suite, const char* item, const char* word, const Kind& kind, const Placement& placement) {
  suite.Add({item}, [=](Recorder& recorder) {
    Measure(recorder, placement, word, kind, recorder.Choose(4, 20), kTimesPerTurn);
  });
  suite.Compare(kind.ours, kind.bare, kAim);
}

}  // namespace

void AddPythonBenches(Suite& suite) {
  for (const Placement& placement : Placements()) {
    for (const char* const word : kKinds) AddInTurns(suite, kGet, word, KindOf(kGet, word, placement), placement);
    for (const char* const word : kWatchKinds)
      AddInTurns(suite, kNotice, word, KindOf(kNotice, word, placement), placement);
    const Kind kind = PipelinedKind(placement);
    suite.Add({kManyGets}, [=](Recorder& recorder) {
      Measure(recorder, placement, kPipelinedKind, kind, recorder.Choose(1, 3), kPipelined);
    });
    suite.Compare(kind.ours, kind.bare);
  }
}

}  // namespace tavix::bench
