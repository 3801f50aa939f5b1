// One caller that waits for each reply: through the real daemon, and through a server in the same process.

#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/FloorServer.h"
#include "bench/Placement.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "bench/Turns.h"
#include "tavix/core/IniFile.h"
#include "tavix/osa/Exception.h"
#include "tavix/settings/TavixSettingsClient.h"

namespace tavix::bench {

namespace {

using Client = settings::TavixSettingsClient;

constexpr int kGroup = 42;
constexpr int kGroups = 100;
constexpr int kTimesPerTurn = 200;
constexpr double kGetAim = 1.15;
constexpr double kChangeAim = 1.2;
constexpr double kThreadAim = 1.3;  // of a client that has a thread, beside one that has none
constexpr char kGet[] = "get-roundtrip-1conn";
constexpr char kGetInProcess[] = "get-roundtrip-inproc";

std::string Variant(const std::string& what, const Placement& placement) {
  return what + ", " + placement.name;
}

FigureName FloorName(const std::string& item, const Placement& placement) {
  return {item, kFloor, Variant("tcp ping-pong", placement)};
}

FigureName PipeName(const Placement& placement) {
  return {kGetInProcess, kFloor, Variant("pipe ping-pong", placement)};
}

ExchangeSize SizeOf(const Exchange& exchange) {
  return {exchange.request.size(), exchange.reply.size()};
}

Contender BareContender(const FigureName& name, const osa::Descriptor& connection, ExchangeSize size) {
  const Exchange exchange{std::string(size.request, 'q'), std::string(size.reply, 'r')};
  return {name, [&connection, exchange] { return TimedExchange(connection, exchange); }};
}

// Sends the exchanges in turn.
Contender RawContender(const FigureName& name, const osa::Descriptor& connection,
                       const std::vector<Exchange>& exchanges) {
  return {name, [&connection, exchanges, next = size_t{0}]() mutable {
            return TimedExchange(connection, exchanges[next++ % exchanges.size()]);
          }};
}

Contender GetContender(const FigureName& name, Client& client) {
  return {name, [&client, group = GroupName(kGroup), expected = ValueText(kGroup, kKeysOfGroup - 1)] {
            core::IniFile out;
            const double took = Timed([&] { client.GetSettings(group, out); });
            if (out.GetValueOrDefault(group, KeyName(kKeysOfGroup - 1)) != expected)
              throw osa::Exception("The client read something else");
            return took;
          }};
}

void MeasureRaw(Recorder& recorder, const std::string& item, const std::vector<Exchange>& exchanges,
                const Placement& placement) {
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "round-trip.ini", kGroups);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  const FloorServer floor = FloorServer::WithThreadPerConnection(SizeOf(exchanges[0]), placement.server);
  const osa::Descriptor ours = daemon.Connect();
  const osa::Descriptor bare = floor.Connect();
  PinToCore(placement.client);
  MeasureInTurns(recorder,
                 {RawContender({item, kOurs, Variant("raw", placement)}, ours, exchanges),
                  BareContender(FloorName(item, placement), bare, SizeOf(exchanges[0]))},
                 recorder.Choose(4, 10), kTimesPerTurn);
}

void MeasureGet(Recorder& recorder, const Placement& placement) {
  const Exchange exchange = GetExchange(kGroup);
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "round-trip.ini", kGroups);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  const FloorServer floor = FloorServer::WithThreadPerConnection(SizeOf(exchange), placement.server);
  const osa::Descriptor ours = daemon.Connect();
  const osa::Descriptor bare = floor.Connect();
  PinToCore(placement.client);
  setenv("TAVIX_SETTINGS_SERVER", ("127.0.0.1:" + std::to_string(daemon.GetPort())).c_str(), 1);
  Client single(Client::SingleThreaded);
  Client multi(Client::MultiThreaded);
  MeasureInTurns(recorder,
                 {RawContender({kGet, kOurs, Variant("raw", placement)}, ours, {exchange}),
                  GetContender({kGet, kOurs, Variant("mode 1", placement)}, single),
                  GetContender({kGet, kOurs, Variant("mode 0", placement)}, multi),
                  BareContender(FloorName(kGet, placement), bare, SizeOf(exchange))},
                 recorder.Choose(4, 10), kTimesPerTurn);
}

