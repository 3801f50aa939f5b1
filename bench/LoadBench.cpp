// What well-behaved clients see of a daemon that others load with what its bounds allow. The loads are those of the
// tests.

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/Daemon.h"
#include "bench/Exchange.h"
#include "bench/SampleSettings.h"
#include "tavix/osa/Exception.h"
#include "tests/support/Loads.h"
#include "tests/support/OtherClients.h"
#include "tests/support/RunningLoad.h"

namespace tavix::bench {

namespace {

using test::CallFigures;
using test::Load;
using test::LoadSize;
using test::OtherClients;
using test::RunningLoad;

constexpr char kItem[] = "others-under-load-";

// Beside the load, or without it.
constexpr char kBeside[] = "";
constexpr char kAlone[] = ", alone";

std::vector<std::string> MakeOptions(const Recorder& recorder, const Load& load, const std::string& settings) {
  std::vector<std::string> options{"--defaults", settings};
  if (!load.isSaved) return options;
  std::string directory = recorder.GetSetup().directory + "/load-XXXXXX";
  if (!mkdtemp(directory.data())) throw osa::Exception("Failed to make '%s'", directory.c_str());
  const auto groups = static_cast<int>(load.userGroups);
  options.insert(options.end(), {"--user-settings", WriteSettingsFile(directory, "user.ini", groups)});
  return options;
}

FigureName NameOf(const Load& load, const char* what, const char* when) {
  return {kItem + load.name, kOurs, std::string(what) + when};
}

void Record(Recorder& recorder, const Load& load, const char* when, const OtherClients& others) {
  if (!others.GetFailures().empty())
    throw osa::Exception("Beside %s: %s", load.name.c_str(), others.GetFailures().c_str());
  const auto add = [&](const char* p99, const char* longest, const CallFigures& figures) {
    recorder.Add(NameOf(load, p99, when), kMilliseconds, figures.p99);
    recorder.Add(NameOf(load, longest, when), kMilliseconds, figures.longest);
  };
  add("get, p99", "get, longest", others.GetGets());
  add("test-and-merge, p99", "test-and-merge, longest", others.GetTestAndMerges());
}

void Wait(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

void Measure(Recorder& recorder, const Load& load, const LoadSize& size) {
  const std::string settings =
      WriteSettingsFile(recorder.GetSetup().directory, "load.ini", static_cast<int>(size.storeGroups));
  const Daemon daemon(recorder.GetSetup().server, MakeOptions(recorder, load, settings));
  const auto port = static_cast<unsigned short>(daemon.GetPort());
  TimedExchange(daemon.Connect(), GetExchange(0));  // it has loaded its store
  const double seconds = recorder.Choose(0.2, 2.0);
  OtherClients alone(port);
  Wait(seconds);
  alone.Stop();
  Record(recorder, load, kAlone, alone);
  OtherClients beside(port);
  RunningLoad running(load, port);
  Wait(seconds);
  beside.Stop();
  Record(recorder, load, kBeside, beside);
}

}  // namespace

void AddLoadBenches(Suite& suite) {
  const LoadSize size;
  for (const Load& load : test::MakeAllLoads(size)) {
    suite.Add(
        {kItem + load.name}, [=](Recorder& recorder) { Measure(recorder, load, size); }, Suite::Frequency::kFullRuns);
    for (const char* what : {"get, p99", "get, longest", "test-and-merge, p99", "test-and-merge, longest"})
      suite.Compare(NameOf(load, what, kBeside), NameOf(load, what, kAlone));
  }
}

}  // namespace tavix::bench
