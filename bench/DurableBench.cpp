// Changes that are on the disk before their reply is sent, and what they cost others.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/ClosedLoop.h"
#include "bench/Daemon.h"
#include "bench/DurableDaemon.h"
#include "bench/Exchange.h"
#include "bench/Placement.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "bench/Turns.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 7;
constexpr char kMerge[] = "merge-durable";
constexpr char kMergeWithHistory[] = "merge-durable-history";
constexpr char kRollback[] = "rollback-1000";
constexpr char kTestAndMerge[] = "tam-durable";
constexpr char kStalled[] = "merge-stalled-subscriber";
constexpr char kBeside[] = "raw";
constexpr char kAlone[] = "without it";
constexpr char kHistory[] = "with a history";
constexpr char kNoHistory[] = "without one";
constexpr char kAppend[] = "append 128 B, fdatasync";
constexpr char kLastChange[] = "the last change";
constexpr char kMergeOfSame[] = "merge of the same";
constexpr int kManyKeys = 1000;
constexpr double kMaxOverFloor = 1.2;
constexpr double kMaxWithHistory = 1.05;

const Layer kLayers[] = {{"4 KiB", 4 << 10}, {"300 KiB", 300 << 10}, {"26 MB", 26000000}};
const Layer& kMiddleLayer = kLayers[1];

std::string OursVariant(const Layer& layer) {
  return std::string("journal, ") + layer.name;
}

void Measure(Recorder& recorder, const std::string& item, const Layer& layer,
             const std::function<Exchange(int version)>& makeExchange) {
  const DurableDaemon daemon(recorder, layer);
  const osa::Descriptor connection = daemon.Connect();
  AppendedFile file(recorder.GetSetup().directory);
  int version = 0;
  const Contender ours{{item, kOurs, OursVariant(layer)},
                       [&] { return TimedExchange(connection, makeExchange(++version)); }};
  const Contender floor{{item, kFloor, kAppend}, [&] { return Timed([&] { file.Append(); }); }};
  MeasureInTurnsFor(recorder, {ours, floor}, recorder.Choose(0.15, 0.4), recorder.Choose(20, 200));
}

// The same changes, and the same disk.
void MeasureWithHistory(Recorder& recorder) {
  const DurableDaemon recorded(recorder, kMiddleLayer, "always", {}, "67108864");
  const DurableDaemon unrecorded(recorder, kMiddleLayer);
  const osa::Descriptor withHistory = recorded.Connect();
  const osa::Descriptor without = unrecorded.Connect();
  int version = 0;
  const auto change = [&](const osa::Descriptor& connection) {
    return TimedExchange(connection, ChangeExchange("merge", kGroup, ++version));
  };
  MeasureInTurnsFor(recorder,
                    {{{kMergeWithHistory, kOurs, kHistory}, [&] { return change(withHistory); }},
                     {{kMergeWithHistory, kOurs, kNoHistory}, [&] { return change(without); }}},
                    recorder.Choose(0.15, 0.4), recorder.Choose(20, 200));
}

// Sets 1,000 settings of the layer. All versions are equally long.
Exchange MergeManyExchange(int version) {
  std::string settings;
  for (int group = 0; group < kManyKeys / kKeysOfGroup; ++group) {
    settings += "[" + GroupName(group) + "]\n";
    for (int key = 0; key < kKeysOfGroup; ++key)
      settings += KeyName(key) + "=" + ValueText(group + version % 2 + 1, key) + "\n";
  }
  const Exchange nothing = GetNothingExchange();
  return {"merge\n" + settings + ".\n" + nothing.request, nothing.reply};
}

// Takes the last change back, which may be what it did before. The daemon keeps a history; the last change of it set
// 1,000 settings. All replies are equally long.
class Rollbacks {
 public:
  explicit Rollbacks(osa::Descriptor connection) : _connection(std::move(connection)), _last(FindLastRevision()) {
    WriteAll(_connection, MakeRequest());
    while (_reply.size() < kEnd.size() || _reply.substr(_reply.size() - kEnd.size()) != kEnd)
      _reply += ReadLine(_connection) + "\n";
    ++_last;
  }

  double RollBack() {
    const double start = NowInMicroseconds();
    WriteAll(_connection, MakeRequest());
    ReadAll(_connection, _reply.data(), _reply.size());
    const double end = NowInMicroseconds();
    const bool isRight =
        _reply.substr(0, kBegin.size()) == kBegin && _reply.substr(_reply.size() - kEnd.size()) == kEnd;
    if (!isRight) throw osa::Exception("The reply to a rollback is wrong");
    ++_last;
    return end - start;
  }