// Two pipes with a thread at their other ends that answers as a floor server does.
class PipePingPong {
 public:
  PipePingPong(ExchangeSize size, int core) : _request(MakePipe()), _reply(MakePipe()) {
    _thread = std::thread([this, size, core] {
      PinToCore(core);
      std::string request(size.request, '\0');
      const std::string reply(size.reply, 'r');
      while (TryReadAll(_request.first, request.data(), request.size())) WriteAll(_reply.second, reply);
    });
  }
  ~PipePingPong() {
    _request.second = osa::Descriptor();
    _thread.join();
  }

  double TimeOnce(const std::string& request, std::string& reply) {
    return Timed([&] {
      WriteAll(_request.second, request);
      ReadAll(_reply.first, reply.data(), reply.size());
    });
  }

 private:
  std::pair<osa::Descriptor, osa::Descriptor> _request;
  std::pair<osa::Descriptor, osa::Descriptor> _reply;
  std::thread _thread;
};

// The client's threads start on the core of the thread that makes it.
void MeasureGetInProcess(Recorder& recorder, const Placement& placement) {
  const ExchangeSize size = SizeOf(GetExchange(kGroup));
  PinToCore(placement.server);
  PipePingPong floor(size, placement.server);
  Client single(Client::SingleThreadedLocalConnection);
  Client multi(Client::MultiThreadedLocalConnection);
  PinToCore(placement.client);
  for (Client* client : {&single, &multi}) client->MergeSettings(SettingsDocument(kGroups, kKeysOfGroup));
  const std::string request(size.request, 'q');
  std::string reply(size.reply, '\0');
  MeasureInTurns(recorder,
                 {GetContender({kGetInProcess, kOurs, Variant("mode 3", placement)}, single),
                  GetContender({kGetInProcess, kOurs, Variant("mode 4", placement)}, multi),
                  {PipeName(placement), [&] { return floor.TimeOnce(request, reply); }}},
                 recorder.Choose(4, 10), kTimesPerTurn);
}

void AddRaw(Suite& suite, const std::string& item, const std::vector<Exchange>& exchanges) {
  for (const Placement& placement : Placements()) {
    suite.Add({item}, [=](Recorder& recorder) { MeasureRaw(recorder, item, exchanges, placement); });
    suite.Compare({item, kOurs, Variant("raw", placement)}, FloorName(item, placement), kChangeAim);
  }
}

}  // namespace

void AddRoundTripBenches(Suite& suite) {
  for (const Placement& placement : Placements()) {
    suite.Add({kGet}, [=](Recorder& recorder) { MeasureGet(recorder, placement); });
    suite.Compare({kGet, kOurs, Variant("raw", placement)}, FloorName(kGet, placement), kGetAim);
    suite.Compare({kGet, kOurs, Variant("mode 1", placement)}, FloorName(kGet, placement));
    suite.Compare({kGet, kOurs, Variant("mode 0", placement)}, FloorName(kGet, placement));
    suite.Compare({kGet, kOurs, Variant("mode 0", placement)}, {kGet, kOurs, Variant("mode 1", placement)},
                  placement.client == placement.server ? kThreadAim : Comparison::kNoAim);
  }
  for (const Placement& placement : Placements()) {
    suite.Add({kGetInProcess}, [=](Recorder& recorder) { MeasureGetInProcess(recorder, placement); });
    for (const char* mode : {"mode 3", "mode 4"})
      suite.Compare({kGetInProcess, kOurs, Variant(mode, placement)}, PipeName(placement));
  }
  AddRaw(suite, "merge-nopersist",
         {ChangeExchange("merge nopersist", kGroup, 1), ChangeExchange("merge nopersist", kGroup, 2)});
  AddRaw(suite, "tam-nopersist", {TestAndMergeExchange(kGroup, 1), TestAndMergeExchange(kGroup, 2)});
}

}  // namespace tavix::bench
