#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <exception>
#include <memory>
#include <thread>

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/support/ListeningSocket.h"
#include "tests/support/OwnLoopbackAddress.h"

namespace tavix::test {

namespace {

using nlohmann::json;

class WatchCommand : public CommandTest {
 protected:
  std::unique_ptr<CommandProcess> Start(const Words& words, const Variables& more = {}) const {
    return std::make_unique<CommandProcess>(_directory.GetPath(), WithProgram(words), Environment(more));
  }

  // A watch that is in force: it has read its groups once the first settings are printed.
  std::unique_ptr<CommandProcess> Watch(Words words) const {
    words.insert(words.begin(), {"watch", "--initial"});
    words.push_back("[Marker]");
    Merge("[Marker]\nis=here\n");
    auto process = Start(words);
    process->AwaitOutput("here");
    return process;
  }

  // A watch of so many seconds whose command runs, and waits for a line; none if it has ended before.
  std::unique_ptr<CommandProcess> WatchThatRuns(int seconds) const {
    const std::string length = std::to_string(seconds);
    try {
      auto process = Watch({"Network/*", "--for", length, "--exec", "echo runs; read line <'go on'"});
      const std::string change = "[Network/Eth0]\nx" + length + "=1\n";
      Converse(_daemon.GetPort(), "merge nopersist\n" + change + ".\n");  // no disk takes of the time
      process->AwaitOutput("runs\n");
      return process;
    } catch (const std::exception&) {
      return nullptr;
    }
  }

