#ifdef TAVIX_HAS_MQTT

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/programs/bridge/process/BridgeProcess.h"
#include "tests/programs/server/NotifySocket.h"
#include "tests/programs/server/PrometheusText.h"
#include "tests/support/CommandProcess.h"
#include "tests/support/Environment.h"

// What the programs have in common, by the one with MQTT. Nobody is at the broker's address.
namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kSections[] =
    "[mqtt]\nhost=127.0.0.1\nport=1\nroot=fleet\ndevice=cam\n[map net]\npattern=Net/*\ndirection=both\n";
constexpr char kUpSections[] =
    "[mqtt]\nhost=127.0.0.1\nport=1\nroot=fleet\ndevice=cam\n[map net]\npattern=Net/*\ndirection=up\n";
constexpr char kNobody[] = "127.0.0.1:1";

class BridgeProgram : public testing::Test {
 protected:
  Outcome Run(const std::vector<std::string>& arguments) const {
    std::vector<std::string> words{TAVIX_BRIDGE_MQTT_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return RunToEnd(directory.GetPath(), words);
  }

  // With a configuration of that text.
  Outcome RunWith(const std::string& text, const std::vector<std::string>& arguments = {}) const {
    std::vector<std::string> words{"--config", directory.Write("b.conf", text)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return Run(words);
  }

  std::string MakeBridge(const std::string& name) const {
    return "[bridge]\nname=" + name + "\nruntime=" + directory.GetPath() + "\nstate=" + directory.Path("state.db") +
           "\n";
  }

  static void LimitFiles(const DaemonProcess& process, rlim_t size) {
    rlimit limit{};
    ASSERT_EQ(prlimit(process.GetId(), RLIMIT_FSIZE, nullptr, &limit), 0);
    limit.rlim_cur = std::min(size, limit.rlim_max);
    ASSERT_EQ(prlimit(process.GetId(), RLIMIT_FSIZE, &limit, nullptr), 0);
  }

  TemporaryDirectory directory;
};

}  // namespace

TEST_F(BridgeProgram, HasAHelpAndAVersion) {
  EXPECT_THAT(Run({"--help"}).output, StartsWith("Usage: tavix-settings-bridge-mqtt --config FILE"));
  EXPECT_THAT(Run({"--version"}).output, StartsWith("tavix-settings-bridge-mqtt "));
}

TEST_F(BridgeProgram, RefusesACommandLineThatIsWrong) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, {"--config", "a", "b"}, {"--config", ""}, {"--odd"}, {"--log-level", "x"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 64);
    EXPECT_THAT(outcome.errors, HasSubstr("--help"));
  }
}

TEST_F(BridgeProgram, RefusesAConfigurationAndNamesWhatIsWrong) {
  const std::vector<std::pair<std::string, std::string>> wrong = {
      {MakeBridge("a") + kSections + "[odd]\nx=1\n", "[odd]: the section is unknown"},
      {MakeBridge("a") + "odd=1\n" + kSections, "[bridge]odd: the key is unknown"},
      {MakeBridge("a") + "[etcd]\nendpoints=http://127.0.0.1:1\nprefix=p\n[map a]\npattern=A\ndirection=up\n",
       "[mqtt]: the section is missing; tavix-settings-bridge-mqtt mirrors to nothing else"}};
  for (const auto& [text, reason] : wrong) {
    const Outcome outcome = RunWith(text);
    EXPECT_EQ(outcome.status, 78);
    EXPECT_THAT(outcome.errors, HasSubstr(reason));
    EXPECT_EQ(RunWith(text, {"--check"}).status, 78);
  }
  EXPECT_EQ(Run({"--config", directory.Path("gone")}).status, 78);
}

