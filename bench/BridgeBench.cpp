// What a bridge to a broker of MQTT adds: how long a change of the device takes to a subscriber there, and what local
// clients notice of a link that stands still.

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/FloorServer.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "bench/Turns.h"
#include "tavix/osa/Exception.h"
#include "tests/support/MqttConnection.h"
#include "tests/support/ReservedPort.h"
#include "tests/support/TcpProxy.h"

namespace tavix::bench {

namespace {

using test::MqttConnection;

constexpr char kChange[] = "bridge-change";
constexpr char kStalled[] = "bridge-stalled";
constexpr char kToSubscriber[] = "to a subscriber there";
constexpr char kHops[] = "three bare hops";
constexpr char kPublish[] = "publish, bare";
constexpr char kBeside[] = ", link stalled";
constexpr char kWithout[] = ", no bridge";
constexpr int kGroup = 42;
constexpr int kGroups = 100;
constexpr int kStateGroups = 10;  // of which each turn changes another one
constexpr double kMaxStalled = 1.2;
constexpr size_t kMessage = 300;  // bytes, about those that are reported

// Without the waits that keep a fleet's broker from being flooded.
constexpr char kNoWaits[] = "group-interval-ms=0\nrate=1000\nburst=100000\n";

std::string MakeDirectory(const Recorder& recorder) {
  std::string directory = recorder.GetSetup().directory + "/bridge-XXXXXX";
  if (!mkdtemp(directory.data())) throw osa::Exception("Failed to make '%s'", directory.c_str());
  return directory;
}

std::string WriteText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw osa::Exception("Failed to write '%s'", path.c_str());
  return path;
}

class Broker {
 public:
  explicit Broker(const std::string& directory)
      : _program({"/bin/sh", "-c", R"(exec "$0" -c "$1" 2>&1)", TAVIX_BENCH_MOSQUITTO,  // standard output is buffered
                  WriteText(directory + "/broker.conf", "listener " + std::to_string(_port.Get()) +
                                                            " 127.0.0.1\nuser root\nallow_anonymous true\n"
                                                            "log_dest stderr\nconnection_messages false\n")},
                 kAnyCore) {
    while (_program.ReadLine().find(" running") == std::string::npos) continue;
  }

  unsigned short GetPort() const { return _port.Get(); }

 private:
  const test::ReservedPort _port;
  const Program _program;
};

// A daemon, whose bridge reports all groups to a broker, the network between these two, and a subscriber.
class MirroredDevice {
 public:
  // limits: lines of their section. core: that of the daemon.
  MirroredDevice(const Recorder& recorder, const std::string& settings, const std::string& limits, int core)
      : _directory(MakeDirectory(recorder)),
        broker(_directory),
        link(broker.GetPort()),
        daemon(recorder.GetSetup().server, {"--defaults", settings}, core),
        subscriber(broker.GetPort()),
        _bridge(
            {recorder.GetSetup().bridge, "--config", WriteText(_directory + "/bridge.conf", MakeConfiguration(limits))},
            kAnyCore) {
    subscriber.SendConnect("subscriber", "fleet/subscriber");
    subscriber.AwaitConnected();
    subscriber.SendSubscribe({"fleet/bench/reported/#"});
    subscriber.AwaitSubscribed();
    for (int i = 0; i < kGroups; ++i) subscriber.AwaitMessage();
  }

 private:
  std::string MakeConfiguration(const std::string& limits) const {
    return "[bridge]\nname=bench\nserver=127.0.0.1:" + std::to_string(daemon.GetPort()) + "\nstate=" + _directory +
           "/bench.db\nruntime=" + _directory + "\n[mqtt]\nhost=127.0.0.1\nport=" + std::to_string(link.GetPort()) +
           "\nroot=fleet\ndevice=bench\n[limits]\n" + limits + "[map all]\npattern=*\ndirection=up\n";
  }

  const std::string _directory;

 public:
  const Broker broker;
  test::TcpProxy link;
  const Daemon daemon;
  MqttConnection subscriber;

 private:
  const Program _bridge;
};

// Three processes in a row that pass a message on and do nothing else.
class BareHops {
 public:
  BareHops()
      : _first(FloorServer::Relay({kMessage, kMessage}, 1, kAnyCore)),
        _last(FloorServer::Relay({kMessage, kMessage}, 1, kAnyCore)),
        _sender(_first.Connect()),
        _from(_first.Connect()),
        _to(_last.Connect()),
        _middle([this] { PassOn(); }),
        _receiver(_last.Connect()) {}

  double TimedMessage() const {
    const std::string message(kMessage, 'm');
    std::string received(kMessage, '\0');
    return Timed([&] {
      WriteAll(_sender, message);
      ReadAll(_receiver, received.data(), received.size());
    });
  }

