// Changes that are on the disk before their reply is sent.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/SampleSettings.h"
#include "bench/Timing.h"
#include "bench/Turns.h"
#include "tavix/osa/Exception.h"

namespace tavix::bench {

namespace {

constexpr int kGroup = 7;
constexpr char kMerge[] = "merge-durable";
constexpr char kTestAndMerge[] = "tam-durable";

// A user layer of some size.
struct Layer {
  const char* name;
  size_t bytes;
};

const Layer kLayers[] = {{"4 KiB", 4 << 10}, {"300 KiB", 300 << 10}, {"26 MB", 26000000}};

std::string OursVariant(const Layer& layer) {
  return std::string("whole layer, ") + layer.name;
}

std::string FloorVariant(const Layer& layer) {
  return std::string("replace ") + layer.name;
}

void Check(bool succeeded, const char* what) {
  if (!succeeded) throw osa::Exception("Failed to %s: %s", what, std::strerror(errno));
}

// The least that replaces a file so that a power cut leaves the old or the new one.
void ReplaceDurably(const std::string& directory, const std::string& content) {
  const std::string path = directory + "/floor.ini";
  const std::string newPath = path + ".new";
  const Descriptor file(open(newPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), "create a file");
  WriteAll(file, content);
  Check(fdatasync(file.Get()) == 0, "sync a file");
  Check(std::rename(newPath.c_str(), path.c_str()) == 0, "rename a file");
  const Descriptor folder(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), "open a directory");
  Check(fsync(folder.Get()) == 0, "sync a directory");
}

void Measure(Recorder& recorder, const std::string& item, const Layer& layer,
             const std::function<Exchange(int version)>& makeExchange) {
  const std::string& directory = recorder.GetSetup().directory;
  const std::string path = WriteSettingsFile(directory, "user.ini", GroupsInBytes(layer.bytes, kKeysOfGroup));
  const Daemon daemon(recorder.GetSetup().server, {"--user-settings", path});
  const Descriptor connection = daemon.Connect();
  const std::string content(layer.bytes, 'c');
  int version = 0;
  const Contender ours{{item, kOurs, OursVariant(layer)},
                       [&] { return TimedExchange(connection, makeExchange(++version)); }};
  const Contender floor{{item, kFloor, FloorVariant(layer)},
                        [&] { return Timed([&] { ReplaceDurably(directory, content); }); }};
  MeasureInTurnsFor(recorder, {ours, floor}, recorder.Choose(0.15, 0.4), recorder.Choose(2, 3));
}

}  // namespace

void AddDurableBenches(Suite& suite) {
  for (const Layer& layer : kLayers) {
    const auto makeExchange = [](int version) { return ChangeExchange("merge", kGroup, version); };
    suite.Add(
        {kMerge}, [=](Recorder& recorder) { Measure(recorder, kMerge, layer, makeExchange); },
        Suite::Frequency::kFewRounds);
    suite.Compare({kMerge, kOurs, OursVariant(layer)}, {kMerge, kFloor, FloorVariant(layer)});
  }
  const Layer& middle = kLayers[1];
  const auto makeExchange = [](int version) { return TestAndMergeExchange(kGroup, version); };
  suite.Add(
      {kTestAndMerge}, [=](Recorder& recorder) { Measure(recorder, kTestAndMerge, middle, makeExchange); },
      Suite::Frequency::kFewRounds);
  suite.Compare({kTestAndMerge, kOurs, OursVariant(middle)}, {kTestAndMerge, kFloor, FloorVariant(middle)});
}

}  // namespace tavix::bench