 private:
  static inline const std::string kBegin = "data\n[";
  static inline const std::string kEnd = "\n.\n";

  std::string MakeRequest() const { return "rollback " + std::to_string(_last - 1) + "\n"; }

  int FindLastRevision() const {
    int oldest = 0;
    int last = 0;
    WriteAll(_connection, "info features\n");
    for (std::string line = ReadLine(_connection); !line.empty(); line = ReadLine(_connection))
      static_cast<void>(std::sscanf(line.c_str(), "history %d %d", &oldest, &last));
    return last;
  }

  const osa::Descriptor _connection;
  int _last = 0;  // revision
  std::string _reply;
};

// Beside them: the same settings are set by their values, on the same disk.
void MeasureRollbacks(Recorder& recorder) {
  const DurableDaemon daemon(recorder, kMiddleLayer, "always", {}, "67108864");
  const DurableDaemon other(recorder, kMiddleLayer, "always", {}, "67108864");
  TimedExchange(daemon.Connect(), MergeManyExchange(0));
  TimedExchange(daemon.Connect(), MergeManyExchange(1));
  Rollbacks rollbacks(daemon.Connect());
  const osa::Descriptor connection = other.Connect();
  int version = 0;
  MeasureInTurnsFor(
      recorder,
      {{{kRollback, kOurs, kLastChange}, [&] { return rollbacks.RollBack(); }},
       {{kRollback, kOurs, kMergeOfSame}, [&] { return TimedExchange(connection, MergeManyExchange(++version)); }}},
      recorder.Choose(0.15, 0.4), recorder.Choose(5, 20));
}

// No request sets what another one set: all have something to write.
std::vector<Script> MakeMergeScripts(int connections, int groups) {
  std::vector<Script> scripts;
  for (int i = 0; i < connections; ++i)
    scripts.push_back({ChangeExchange("merge", i % groups, 2 * i), ChangeExchange("merge", i % groups, 2 * i + 1)});
  return scripts;
}

std::string ThroughputItem(int connections) {
  return "merge-throughput-" + std::to_string(connections) + "conn";
}

void MeasureThroughput(Recorder& recorder, int count, const char* variant, const char* durability) {
  const DurableDaemon daemon(recorder, kLayers[0], durability);
  std::vector<osa::Descriptor> connections;
  for (int i = 0; i < count; ++i) connections.push_back(daemon.Connect());
  const double perSecond = MeasureClosedLoop(
      connections, MakeMergeScripts(count, GroupsInBytes(kLayers[0].bytes, kKeysOfGroup)), recorder.Choose(0.1, 0.3));
  recorder.Add({ThroughputItem(count), kOurs, variant}, kOperationsPerSecond, perSecond);
}

// Two changes in a row, and a get.
Exchange PairExchange(int group, int version) {
  Exchange pair = ChangeExchange("merge", group, version + 1);
  pair.request.insert(0, NoticeExchange(group, version).request);
  return pair;
}

// A disk that takes long to sync, as flash does.
struct SlowDisk {
  int connections;
  int milliseconds;
};

constexpr SlowDisk kSlowDisks[] = {{1, 2}, {10, 2}, {30, 2}, {10, 5}};

FigureName SlowName(const char* peer, const SlowDisk& disk, const char* what) {
  return {ThroughputItem(disk.connections), peer, std::to_string(disk.milliseconds) + " ms a sync, " + what};
}

// The floor: every connection has its changes in every sync.
void MeasureOnSlowDisk(Recorder& recorder, const SlowDisk& disk) {
  const Environment environment{{"LD_PRELOAD", recorder.GetSetup().slowDisk},
                                {"TAVIX_BENCH_SYNC_MICROSECONDS", std::to_string(1000 * disk.milliseconds)}};
  const DurableDaemon daemon(recorder, kLayers[0], "always", environment);
  const int groups = GroupsInBytes(kLayers[0].bytes, kKeysOfGroup);
  std::vector<osa::Descriptor> connections;
  std::vector<Script> scripts;
  for (int i = 0; i < disk.connections; ++i) {
    connections.push_back(daemon.Connect());
    scripts.push_back({PairExchange(i % groups, 4 * i), PairExchange(i % groups, 4 * i + 2)});
  }
  const double perSecond = MeasureClosedLoop(connections, scripts, recorder.Choose(0.1, 0.3));
  recorder.Add(SlowName(kOurs, disk, "two changes"), kOperationsPerSecond, perSecond);
  // The floor: what this machine makes of the sleep that stands for a sync.
  const double sync = Timed([&] { std::this_thread::sleep_for(std::chrono::milliseconds(disk.milliseconds)); });
  recorder.Add(SlowName(kFloor, disk, "all in each sync"), kOperationsPerSecond, disk.connections * 1e6 / sync);
}

