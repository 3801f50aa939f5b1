// The HTTP interface: groups that are read over HTTP, and changes on their way to those that watch.

#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/ClosedLoop.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/FloorServer.h"
#include "bench/Loopback.h"
#include "bench/ProcessMemory.h"
#include "bench/SampleSettings.h"
#include "bench/Samples.h"
#include "bench/Timing.h"
#include "bench/Turns.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 42;
constexpr int kGroups = 100;
constexpr int kManyGroups = 100000;
constexpr int kReaders = 50;
constexpr int kStreams = 50;
constexpr int kSilentStreams = 64;
constexpr int kVersions = 1000;
constexpr double kReadingAim = 0.25;
constexpr char kReading[] = "web-get-50conn";
constexpr char kFollowing[] = "web-changes-50streams";
constexpr char kLatency[] = "web-change-latency";
constexpr char kMemory[] = "web-rss";
constexpr char kEventLoop[] = "one event loop";
constexpr char kRelay[] = "relay";
constexpr char kOverHttp[] = "over HTTP";
constexpr char kSomeGroups[] = "web.ini";

std::string Request(const std::string& target) {
  return "GET /api/v1" + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
}

// A connection whose bytes are looked at.
class Reader {
 public:
  explicit Reader(osa::Descriptor connection) : _connection(std::move(connection)) {}

  const osa::Descriptor& Get() const { return _connection; }

  // All up to the end of that text.
  std::string ReadThrough(const std::string& end) {
    size_t found = 0;
    while ((found = _text.find(end, _begin)) == std::string::npos) Receive();
    return Take(found + end.size() - _begin);
  }

  std::string Read(size_t count) {
    while (_text.size() - _begin < count) Receive();
    return Take(count);
  }

 private:
  // What was taken goes once there is nothing else.
  std::string Take(size_t count) {
    std::string part = _text.substr(_begin, count);
    _begin += count;
    if (_begin == _text.size()) {
      _text.clear();
      _begin = 0;
    }
    return part;
  }

  void Receive() {
    char buffer[65536];
    const ssize_t got = read(_connection.Get(), buffer, sizeof buffer);
    if (got <= 0) throw osa::Exception("A connection over HTTP ended");
    _text.append(buffer, static_cast<size_t>(got));
  }

  osa::Descriptor _connection;
  std::string _text;
  size_t _begin = 0;
};

// A daemon with sample settings, and tavix-settings-web in front of it.
class Web {
 public:
  // settings: a file of the first groups.
  Web(const Recorder& recorder, const std::string& settings)
      : _daemon(recorder.GetSetup().server, {"--defaults", settings}),
        _program({recorder.GetSetup().web, "--listen", "127.0.0.1:0", "--server",
                  "127.0.0.1:" + std::to_string(_daemon.GetPort())},
                 kAnyCore),
        _port(PortOf(_program.ReadLine())) {}

  explicit Web(const Recorder& recorder)
      : Web(recorder, WriteSettingsFile(recorder.GetSetup().directory, kSomeGroups, kGroups)) {}

  const Daemon& GetDaemon() const { return _daemon; }
  double GetMebibytes() const { return ResidentMebibytes(_program.GetId()); }
  osa::Descriptor Connect() const { return ConnectToLoopback(_port); }

  // A whole answer, with its head.
  std::string Ask(const std::string& request) const {
    const std::string length = "Content-Length: ";
    Reader reader(Connect());
    WriteAll(reader.Get(), request);
    std::string answer = reader.ReadThrough("\r\n\r\n");
    const size_t at = answer.find(length);
    if (answer.find(" 200 ") == std::string::npos || at == std::string::npos)
      throw osa::Exception("\"%s\" is answered by \"%s\"", request.c_str(), answer.c_str());
    answer += reader.Read(std::stoul(answer.substr(at + length.size())));
    return answer;
  }

  // A stream that all changes come on from here on.
  Reader Follow() const {
    Reader stream(Connect());
    WriteAll(stream.Get(), Request("/changes"));
    stream.ReadThrough("event: ready\ndata: {}\n\n");
    return stream;
  }

  std::vector<Reader> Follow(int count) const {
    std::vector<Reader> streams;
    for (int i = 0; i < count; ++i) streams.push_back(Follow());
    return streams;
  }

 private:
  Daemon _daemon;
  Program _program;
  int _port;
};

template <class Server>
std::vector<osa::Descriptor> Connect(const Server& server, int count) {
  std::vector<osa::Descriptor> connections;
  for (int i = 0; i < count; ++i) connections.push_back(server.Connect());
  return connections;
}

void MeasureReading(Recorder& recorder) {
  const Web web(recorder);
  const std::string request = Request("/group?name=" + GroupName(kGroup));
  const Exchange exchange{request, web.Ask(request)};
  const FloorServer floor = FloorServer::WithEventLoop({exchange.request.size(), exchange.reply.size()});
  const std::vector<osa::Descriptor> connections = Connect(web, kReaders);
  const std::vector<osa::Descriptor> bare = Connect(floor, kReaders);
  Samples ours;
  Samples least;
  for (int turn = 0; turn < recorder.Choose(1, 3); ++turn) {
    ours.Add(MeasureClosedLoop(connections, exchange, 0.2));
    if (recorder.WantsFloor()) least.Add(MeasureClosedLoop(bare, exchange, 0.2));
  }
  recorder.Add({kReading, kOurs, kOverHttp}, kOperationsPerSecond, ours.GetMedian());
  if (recorder.WantsFloor()) recorder.Add({kReading, kFloor, kEventLoop}, kOperationsPerSecond, least.GetMedian());
}