  static std::string BehindMarker(const CommandProcess& process) {
    const std::string& output = process.GetOutput();
    return output.substr(output.find('\n', output.find("here")) + 1);
  }
};

}  // namespace

TEST_F(WatchCommand, PrintsChangesAsTheyComeUntilInterrupted) {
  const auto watch = Watch({"*"});
  Merge("[Network/Eth0]\ndhcp=false\nmtu=9000\n");
  watch->AwaitOutput("mtu: (not set) -> 9000\n");
  Run({"unset", "[Network/Eth0]mtu"});
  watch->AwaitOutput("mtu: 9000 -> (not set)\n");
  Run({"delete", "Network/Wlan0"});
  Merge("[New]\n");
  watch->AwaitOutput("[New]: group added\n");
  watch->Signal(SIGINT);
  EXPECT_EQ(watch->AwaitEnd(), 130);
  EXPECT_EQ(watch->GetErrors(), "");
  EXPECT_THAT(watch->GetOutput(), testing::EndsWith("[Network/Eth0]dhcp: true -> false\n"
                                                    "[Network/Eth0]mtu: (not set) -> 9000\n"
                                                    "[Network/Eth0]mtu: 9000 -> (not set)\n"
                                                    "[Network/Wlan0]: group removed\n"
                                                    "[Network/Wlan0]enabled: false -> (not set)\n"
                                                    "[New]: group added\n"));
}

TEST_F(WatchCommand, PrintsWhatIsSetFirstWhenToldTo) {
  const auto watch = Watch({"Network/Wlan0", "--count", "1"});
  EXPECT_EQ(watch->GetOutput(), "[Marker]is=here\n[Network/Wlan0]enabled=false\n");
  Merge("[Network/Wlan0]\nenabled=true\n");
  EXPECT_EQ(watch->AwaitEnd(), 0);
}

TEST_F(WatchCommand, WatchesSingleSettingsOnly) {
  const auto watch = Watch({"[Network/Eth0]dhcp", "--count", "1"});
  Merge("[Network/Eth0]\naddress=10.0.0.2\n");
  Merge("[Network/Eth0]\ndhcp=false\n");
  EXPECT_EQ(watch->AwaitEnd(), 0);
  EXPECT_EQ(BehindMarker(*watch), "[Network/Eth0]dhcp=true\n[Network/Eth0]dhcp: true -> false\n");
}

TEST_F(WatchCommand, PrintsAJsonObjectALine) {
  const auto watch = Watch({"Network/*", "--json", "--count", "2"});
  Merge("[Network/Eth0]\ndhcp=false\nname=\xFF\n");
  EXPECT_EQ(watch->AwaitEnd(), 0);
  std::istringstream lines(watch->GetOutput());
  std::vector<json> objects;
  for (std::string line; std::getline(lines, line);) objects.push_back(json::parse(line));
  ASSERT_EQ(objects.size(), 6U);
  for (json& object : objects) {
    EXPECT_THAT(
        object["time"].get<std::string>(),
        testing::MatchesRegex("20[0-9][0-9]-[0-1][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}Z"));
    object.erase("time");
  }
  EXPECT_EQ(objects[0],
            json::parse(R"({"group": "Marker", "key": "is", "old": null, "new": "here", "initial": true})"));
  EXPECT_EQ(objects[4], json::parse(R"({"group": "Network/Eth0", "key": "dhcp", "old": "true", "new": "false"})"));
  EXPECT_EQ(objects[5],
            json::parse(R"({"group": "Network/Eth0", "key": "name", "old": null, "new": {"base64": "/w=="}})"));
}

TEST_F(WatchCommand, EndsAfterSoManySeconds) {
  ExpectRun({"watch", "--for", "0.05"}, 0, "", "");
}

TEST_F(WatchCommand, MergeThatChangesNothingIsNoChange) {
  const auto watch = Watch({"Network/*", "--count", "1"});
  Merge("[Network/Eth0]\ndhcp=true\n");
  Merge("[Network/Eth0]\ndhcp=false\n");
  EXPECT_EQ(watch->AwaitEnd(), 0);
  EXPECT_THAT(watch->GetOutput(), testing::EndsWith("enabled=false\n[Network/Eth0]dhcp: true -> false\n"));
}

TEST_F(WatchCommand, RunsACommandForEachChange) {
  const auto watch = Watch({"Network/*", "--count", "2", "--exec",
                            R"(echo "ran $TAVIX_GROUP $TAVIX_KEY $TAVIX_OLD $TAVIX_NEW"; test "$TAVIX_KEY" = dhcp)"});
  Merge("[Network/Eth0]\ndhcp=false\nmtu=9000\n");
  EXPECT_EQ(watch->AwaitEnd(), 0);
  EXPECT_THAT(watch->GetOutput(), testing::EndsWith("[Network/Eth0]dhcp: true -> false\n"
                                                    "ran Network/Eth0 dhcp true false\n"
                                                    "[Network/Eth0]mtu: (not set) -> 9000\n"
                                                    "ran Network/Eth0 mtu  9000\n"));
  EXPECT_EQ(watch->GetErrors(), "tavix-settings: the command of --exec ended with status 1\n");
}

TEST_F(WatchCommand, EndsWithACommandThatIsInterrupted) {
  const auto watch = Watch({"Network/*", "--exec", "echo runs; kill -INT $$"});
  Merge("[Network/Eth0]\nx=1\ny=1\n");
  EXPECT_EQ(watch->AwaitEnd(), 130);
  EXPECT_THAT(watch->GetOutput(), testing::EndsWith("x: (not set) -> 1\nruns\n"));
  EXPECT_EQ(watch->GetErrors(), "");
}

// On a busy machine a short watch may have ended before the change comes: a longer one has not.
TEST_F(WatchCommand, EndsInTimeWhateverHasComeMeanwhile) {
  ASSERT_EQ(mkfifo(_directory.Path("go on").c_str(), 0600), 0);
  std::unique_ptr<CommandProcess> watch;
  int seconds = 3;
  while (!watch && seconds < 100) watch = WatchThatRuns(seconds *= 2);
  ASSERT_TRUE(watch);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);  // certainly behind its own
  Merge("[Network/Eth0]\nx=2\n");
  std::this_thread::sleep_until(end);
  _directory.Write("go on", "now\n");
  EXPECT_EQ(watch->AwaitEnd(), 0);
  EXPECT_THAT(watch->GetOutput(), testing::EndsWith(": (not set) -> 1\nruns\n"));
}