 private:
  [[noreturn]] void PassOn() const {
    std::string message(kMessage, '\0');
    while (true) {
      ReadAll(_from, message.data(), message.size());
      WriteAll(_to, message);
    }
  }

  const FloorServer _first;
  const FloorServer _last;
  const osa::Descriptor _sender;
  const osa::Descriptor _from;
  const osa::Descriptor _to;
  const OwnProcess _middle;
  const osa::Descriptor _receiver;
};

// From the change's first byte until the subscriber has the message.
double TimedChange(const osa::Descriptor& connection, MirroredDevice& device, int number) {
  const std::string request = NoticeExchange(number % kStateGroups, number).request;
  std::string message;
  const double took = Timed([&] {
    WriteAll(connection, request);
    message = device.subscriber.AwaitMessage();
  });
  const std::string value = ValueText(number % kStateGroups, number % 1000);
  if (message.find(value) == std::string::npos) throw osa::Exception("The bridge reported \"%s\"", message.c_str());
  return took;
}

double TimedPublish(const MqttConnection& publisher, MqttConnection& subscriber) {
  const std::string message(kMessage, 'm');
  return Timed([&] {
    publisher.SendPublish("bare/topic", message);
    subscriber.AwaitMessage();
  });
}

void MeasureChange(Recorder& recorder) {
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "bridge.ini", kGroups);
  MirroredDevice device(recorder, settings, kNoWaits, kAnyCore);
  const osa::Descriptor connection = device.daemon.Connect();
  const BareHops hops;
  MqttConnection publisher(device.broker.GetPort());
  MqttConnection subscriber(device.broker.GetPort());
  publisher.SendConnect("publisher", "bare/publisher");
  publisher.AwaitConnected();
  subscriber.SendConnect("bare-subscriber", "bare/subscriber");
  subscriber.AwaitConnected();
  subscriber.SendSubscribe({"bare/topic"});
  subscriber.AwaitSubscribed();

  int number = 0;
  const Contender ours{{kChange, kOurs, kToSubscriber}, [&] { return TimedChange(connection, device, ++number); }};
  const Contender bare{{kChange, kFloor, kHops}, [&] { return hops.TimedMessage(); }};
  const Contender publish{{kChange, kFloor, kPublish}, [&] {
                            const double took = TimedPublish(publisher, subscriber);
                            publisher.AwaitPublished();
                            return took;
                          }};
  MeasureInTurns(recorder, {ours, bare, publish}, recorder.Choose(20, 300), 1);
}

// Local requests of one daemon.
struct LocalClient {
  LocalClient(const Daemon& daemon, const std::string& suffix) : when(suffix), connection(daemon.Connect()) {}

  void MeasureOnce(int number) {
    gets.Add(TimedExchange(connection, GetExchange(kGroup)));
    sets.Add(TimedExchange(connection, ChangeExchange("merge", number % kStateGroups, number)));
  }

  void Record(Recorder& recorder) const {
    recorder.Add({kStalled, kOurs, "get, p99" + when}, kMicroseconds, gets.GetQuantile(0.99));
    recorder.Add({kStalled, kOurs, "set, p99" + when}, kMicroseconds, sets.GetQuantile(0.99));
  }

  const std::string when;
  const osa::Descriptor connection;
  Samples gets;
  Samples sets;
};

std::string Beside(const Placement& placement) {
  return std::string(", ") + placement.name + kBeside;
}

std::string Without(const Placement& placement) {
  return std::string(", ") + placement.name + kWithout;
}

// Bridge and broker may use both cores.
void MeasureStalled(Recorder& recorder, const Placement& placement) {
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "stalled.ini", kGroups);
  MirroredDevice device(recorder, settings, "burst=100000\nrate=1000\n", placement.server);
  const Daemon alone(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  LocalClient beside(device.daemon, Beside(placement));
  LocalClient without(alone, Without(placement));
  device.link.SetMode(test::TcpProxy::Mode::kStall);
  PinToCore(placement.client);
  const int turns = recorder.Choose(500, 5000);
  for (int i = 0; i < turns; ++i) {
    beside.MeasureOnce(i);
    without.MeasureOnce(i);
  }
  beside.Record(recorder);
  without.Record(recorder);
}

}  // namespace

void AddBridgeBenches(Suite& suite) {
  suite.Add({kChange}, MeasureChange);
  suite.Compare({kChange, kOurs, kToSubscriber}, {kChange, kFloor, kHops});
  suite.Compare({kChange, kOurs, kToSubscriber}, {kChange, kFloor, kPublish});
  for (const Placement& placement : Placements()) {
    suite.Add({kStalled}, [placement](Recorder& recorder) { MeasureStalled(recorder, placement); });
    for (const std::string what : {"get, p99", "set, p99"}) {
      suite.Compare({kStalled, kOurs, what + Beside(placement)}, {kStalled, kOurs, what + Without(placement)},
                    kMaxStalled);
    }
  }
}

}  // namespace tavix::bench