// One change each of the first groups. All versions are equally long.
std::string ChangesOf(int groups, int version) {
  std::string request = "merge nopersist\n";
  for (int group = 0; group < groups; ++group)
    request += "[" + GroupName(group) + "]\n" + KeyName(0) + "=" + ValueText(group, version % kVersions) + "\n";
  return request + ".\n";
}

// The events of such a change; how many bytes they have.
size_t AwaitEvents(Reader& stream, int groups) {
  size_t bytes = 0;
  for (int group = 0; group < groups; ++group) {
    const std::string event = stream.ReadThrough("\n\n");
    if (event.find("event: change\n") == std::string::npos) throw osa::Exception("A stream sent \"%s\"", event.c_str());
    bytes += event.size();
  }
  return bytes;
}

// Has "change" done, whose number it gets, again and again for "seconds"; how often in a second.
template <class Change>
double RepeatFor(double seconds, Change change) {
  const double start = NowInMicroseconds();
  int number = 0;
  while (NowInMicroseconds() < start + seconds * 1e6) change(++number);
  return number / (NowInMicroseconds() - start) * 1e6;
}

// How many events all streams together get in a second.
void MeasureFollowing(Recorder& recorder) {
  const double seconds = recorder.Choose(0.3, 1.0);
  const double events = static_cast<double>(kStreams) * kGroups;
  const Web web(recorder);
  std::vector<Reader> streams = web.Follow(kStreams);
  const osa::Descriptor sender = web.GetDaemon().Connect();
  size_t bytes = 0;
  const double ours = RepeatFor(seconds, [&](int number) {
    WriteAll(sender, ChangesOf(kGroups, number));
    for (Reader& stream : streams) bytes = AwaitEvents(stream, kGroups);
  });
  recorder.Add({kFollowing, kOurs, kOverHttp}, kOperationsPerSecond, ours * events);
  if (!recorder.WantsFloor()) return;

  const std::string request = ChangesOf(kGroups, 0);
  const FloorServer relay = FloorServer::Relay({request.size(), bytes}, kStreams, kAnyCore);
  const osa::Descriptor bareSender = relay.Connect();
  const std::vector<osa::Descriptor> receivers = Connect(relay, kStreams);
  std::string message(bytes, '\0');
  const double bare = RepeatFor(seconds, [&](int) {
    WriteAll(bareSender, request);
    for (const osa::Descriptor& receiver : receivers) ReadAll(receiver, message.data(), message.size());
  });
  recorder.Add({kFollowing, kFloor, kRelay}, kOperationsPerSecond, bare * events);
}

// From the first byte of a change until a stream has its event.
void MeasureLatency(Recorder& recorder) {
  const Web web(recorder);
  Reader stream = web.Follow();
  const osa::Descriptor sender = web.GetDaemon().Connect();
  const std::string request = ChangesOf(1, kVersions - 1);
  WriteAll(sender, request);
  std::string message(AwaitEvents(stream, 1), '\0');
  const FloorServer relay = FloorServer::Relay({request.size(), message.size()}, 1, kAnyCore);
  const osa::Descriptor bareSender = relay.Connect();
  const osa::Descriptor receiver = relay.Connect();
  const Contender ours{{kLatency, kOurs, kOverHttp}, [&, version = 0]() mutable {
                         const std::string change = ChangesOf(1, ++version);
                         return Timed([&] {
                           WriteAll(sender, change);
                           AwaitEvents(stream, 1);
                         });
                       }};
  const Contender bare{{kLatency, kFloor, kRelay}, [&] {
                         return Timed([&] {
                           WriteAll(bareSender, request);
                           ReadAll(receiver, message.data(), message.size());
                         });
                       }};
  MeasureInTurns(recorder, {ours, bare}, recorder.Choose(4, 10), 100);
}

void MeasureMemory(Recorder& recorder) {
  const Web web(recorder);
  web.Ask(Request("/status"));
  const double idle = web.GetMebibytes();
  recorder.Add({kMemory, kOurs, "idle"}, kMebibytes, idle);
  std::vector<Reader> streams = web.Follow(1);
  const double watched = web.GetMebibytes();
  for (int i = 1; i < kSilentStreams; ++i) streams.push_back(web.Follow());
  recorder.Add({kMemory, kOurs, "63 silent streams more"}, kMebibytes, web.GetMebibytes() - watched);

  const Web large(recorder, WriteSettingsFile(recorder.GetSetup().directory, "web-large.ini", kManyGroups));
  large.Ask(Request("/status"));
  const double before = large.GetMebibytes();
  const Reader stream = large.Follow();
  recorder.Add({kMemory, kOurs, "100,000 groups watched"}, kMebibytes, large.GetMebibytes() - before);
}

}  // namespace

void AddWebBenches(Suite& suite) {
  suite.Add({kReading}, MeasureReading);
  suite.Compare({kReading, kOurs, kOverHttp}, {kReading, kFloor, kEventLoop}, kReadingAim);
  suite.Add({kFollowing}, MeasureFollowing);
  suite.Compare({kFollowing, kOurs, kOverHttp}, {kFollowing, kFloor, kRelay});
  suite.Add({kLatency}, MeasureLatency);
  suite.Compare({kLatency, kOurs, kOverHttp}, {kLatency, kFloor, kRelay});
  suite.Add({kMemory}, MeasureMemory, Suite::Frequency::kFewRounds);
}

}  // namespace tavix::bench
