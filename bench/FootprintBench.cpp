// What a large store costs when the daemon starts, and what connections cost that do nothing.

#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/FloorServer.h"
#include "bench/ProcessMemory.h"
#include "bench/Timing.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kGroups = 100000;
constexpr int kConnections = 1000;
constexpr char kStartup[] = "startup-100k";
constexpr char kMemory[] = "rss-100k";
constexpr char kEmptyMemory[] = "rss-empty";
constexpr char kConnectionMemory[] = "rss-1000conn";
constexpr char kBareMap[] = "bare map";
constexpr char kThreads[] = "thread per connection";
constexpr char kIdle[] = "idle";
constexpr char kAfterGet[] = "after one get each";

struct Layer {
  const char* variant;
  const char* option;
  double startupAim;
  double memoryAim;
};

const Layer kLayers[] = {{"all defaults", "--defaults", 1.2, 1.1}, {"all user", "--user-settings", 1.25, 1.15}};

void MeasureDaemonStart(Recorder& recorder, const Layer& layer, const std::string& settings) {
  const double start = NowInMicroseconds();
  const Daemon daemon(recorder.GetSetup().server, {layer.option, settings});
  TimedExchange(daemon.Connect(), GetExchange(kGroups / 2));
  const double end = NowInMicroseconds();
  recorder.Add({kStartup, kOurs, layer.variant}, kMilliseconds, (end - start) / 1000);
  recorder.Add({kMemory, kOurs, layer.variant}, kMebibytes, ResidentMebibytes(daemon.GetId()));
}

void MeasureBareMapStart(Recorder& recorder, const std::string& settings) {
  const double start = NowInMicroseconds();
  const Program program({recorder.GetSetup().bareMap, settings}, kAnyCore);
  if (program.ReadLine() != "ready") throw osa::Exception("The bare map was not loaded");
  const double end = NowInMicroseconds();
  recorder.Add({kStartup, kFloor, kBareMap}, kMilliseconds, (end - start) / 1000);
  recorder.Add({kMemory, kFloor, kBareMap}, kMebibytes, ResidentMebibytes(program.GetId()));
}

void MeasureEmptyDaemon(Recorder& recorder) {
  const Daemon daemon(recorder.GetSetup().server, {});
  TimedExchange(daemon.Connect(), GetNothingExchange());
  recorder.Add({kEmptyMemory, kOurs, "after one get"}, kMebibytes, ResidentMebibytes(daemon.GetId()));
}

// The last connection's reply proves that all before it were accepted.
template <class Server>
void MeasureConnections(Recorder& recorder, const std::string& peer, const std::string& prefix, const Server& server,
                        const Exchange& exchange) {
  const osa::Descriptor first = server.Connect();
  TimedExchange(first, exchange);
  const double before = ResidentMebibytes(server.GetId());
  std::vector<osa::Descriptor> connections;
  for (int i = 0; i < kConnections; ++i) connections.push_back(server.Connect());
  TimedExchange(connections.back(), exchange);
  recorder.Add({kConnectionMemory, peer, prefix + kIdle}, kMebibytes, ResidentMebibytes(server.GetId()) - before);
  for (const osa::Descriptor& connection : connections) TimedExchange(connection, exchange);
  recorder.Add({kConnectionMemory, peer, prefix + kAfterGet}, kMebibytes, ResidentMebibytes(server.GetId()) - before);
}

void MeasureIdleConnections(Recorder& recorder) {
  const Exchange exchange = GetExchange(42);
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "idle.ini", 100);
  MeasureConnections(recorder, kOurs, "", Daemon(recorder.GetSetup().server, {"--defaults", settings}), exchange);
  if (!recorder.WantsFloor()) return;
  const Exchange bare{std::string(exchange.request.size(), 'q'), std::string(exchange.reply.size(), 'r')};
  MeasureConnections(recorder, kFloor, std::string(kThreads) + ", ",
                     FloorServer::WithThreadPerConnection({bare.request.size(), bare.reply.size()}), bare);
}

}  // namespace

void AddFootprintBenches(Suite& suite) {
  const auto measureStart = [](Recorder& recorder) {
    const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "startup.ini", kGroups);
    if (recorder.WantsFloor()) MeasureBareMapStart(recorder, settings);
    for (const Layer& layer : kLayers) MeasureDaemonStart(recorder, layer, settings);
  };
  suite.Add({kStartup, kMemory}, measureStart, Suite::Frequency::kFewRounds);
  for (const Layer& layer : kLayers) {
    suite.Compare({kStartup, kOurs, layer.variant}, {kStartup, kFloor, kBareMap}, layer.startupAim);
    suite.Compare({kMemory, kOurs, layer.variant}, {kMemory, kFloor, kBareMap}, layer.memoryAim);
  }
  suite.Add({kEmptyMemory}, MeasureEmptyDaemon, Suite::Frequency::kFewRounds);
  suite.Add({kConnectionMemory}, MeasureIdleConnections, Suite::Frequency::kFewRounds);
  for (const char* variant : {kIdle, kAfterGet}) {
    suite.Compare({kConnectionMemory, kOurs, variant},
                  {kConnectionMemory, kFloor, std::string(kThreads) + ", " + variant});
  }
}

}  // namespace tavix::bench