TEST_F(WatchCommand, SurvivesARestartOfTheDaemonAndMissesNothingThatStillHolds) {
  const std::string defaults = _directory.Write("d.ini", kDefaults);
  Words arguments{"--defaults",     defaults, "--user-settings", "own.ini",
                  "--stop-timeout", "100",    "--listen",        OwnLoopbackAddress() + ":0"};  // a disk may be busy
  DaemonProcess first(TAVIX_SERVER_PROGRAM, _directory.GetPath(), arguments);
  const std::string address = arguments.back() = first.AwaitAddresses().front();
  const auto watch = Start({"watch", "--initial", "Network/*", "--server", address, "--count", "2"});
  watch->AwaitOutput("enabled=false\n");
  EXPECT_EQ(first.Stop(), 0);
  watch->AwaitErrors("trying again\n");
  _directory.Write("own.ini", "[Network/Eth0]\ndhcp=false\n");
  const DaemonProcess second(TAVIX_SERVER_PROGRAM, _directory.GetPath(), arguments);
  watch->AwaitOutput("[Network/Eth0]dhcp: true -> false\n");
  ProtocolClient client(address);
  client.Send("merge\n[Network/Wlan0]\nenabled=true\n.\n");
  EXPECT_EQ(watch->AwaitEnd(), 0);
  EXPECT_THAT(watch->GetOutput(),
              testing::EndsWith("[Network/Eth0]dhcp: true -> false\n[Network/Wlan0]enabled: false -> true\n"));
  EXPECT_EQ(watch->GetErrors(),
            "the connection to " + address + " was lost; trying again\n" + "connected again to " + address + "\n");
}

TEST_F(WatchCommand, WithoutAServerItFailsAtOnce) {
  const ListeningSocket closed(ListeningSocket::kNotListening);
  const Outcome outcome = Run({"watch", "-s", "127.0.0.1:" + std::to_string(closed.GetPort())});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.errors, testing::HasSubstr("Connection refused"));
}

class WaitCommand : public WatchCommand {
 protected:
  // A wait whose subscription is in force: the daemon tells.
  std::unique_ptr<CommandProcess> Wait(const Words& words) const {
    auto process = Start(words);
    ProtocolClient client(_daemon.GetPort());
    std::string all;
    do {
      client.Send("info subscribed\n");
      all = client.ReadUntil("\n\n");
    } while (all == "Subscribed groups\n-----------------\n\n" || all.find("Network") == std::string::npos);
    return process;
  }
};

TEST_F(WaitCommand, EndsAtOnceWhenTheSettingHasTheValue) {
  ExpectRun({"wait", "[Network/Eth0]dhcp=true"}, 0, "", "");
  ExpectRun({"wait", "[Network/Eth0]dhcp=true", "[Network/Wlan0]enabled"}, 0, "", "");
  ExpectRun({"wait", "Network/Eth0", "dhcp", "true"}, 0, "", "");
  ExpectRun({"wait", "Network/Eth0", "dhcp=true"}, 0, "", "");
  ExpectRun({"wait", "Network/Eth0", "dhcp"}, 0, "", "");
}

TEST_F(WaitCommand, EndsOnceTheSettingHasTheValue) {
  const auto wait = Wait({"wait", "[Network/Eth0]dhcp=false"});
  Merge("[Network/Eth0]\nmtu=5\n");
  Merge("[Network/Eth0]\ndhcp=false\n");
  EXPECT_EQ(wait->AwaitEnd(), 0);
}

TEST_F(WaitCommand, WaitsForASettingToGo) {
  const auto wait = Wait({"wait", "--unset", "[Network/Eth0]dhcp"});
  Run({"unset", "[Network/Eth0]dhcp"});
  EXPECT_EQ(wait->AwaitEnd(), 0);
}

TEST_F(WaitCommand, WaitsForAnyChange) {
  const auto wait = Wait({"-v", "wait", "--changed", "Network/Eth0", "dhcp"});
  wait->AwaitErrors("< dhcp=true\n");  // it knows what is to change
  Merge("[Network/Eth0]\ndhcp=maybe\n");
  EXPECT_EQ(wait->AwaitEnd(), 0);
}

TEST_F(WaitCommand, WaitingInVainIsExitStatus1) {
  ExpectRun({"wait", "--timeout", "0.05", "[Network/Eth0]dhcp=false"}, 1, "",
            "tavix-settings: waited in vain: [Network/Eth0]dhcp is 'true'\n");
  ExpectRun({"wait", "--timeout", "0", "[X]y"}, 1, "", "tavix-settings: waited in vain: [X]y is not set\n");
}

TEST_F(WaitCommand, OptionsAskForSettingsWithoutValues) {
  ExpectRun({"wait", "--unset", "[A]b=c"}, 2, "",
            "tavix-settings: --unset and --changed take '[group]key' without a value, not [A]b=c\n");
  ExpectRun({"wait", "A"}, 2, "", "tavix-settings: expected KEY VALUE or KEY=VALUE behind the group 'A'\n");
}

}  // namespace tavix::test
