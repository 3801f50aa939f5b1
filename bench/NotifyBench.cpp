// How long it takes until subscribers have the whole notice of a change.

#include <sys/epoll.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/FloorServer.h"
#include "bench/Placement.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "bench/Turns.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 42;
constexpr int kGroups = 100;
constexpr double kLatencyAim = 1.1;  // one subscriber
constexpr double kFanOutAim = 1.2;   // many
constexpr int kPatience = 5000;      // milliseconds

// Reads from many connections until each has had one message.
class Receivers {
 public:
  explicit Receivers(std::vector<osa::Descriptor> connections)
      : _connections(std::move(connections)), _poller(Checked(epoll_create1(EPOLL_CLOEXEC), "make an epoll")) {
    for (size_t i = 0; i < _connections.size(); ++i) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u64 = i;
      epoll_ctl(_poller.Get(), EPOLL_CTL_ADD, _connections[i].Get(), &event);
    }
  }

  void AwaitMessage(const std::string& expected) {
    for (std::string& message : _messages) message.clear();
    for (size_t missing = _connections.size(); missing > 0;) {
      const int ready = epoll_wait(_poller.Get(), _events.data(), static_cast<int>(_events.size()), kPatience);
      if (ready <= 0) throw osa::Exception("No notice within %d ms", kPatience);
      for (int i = 0; i < ready; ++i) missing -= Receive(_events[static_cast<size_t>(i)].data.u64, expected.size());
    }
    for (const std::string& message : _messages) {
      if (message != expected) throw osa::Exception("A notice is wrong");
    }
  }

 private:
  // 1 when the message is complete.
  size_t Receive(size_t which, size_t size) {
    char buffer[4096];
    std::string& message = _messages[which];
    const ssize_t got = read(_connections[which].Get(), buffer, std::min(sizeof buffer, size - message.size()));
    if (got <= 0) throw osa::Exception("A subscriber's connection ended");
    message.append(buffer, static_cast<size_t>(got));
    return message.size() == size ? 1 : 0;
  }

  const std::vector<osa::Descriptor> _connections;
  const osa::Descriptor _poller;
  std::vector<std::string> _messages{_connections.size()};
  std::vector<epoll_event> _events{256};
};

std::string Item(int subscribers) {
  return subscribers == 1 ? "notify-latency" : "fanout-" + std::to_string(subscribers);
}

std::string OursVariant(const Placement& placement) {
  return std::string("raw, ") + placement.name;
}

std::string FloorVariant(const Placement& placement) {
  return std::string("relay, one write each, ") + placement.name;
}

// The empty get proves that the subscription is there.
osa::Descriptor Subscribe(const Daemon& daemon) {
  osa::Descriptor connection = daemon.Connect();
  Exchange exchange = GetNothingExchange();
  exchange.request = "subscribe\n" + GroupName(kGroup) + "\n.\n" + exchange.request;
  TimedExchange(connection, exchange);
  return connection;
}

// From the first byte of the change until the last receiver has the whole message.
double TimedNotice(const osa::Descriptor& sender, Receivers& receivers, const Exchange& exchange) {
  return Timed([&] {
    WriteAll(sender, exchange.request);
    receivers.AwaitMessage(exchange.reply);
  });
}

void Measure(Recorder& recorder, int subscribers, const Placement& placement, const std::string& settings) {
  const Exchange changes[] = {NoticeExchange(kGroup, 1), NoticeExchange(kGroup, 2)};
  const ExchangeSize size{changes[0].request.size(), changes[0].reply.size()};
  const Exchange bareChange{std::string(size.request, 'q'), std::string(size.reply, 'm')};
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  const FloorServer relay = FloorServer::Relay(size, subscribers, placement.server);
  const osa::Descriptor sender = daemon.Connect();
  const osa::Descriptor bareSender = relay.Connect();
  std::vector<osa::Descriptor> connections;
  std::vector<osa::Descriptor> bareConnections;
  for (int i = 0; i < subscribers; ++i) {
    connections.push_back(Subscribe(daemon));
    bareConnections.push_back(relay.Connect());
  }
  Receivers receivers(std::move(connections));
  Receivers bareReceivers(std::move(bareConnections));
  PinToCore(placement.client);

  int next = 0;
  const std::string item = Item(subscribers);
  const Contender ours{{item, kOurs, OursVariant(placement)},
                       [&] { return TimedNotice(sender, receivers, changes[next++ % 2]); }};
  const Contender floor{{item, kFloor, FloorVariant(placement)},
                        [&] { return TimedNotice(bareSender, bareReceivers, bareChange); }};
  MeasureInTurnsFor(recorder, {ours, floor}, recorder.Choose(0.03, 0.15), 20);
}

}  // namespace

void AddNotifyBenches(Suite& suite) {
  for (int subscribers : {1, 10, 100, 1000}) {
    const std::string item = Item(subscribers);
    suite.Add({item}, [=](Recorder& recorder) {
      const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "notify.ini", kGroups);
      for (const Placement& placement : Placements()) Measure(recorder, subscribers, placement, settings);
    });
    for (const Placement& placement : Placements())
      suite.Compare({item, kOurs, OursVariant(placement)}, {item, kFloor, FloorVariant(placement)},
                    subscribers == 1 ? kLatencyAim : kFanOutAim);
  }
}

}  // namespace tavix::bench
