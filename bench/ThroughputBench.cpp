// Many connections at once, and connections that last for one request only.

#include <string>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/ClosedLoop.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/FloorServer.h"
#include "bench/Timing.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 42;
constexpr int kGroups = 100;
constexpr char kConnectGet[] = "connect-get";
constexpr char kOursVariant[] = "raw";
constexpr char kThreads[] = "thread per connection";
constexpr char kEventLoop[] = "one event loop";

ExchangeSize SizeOf(const Exchange& exchange) {
  return {exchange.request.size(), exchange.reply.size()};
}

std::string ThroughputItem(int connections) {
  return "get-throughput-" + std::to_string(connections) + "conn";
}

// One server under load; its connections stay open between its turns.
class LoadedServer {
 public:
  template <class Server>
  LoadedServer(FigureName name, const Server& server, int connections) : _name(std::move(name)) {
    for (int i = 0; i < connections; ++i) _connections.push_back(server.Connect());
  }

  void TakeTurn(const Exchange& exchange, double seconds) {
    _perSecond.Add(MeasureClosedLoop(_connections, exchange, seconds));
  }

  void Record(Recorder& recorder) const { recorder.Add(_name, kOperationsPerSecond, _perSecond.GetMedian()); }

 private:
  FigureName _name;
  std::vector<osa::Descriptor> _connections;
  Samples _perSecond;
};

void MeasureThroughput(Recorder& recorder, const std::string& item, int connections) {
  const Exchange exchange = GetExchange(kGroup);
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "throughput.ini", kGroups);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", settings});
  const FloorServer threads = FloorServer::WithThreadPerConnection(SizeOf(exchange));
  const FloorServer eventLoop = FloorServer::WithEventLoop(SizeOf(exchange));
  std::vector<LoadedServer> servers;
  servers.emplace_back(FigureName{item, kOurs, kOursVariant}, daemon, connections);
  if (recorder.WantsFloor()) {
    servers.emplace_back(FigureName{item, kFloor, kThreads}, threads, connections);
    servers.emplace_back(FigureName{item, kFloor, kEventLoop}, eventLoop, connections);
  }
  for (int turn = 0; turn < recorder.Choose(1, 3); ++turn) {
    for (LoadedServer& server : servers) server.TakeTurn(exchange, 0.05);
  }
  for (const LoadedServer& server : servers) server.Record(recorder);
}

template <class Server>
void MeasureConnecting(Recorder& recorder, const FigureName& name, const Server& server, const Exchange& exchange) {
  const int count = recorder.Choose(200, 1000);
  Samples samples;
  for (int i = -count / 10; i < count; ++i) {
    const double start = NowInMicroseconds();
    {
      const osa::Descriptor connection = server.Connect();
      TimedExchange(connection, exchange);
    }
    if (i >= 0) samples.Add(NowInMicroseconds() - start);
  }
  recorder.Add(name, kMicroseconds, samples);
}

// The floors answer with their own bytes.
Exchange BareExchange(const Exchange& exchange) {
  return {std::string(exchange.request.size(), 'q'), std::string(exchange.reply.size(), 'r')};
}

}  // namespace

void AddThroughputBenches(Suite& suite) {
  for (int connections : {1, 10, 100}) {
    const std::string item = ThroughputItem(connections);
    suite.Add({item}, [=](Recorder& recorder) { MeasureThroughput(recorder, item, connections); });
    suite.Compare({item, kOurs, kOursVariant}, {item, kFloor, kThreads});
    suite.Compare({item, kOurs, kOursVariant}, {item, kFloor, kEventLoop});
  }
  suite.Add({kConnectGet}, [](Recorder& recorder) {
    const Exchange exchange = GetExchange(kGroup);
    if (recorder.WantsFloor()) {
      MeasureConnecting(recorder, {kConnectGet, kFloor, kThreads},
                        FloorServer::WithThreadPerConnection(SizeOf(exchange)), BareExchange(exchange));
    }
    const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "connect.ini", kGroups);
    MeasureConnecting(recorder, {kConnectGet, kOurs, kOursVariant},
                      Daemon(recorder.GetSetup().server, {"--defaults", settings}), exchange);
  });
  suite.Compare({kConnectGet, kOurs, kOursVariant}, {kConnectGet, kFloor, kThreads});
}

}  // namespace tavix::bench