TEST_F(BridgeProgram, ChecksAConfigurationWithoutServing) {
  const Outcome outcome = RunWith(MakeBridge("a") + kSections, {"--check"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "The configuration is right.\n");
  EXPECT_FALSE(directory.Has("state.db"));
}

TEST_F(BridgeProgram, RefusesToRunBesideABridgeThatChangesTheSameGroups) {
  BridgeProcess first(TAVIX_BRIDGE_MQTT_PROGRAM, directory, kNobody, kSections, "first");
  first.Start();
  first.AwaitStatus([](const json&) { return true; });
  const Outcome second = RunWith(MakeBridge("second") + kSections);
  EXPECT_EQ(second.status, 78);
  EXPECT_THAT(second.errors, HasSubstr("The pattern 'Net/*' of the bridge 'second' overlaps the pattern 'Net/*' of the "
                                       "bridge 'first'"));
  const Outcome same = RunWith(MakeBridge("first") + kSections);
  EXPECT_EQ(same.status, 78);
  EXPECT_THAT(same.errors, HasSubstr("A bridge 'first' is running already"));
}

TEST_F(BridgeProgram, RefusesTheStateOfAnotherBridgeThatRuns) {
  BridgeProcess first(TAVIX_BRIDGE_MQTT_PROGRAM, directory, kNobody, kSections, "first");
  first.Start();
  first.AwaitStatus([](const json& now) { return now["daemon"] == "lost" && now["lastErrorTime"] != 0; });
  const Outcome second = RunWith("[bridge]\nname=second\nruntime=" + directory.GetPath() +
                                 "\nstate=" + directory.Path("first.db") + "\n" + kUpSections);
  EXPECT_EQ(second.status, 78);
  EXPECT_THAT(second.errors, HasSubstr("The state '" + directory.Path("first.db") + "' is that of another bridge"));
}

TEST_F(BridgeProgram, EndsWithoutItsRuntimeDirectory) {
  const Outcome outcome = RunWith("[bridge]\nname=a\nruntime=" + directory.Path("gone") + "\n" + kSections);
  EXPECT_EQ(outcome.status, 69);
  EXPECT_THAT(outcome.errors, HasSubstr(directory.Path("gone")));
}

TEST_F(BridgeProgram, AnswersWithoutDaemonAndBroker) {
  BridgeProcess bridge(TAVIX_BRIDGE_MQTT_PROGRAM, directory, kNobody, kSections);
  bridge.Start();
  const json status =
      bridge.AwaitStatus([](const json& now) { return now["daemon"] == "lost" && now["lastErrorTime"] != 0; });
  EXPECT_EQ(status["state"], "not in sync");
  EXPECT_NE(status["link"], "connected");
  EXPECT_EQ(bridge.Ask("diff"), json::parse(R"({"error":"there is no connection to the daemon"})"));
  EXPECT_EQ(bridge.Ask("conflicts"), json::parse(R"({"conflicts":[]})"));
  EXPECT_EQ(bridge.Ask("odd"), json::parse(R"({"error":"the request is unknown"})"));
  EXPECT_EQ(bridge.process->Stop(SIGTERM), 0);
}

TEST_F(BridgeProgram, ServesItsStatusWhileTheDiskIsFull) {
  BridgeProcess bridge(TAVIX_BRIDGE_MQTT_PROGRAM, directory, kNobody, kSections);
  bridge.Start({}, ProcessLimits{std::nullopt, 4096});
  const json status = bridge.AwaitStatus(
      [](const json& now) { return now["lastError"].get<std::string>().find("cam.db") != std::string::npos; });
  EXPECT_EQ(status["state"], "not in sync");
  EXPECT_THAT(bridge.Ask("diff")["error"].get<std::string>(), StartsWith("the state can't be opened: "));
  LimitFiles(*bridge.process, RLIM_INFINITY);
  bridge.AwaitStatus([](const json& now) { return now["daemon"] == "lost" && now["lastError"] != ""; });
  bridge.process->AwaitErrors("The state can be opened again");
}

TEST_F(BridgeProgram, StartsAnewWithADamagedState) {
  directory.Write("cam.db", "this is no database, but long enough to be taken for one");
  BridgeProcess bridge(TAVIX_BRIDGE_MQTT_PROGRAM, directory, kNobody, kSections);
  bridge.Start();
  bridge.process->AwaitErrors("is put aside, and everything synchronized as new");
  EXPECT_TRUE(directory.Has("cam.db.damaged"));
}

TEST_F(BridgeProgram, TellsTheServiceManagerThatItIsReadyAndAlive) {
  NotifySocket manager;
  const ScopedEnvironment socket("NOTIFY_SOCKET", manager.GetPath().c_str());
  const ScopedEnvironment watchdog("WATCHDOG_USEC", "400000");
  BridgeProcess bridge(TAVIX_BRIDGE_MQTT_PROGRAM, directory, kNobody, kSections);
  bridge.Start();
  manager.Await("READY=1");
  for (int i = 0; i < 3; ++i) manager.Await("WATCHDOG=1\nSTATUS=not in sync");
  bridge.process->Signal(SIGTERM);
  manager.Await("STOPPING=1");  // before the end: a queue that nobody reads would be full of what came before
  EXPECT_EQ(bridge.process->AwaitEnd(), 0);
}

TEST_F(BridgeProgram, KeepsAFileOfFigures) {
  BridgeProcess bridge(TAVIX_BRIDGE_MQTT_PROGRAM, directory, kNobody, kSections);
  bridge.Start({"--metrics-file", "figures.prom"});
  bridge.AwaitStatus([this](const json&) { return directory.Has("figures.prom"); });
  const PrometheusText figures(directory.Read("figures.prom"));
  EXPECT_EQ(figures.Get("bridge_in_sync{bridge=\"cam\",engine=\"mqtt\"}"), 0);
  EXPECT_EQ(figures.Get("bridge_sent_total{bridge=\"cam\",engine=\"mqtt\"}"), 0);
  bridge.process->Stop(SIGTERM);
  EXPECT_FALSE(directory.Has("figures.prom"));
}

}  // namespace tavix::test

#endif
