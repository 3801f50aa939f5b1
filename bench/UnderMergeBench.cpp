// What a get takes while others make durable changes all the time.

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/DurableDaemon.h"
#include "bench/Exchange.h"
#include "bench/FloorServer.h"
#include "bench/OwnProcess.h"
#include "bench/Timing.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 7;
constexpr int kTurns = 5;
constexpr char kItem[] = "get-under-merge";
constexpr char kAlone[] = "alone";
constexpr char kBesideWriter[] = "beside a writer";
constexpr char kBesideOther[] = "beside a writer of another daemon";
constexpr char kExchangeAlone[] = "tcp exchange, alone";
constexpr char kExchangeBesideWriter[] = "tcp exchange, beside a writer";
constexpr char kExchangeBesideAppend[] = "tcp exchange, beside append, fdatasync";
constexpr double kMaxOverAlone = 2;
constexpr double kMaxOverFloor = 1.2;
const Layer kLayer{"300 KiB", 300 << 10};

FigureName Quantile(const char* peer, const char* variant) {
  return {kItem, peer, std::string("p99 ") + variant};
}

// Exchanges that are timed, and what another process does all the time meanwhile, if anything.
struct Scene {
  const char* peer;
  const char* variant;
  const osa::Descriptor* connection;
  Exchange exchange;
  std::function<void()> disturb;  // does not return
  Samples samples;
};

void ChangeForever(const DurableDaemon& daemon) {
  const osa::Descriptor connection = daemon.Connect();
  for (int version = 0;; ++version) TimedExchange(connection, ChangeExchange("merge", kGroup, version));
}

void AppendForever(const std::string& directory) {
  AppendedFile file(directory);
  while (true) file.Append();
}

void Time(Scene& scene, double seconds) {
  std::unique_ptr<OwnProcess> other;
  if (scene.disturb) other = std::make_unique<OwnProcess>(scene.disturb);
  const double start = NowInMicroseconds() + seconds / 4 * 1e6;
  const double end = start + seconds * 1e6;
  for (double now = NowInMicroseconds(); now < end; now = NowInMicroseconds()) {
    const double took = TimedExchange(*scene.connection, scene.exchange);
    if (now >= start) scene.samples.Add(took);
  }
}

void Measure(Recorder& recorder) {
  const std::string& directory = recorder.GetSetup().directory;
  const Exchange get = GetExchange(kGroup + 1);
  const Exchange bare{std::string(get.request.size(), 'q'), std::string(get.reply.size(), 'r')};
  const DurableDaemon daemon(recorder, kLayer);
  const DurableDaemon other(recorder, kLayer);
  const FloorServer floor = FloorServer::WithThreadPerConnection({bare.request.size(), bare.reply.size()});
  const osa::Descriptor connection = daemon.Connect();
  const osa::Descriptor exchanging = floor.Connect();
  std::vector<Scene> scenes{{kOurs, kAlone, &connection, get, {}, {}},
                            {kOurs, kBesideWriter, &connection, get, [&] { ChangeForever(daemon); }, {}},
                            {kOurs, kBesideOther, &connection, get, [&] { ChangeForever(other); }, {}},
                            {kFloor, kExchangeAlone, &exchanging, bare, {}, {}},
                            {kFloor, kExchangeBesideWriter, &exchanging, bare, [&] { ChangeForever(other); }, {}},
                            {kFloor, kExchangeBesideAppend, &exchanging, bare, [&] { AppendForever(directory); }, {}}};
  const auto isUnwanted = [&](const Scene& scene) { return !recorder.Wants({kItem, scene.peer, scene.variant}); };
  scenes.erase(std::remove_if(scenes.begin(), scenes.end(), isUnwanted), scenes.end());
  for (int turn = 0; turn < kTurns; ++turn) {
    for (Scene& scene : scenes) Time(scene, recorder.Choose(0.1, 0.5) / kTurns);
  }
  for (const Scene& scene : scenes) {
    recorder.Add({kItem, scene.peer, scene.variant}, kMicroseconds, scene.samples);
    recorder.Add(Quantile(scene.peer, scene.variant), kMicroseconds, scene.samples.GetQuantile(0.99));
  }
}

}  // namespace

void AddUnderMergeBenches(Suite& suite) {
  suite.Add({kItem}, Measure);
  suite.Compare({kItem, kOurs, kBesideWriter}, {kItem, kOurs, kAlone});
  suite.Compare(Quantile(kOurs, kBesideWriter), Quantile(kOurs, kAlone), kMaxOverAlone);
  suite.Compare(Quantile(kOurs, kBesideWriter), Quantile(kOurs, kBesideOther));
  suite.Compare(Quantile(kOurs, kBesideWriter), Quantile(kFloor, kExchangeBesideWriter), kMaxOverFloor);
  suite.Compare(Quantile(kOurs, kBesideWriter), Quantile(kFloor, kExchangeBesideAppend));
}

}  // namespace tavix::bench