// A subscriber that reads nothing, with 8 MB of notices on their way to it.
osa::Descriptor MakeStalledSubscriber(const Daemon& daemon) {
  constexpr size_t kUnread = 8000000;
  osa::Descriptor stalled = daemon.Connect();
  WriteAll(stalled, "subscribe\n" + GroupName(kGroup) + "\n.\n");
  const osa::Descriptor writer = daemon.Connect();
  const Exchange notice = NoticeExchange(kGroup, 1);
  for (size_t sent = 0; sent < kUnread; sent += notice.reply.size()) WriteAll(writer, notice.request);
  TimedExchange(writer, GetExchange(kGroup + 1));
  return stalled;
}

FigureName StalledName(const char* what, const Placement& placement) {
  return {kStalled, kOurs, std::string(what) + ", " + placement.name};
}

void MeasureStalled(Recorder& recorder, const Placement& placement) {
  const std::string settings = WriteSettingsFile(recorder.GetSetup().directory, "stalled.ini", 2 * kGroup);
  const Daemon daemon(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  const Daemon undisturbed(recorder.GetSetup().server, {"--defaults", settings}, placement.server);
  PinToCore(placement.client);
  const osa::Descriptor stalled = MakeStalledSubscriber(daemon);
  const osa::Descriptor beside = daemon.Connect();
  const osa::Descriptor alone = undisturbed.Connect();
  int version = 0;
  const auto change = [&](const osa::Descriptor& connection) {
    return TimedExchange(connection, ChangeExchange("merge", kGroup, ++version));
  };
  MeasureInTurnsFor(recorder,
                    {{StalledName(kBeside, placement), [&] { return change(beside); }},
                     {StalledName(kAlone, placement), [&] { return change(alone); }}},
                    recorder.Choose(0.05, 0.3), 20);
}

}  // namespace

void AddDurableBenches(Suite& suite) {
  for (const Layer& layer : kLayers) {
    const auto makeExchange = [](int version) { return ChangeExchange("merge", kGroup, version); };
    suite.Add(
        {kMerge}, [=](Recorder& recorder) { Measure(recorder, kMerge, layer, makeExchange); },
        Suite::Frequency::kFewRounds);
    suite.Compare({kMerge, kOurs, OursVariant(layer)}, {kMerge, kFloor, kAppend}, kMaxOverFloor);
  }
  const auto makeExchange = [](int version) { return TestAndMergeExchange(kGroup, version); };
  suite.Add(
      {kTestAndMerge}, [=](Recorder& recorder) { Measure(recorder, kTestAndMerge, kMiddleLayer, makeExchange); },
      Suite::Frequency::kFewRounds);
  suite.Compare({kTestAndMerge, kOurs, OursVariant(kMiddleLayer)}, {kTestAndMerge, kFloor, kAppend}, kMaxOverFloor);
  suite.Add({kMergeWithHistory}, MeasureWithHistory, Suite::Frequency::kFewRounds);
  suite.Compare({kMergeWithHistory, kOurs, kHistory}, {kMergeWithHistory, kOurs, kNoHistory}, kMaxWithHistory);
  suite.Add({kRollback}, MeasureRollbacks, Suite::Frequency::kFewRounds);
  suite.Compare({kRollback, kOurs, kLastChange}, {kRollback, kOurs, kMergeOfSame});
  for (int connections : {1, 10, 100}) {
    suite.Add({ThroughputItem(connections)}, [=](Recorder& recorder) {
      MeasureThroughput(recorder, connections, "durable", "always");
      MeasureThroughput(recorder, connections, "deferred", "250ms");
    });
  }
  for (const SlowDisk& disk : kSlowDisks) {
    suite.Add({ThroughputItem(disk.connections)}, [=](Recorder& recorder) { MeasureOnSlowDisk(recorder, disk); });
    suite.Compare(SlowName(kOurs, disk, "two changes"), SlowName(kFloor, disk, "all in each sync"));
  }
  for (const Placement& placement : Placements()) {
    suite.Add({kStalled}, [=](Recorder& recorder) { MeasureStalled(recorder, placement); });
    suite.Compare(StalledName(kBeside, placement), StalledName(kAlone, placement));
  }
}

}  // namespace tavix::bench
