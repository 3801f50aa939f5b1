// Client processes that share the daemon's loops, and short requests beside long ones.

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/ClosedLoop.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/OwnProcess.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 42;
constexpr int kGroups = 1000;
constexpr char kAllGroups[] = "get delimited\n*\n.\n";
constexpr char kBesideLongGets[] = "get-beside-long-gets";
constexpr char kAlone[] = "nobody beside it";
constexpr int kConnectionsBeside = 10;
constexpr double kSecondsUntilBusy = 1.2;  // the daemon tells a busy loop by the last second

// How many loops the daemon has.
struct Loops {
  const char* variant;
  std::vector<std::string> options;
};

const std::vector<Loops>& AllLoops() {
  static const std::vector<Loops> all{{"by default", {}}, {"1 loop", {"--loops", "1"}}};
  return all;
}

struct Clients {
  int processes;
  int connections;  // of each
};

constexpr Clients kAllClients[] = {{1, 10}, {1, 100}, {2, 10}, {4, 10}, {16, 10}};

std::string ItemOf(const Clients& clients) {
  return "get-throughput-" + std::to_string(clients.processes) + "x" + std::to_string(clients.connections) + "conn";
}

// A process that connects, and then, once it is started, keeps one request outstanding on each connection.
class ClientProcess {
 public:
  ClientProcess(const Daemon& daemon, int connections, const Exchange& exchange, double seconds) {
    auto [startReader, startWriter] = MakePipe();
    auto [resultReader, resultWriter] = MakePipe();
    const osa::Descriptor& start = startReader;
    const osa::Descriptor& result = resultWriter;
    _process = std::make_unique<OwnProcess>([&] {
      std::vector<osa::Descriptor> descriptors;
      for (int i = 0; i < connections; ++i) {
        descriptors.push_back(daemon.Connect());
        TimedExchange(descriptors.back(), GetExchange(kGroup));
      }
      WriteAll(result, "connected\n");
      char ignored = 0;
      ReadAll(start, &ignored, 1);
      WriteAll(result, std::to_string(MeasureClosedLoop(descriptors, exchange, seconds)) + "\n");
    });
    _start = std::move(startWriter);
    _result = std::move(resultReader);
    resultWriter = osa::Descriptor();
    ReadLine(_result);
  }

  void Start() const { WriteAll(_start, "s"); }
  double GetPerSecond() const { return std::stod(ReadLine(_result)); }

 private:
  osa::Descriptor _start;
  osa::Descriptor _result;
  std::unique_ptr<OwnProcess> _process;
};

Daemon StartDaemon(const Recorder& recorder, const Loops& loops) {
  std::vector<std::string> options{"--defaults",
                                   WriteSettingsFile(recorder.GetSetup().directory, "loops.ini", kGroups)};
  options.insert(options.end(), loops.options.begin(), loops.options.end());
  return {recorder.GetSetup().server, options};
}

void MeasureProcesses(Recorder& recorder, const std::string& item, const Clients& clients, const Loops& loops) {
  const Daemon daemon = StartDaemon(recorder, loops);
  std::vector<std::unique_ptr<ClientProcess>> processes;
  for (int i = 0; i < clients.processes; ++i) {
    processes.push_back(
        std::make_unique<ClientProcess>(daemon, clients.connections, GetExchange(kGroup), recorder.Choose(0.1, 0.4)));
  }
  for (const auto& process : processes) process->Start();
  double perSecond = 0;
  for (const auto& process : processes) perSecond += process->GetPerSecond();
  recorder.Add({item, kOurs, loops.variant}, kOperationsPerSecond, perSecond);
}

// The reply that the daemon has to the request; texts end with a line of one dot.
Exchange LearnExchange(const osa::Descriptor& connection, const std::string& request) {
  constexpr std::string_view kEnd = "\n.\n";
  Exchange exchange{request, ""};
  WriteAll(connection, request);
  while (exchange.reply.size() < kEnd.size() ||
         exchange.reply.compare(exchange.reply.size() - kEnd.size(), kEnd.size(), kEnd) != 0) {
    char byte = 0;
    ReadAll(connection, &byte, 1);
    exchange.reply += byte;
  }
  return exchange;
}

double MeasureShortGets(const Recorder& recorder, const Daemon& daemon) {
  const ClientProcess process(daemon, kConnectionsBeside, GetExchange(kGroup), recorder.Choose(0.1, 0.4));
  process.Start();
  return process.GetPerSecond();
}

// The long requests go on until their process is ended.
void MeasureBesideLongGets(Recorder& recorder, const Loops& loops) {
  const Daemon daemon = StartDaemon(recorder, loops);
  const ClientProcess longGets(daemon, 1, LearnExchange(daemon.Connect(), kAllGroups), 3600);
  longGets.Start();
  std::this_thread::sleep_for(std::chrono::duration<double>(kSecondsUntilBusy));
  recorder.Add({kBesideLongGets, kOurs, loops.variant}, kOperationsPerSecond, MeasureShortGets(recorder, daemon));
}

}  // namespace

void AddLoopsBenches(Suite& suite) {
  const Loops& byDefault = AllLoops().front();
  const Loops& oneLoop = AllLoops().back();
  for (const Clients& clients : kAllClients) {
    const std::string item = ItemOf(clients);
    suite.Add({item}, [=](Recorder& recorder) {
      for (const Loops& loops : AllLoops()) MeasureProcesses(recorder, item, clients, loops);
    });
    suite.Compare({item, kOurs, byDefault.variant}, {item, kOurs, oneLoop.variant}, clients.processes == 1 ? 0.95 : 1);
  }
  suite.Add({kBesideLongGets}, [](Recorder& recorder) {
    for (const Loops& loops : AllLoops()) MeasureBesideLongGets(recorder, loops);
    const double alone = MeasureShortGets(recorder, StartDaemon(recorder, AllLoops().front()));
    recorder.Add({kBesideLongGets, kOurs, kAlone}, kOperationsPerSecond, alone);
  });
  suite.Compare({kBesideLongGets, kOurs, byDefault.variant}, {kBesideLongGets, kOurs, kAlone});
}

}  // namespace tavix::bench
