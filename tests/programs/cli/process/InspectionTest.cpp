#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/CommandTest.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

namespace {

using nlohmann::json;

class InspectionCommands : public CommandTest {
 protected:
  void AddResources() const {
    Merge(
        "[Resources/Bandwidth]\nTotalAvailable=20000\n[Resources/Bandwidth/AllowedConsumers]\n1=Live\n2=Recorder\n"
        "[Resources/Bandwidth/Consumers/Live]\nCurrentlyUsed=5000\nMaxAllowed=16000\n"
        "[Resources/Sessions]\nTotalAvailable=4\n");
  }
};

}  // namespace

TEST_F(InspectionCommands, StatusTellsHowTheServerIs) {
  Merge("[Own]\nx=1\n[Network/Wlan0]\nmode=b\n");
  Outcome outcome;
  // A reply is sent once the disk has the change, and right behind that the server reports it as saved.
  Eventually([&] { return (outcome = Run({"status"})).output.find("saved          yes\n") != std::string::npos; });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "");
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z\n";
  EXPECT_THAT(outcome.output,
              testing::MatchesRegex("server         " + _address + "\nlatency        [0-9]+\\.[0-9]{3} ms\n" +
                                    "version        [0-9.]+\nstarted        " + time +
                                    "clients        [0-9]+\nsubscriptions  0\n"
                                    "groups         5\n  defaults     3\n  user         2\n  restricted   1\n"
                                    "settings       8\n  defaults     5\n  user         2\n  restricted   1\n"
                                    "memory         [0-9]+ bytes\n"
                                    "kept in        .*user.ini\ndurability     always\nsaved          yes\n"
                                    "last save      " +
                                    time + "failed saves   0\nclients cut    0\ncommand        [0-9.]+\n"));
}

TEST_F(InspectionCommands, StatusPrintsJson) {
  Merge("[Own]\nx=1\n");
  const json status = json::parse(Run({"status", "--json"}).output);
  EXPECT_EQ(status["server"], _address);
  EXPECT_EQ(status["reachable"], true);
  EXPECT_GT(status["latency_ms"], 0);
  EXPECT_EQ(status["groups"], 5);
  EXPECT_EQ(status["restricted_groups"], 1);
  EXPECT_EQ(status["user_groups"], 1);
  EXPECT_EQ(status["settings"], 7);
  EXPECT_EQ(status["info"]["kept"], true);
  EXPECT_EQ(status["info"]["durability"], "always");
  EXPECT_TRUE(status["info"]["started"].is_number_unsigned());
  EXPECT_EQ(status["version"], status["info"]["version"]);
}

TEST_F(InspectionCommands, PingAsksForOneGroupThatIsNotThere) {
  EXPECT_THAT(Run({"ping"}).output,
              testing::MatchesRegex("server         " + _address + "\nlatency        [0-9]+\\.[0-9]{3} ms\n"));
  const Outcome outcome = Run({"-v", "ping"});
  const std::string asked = "> get delimited\n> TavixSettings/Ping\n> .\n< data\n< .\n";
  EXPECT_EQ(outcome.errors, asked + asked + asked);
  const json ping = json::parse(Run({"ping", "--json"}).output);
  EXPECT_EQ(ping["server"], _address);
  EXPECT_EQ(ping["reachable"], true);
  EXPECT_GT(ping["latency_ms"], 0);
  EXPECT_EQ(ping.size(), 3U);
}

// A server that reports this of itself.
class StatusCommand : public testing::Test {
 protected:
  // Without the lines of the address and of the time, and of the command's version.
  std::string ShowStatus(const std::string& report) const {
    const ScriptedServer server;
    const ServerThreads threads(server, [&](ServerEnd& peer, size_t) {
      for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(peer.ReadThrough(), "get delimited\nTavixSettings/Ping\n.\n");
        peer.Send("data\n.\n");
      }
      EXPECT_EQ(peer.ReadThrough(), "info server\nget delimited\n.\n");
      peer.Send(report + "data\n.\n");
      peer.ReadToEnd();
    });
    const Outcome outcome = RunToEnd(_directory.GetPath(), {TAVIX_CLI_PROGRAM, "-t", "80", "-s",
                                                            "127.0.0.1:" + std::to_string(server.GetPort()), "status"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
    const size_t begin = outcome.output.find(" ms\n") + 4;
    return outcome.output.substr(begin, outcome.output.find("command ") - begin);
  }

  const TemporaryDirectory _directory;
};

TEST_F(StatusCommand, TellsSinceWhenAndWhyChangesAreNotSaved) {
  EXPECT_EQ(ShowStatus("Server\n------\nfailed-saves=3\nfailure=No space left on device\nkept=true\n"
                       "last-save=1767225599\nsaved=false\nunsaved-since=1767225600\nuser-settings=/a/b.ini\n\n"),
            "kept in        /a/b.ini\nsaved          no, since 2026-01-01T00:00:00Z: No space left on device\n"
            "last save      2025-12-31T23:59:59Z\nfailed saves   3\n");
}

TEST_F(StatusCommand, TellsThatNothingIsKeptAndWhoWasCut) {
  EXPECT_EQ(ShowStatus("Server\n------\nclients=2\ncut.http=1\ncut.line=12\ncut.tls=0\nkept=false\nnew.figure=x\n\n"),
            "clients        2\nkept in        nowhere: changes are gone when the server ends\n"
            "clients cut    13\n  http         1\n  line         12\n");
}

TEST_F(StatusCommand, TellsWhatItCanOfAnOlderServer) {
  EXPECT_EQ(ShowStatus(""), "version        unknown: the server is too old to report on itself\n");
}

TEST_F(StatusCommand, SpellsWhatWouldUpsetATerminal) {
  EXPECT_EQ(ShowStatus("Server\n------\nkept=true\nuser-settings=/a\\x1b[31m\nversion=1\x9b\n\n"),
            "version        1\\x9b\nkept in        /a\\x1b[31m\n");
}

TEST_F(InspectionCommands, SubscribersTellsWhatIsSubscribedTo) {
  ExpectRun({"subscribers"}, 0, "", "");
  ProtocolClient client(_daemon.GetPort());
  client.Send("subscribe\nNetwork/*\nDevice/Identity\n.\n");
  client.AwaitHandled();
  ExpectRun({"subscribers"}, 0, "Device/Identity\nNetwork/*\n", "");
  EXPECT_EQ(json::parse(Run({"subscribers", "--json"}).output), json::parse(R"(["Device/Identity", "Network/*"])"));
}

TEST_F(InspectionCommands, SubscribersTellsOfAnEmptyNameAndThoseBehindIt) {
  ProtocolClient client(_daemon.GetPort());
  client.Send("subscribe\n\ndata\nX*\n.\n");
  client.AwaitHandled();
  ExpectRun({"subscribers"}, 0, "\nX*\ndata\n", "");
  EXPECT_EQ(json::parse(Run({"subscribers", "--json"}).output), json::parse(R"(["", "X*", "data"])"));
}

TEST_F(InspectionCommands, BookingThatWouldNotBeCountedIsRefused) {
  AddResources();
  ExpectRun({"resource", "reserve", "Bandwidth", "5", "-c", "Live/Notes"}, 2, "",
            "tavix-settings: 'Live/Notes' is no consumer: a booking below a '/' is not counted\n");
  ExpectRun({"resource", "release", "Bandwidth", "-c", "Live/Notes"}, 0, "", "done: Live/Notes has 0 of Bandwidth\n");
}

TEST_F(InspectionCommands, ResourcesAreDrawnAsBars) {
  AddResources();
  const std::string all =
      "Bandwidth  [#####...............]    5000 of 20000\nSessions   [....................]       0 of 4\n";
  ExpectRun({"resource", "ls"}, 0, all, "");
  ExpectRun({"resource", "list"}, 0, all, "");
  ExpectRun({"resource", "show", "Bandwidth"}, 0,
            "Bandwidth   [#####...............]    5000 of 20000\n"
            "  Live      [#####...............]    5000 of at most 16000\n"
            "  Recorder  [....................]       0\n",
            "");
  EXPECT_EQ(json::parse(Run({"resource", "show", "Bandwidth", "--json"}).output), json::parse(R"(
      {"resource": "Bandwidth", "total": 20000, "used": 5000, "free": 15000, "consumers": [
          {"consumer": "Live", "used": 5000, "most": 16000}, {"consumer": "Recorder", "used": 0, "most": null}]})"));
  EXPECT_EQ(json::parse(Run({"resource", "ls", "--json"}).output)[1]["resource"], "Sessions");
}

TEST_F(InspectionCommands, ResourcesAreReservedAndReleased) {
  AddResources();
  ExpectRun({"resource", "reserve", "Bandwidth", "8000", "-c", "Recorder"}, 0, "",
            "done: Recorder has 8000 of Bandwidth\n");
  ExpectRun({"resource", "reserve", "--consumer", "Live", "Bandwidth", "20%"}, 0, "",
            "done: Live has 4000 of Bandwidth\n");
  EXPECT_EQ(Ask("Resources/Bandwidth/Consumers/*"),
            "[Resources/Bandwidth/Consumers/Live]\nCurrentlyUsed=4000\nMaxAllowed=16000\n"
            "[Resources/Bandwidth/Consumers/Recorder]\nCurrentlyUsed=8000\n");
  ExpectRun({"resource", "release", "Bandwidth", "-c", "Live"}, 0, "", "done: Live has 0 of Bandwidth\n");
}

TEST_F(InspectionCommands, ReservationThatDoesNotFitIsExitStatus1) {
  AddResources();
  for (const Words& words : std::vector<Words>{{"16000", "-c", "Recorder"},
                                               {"16001", "-c", "Live"},
                                               {"-1", "-c", "Live"},
                                               {"1", "-c", "Stranger"},
                                               {"80%", "-c", "Recorder"}}) {
    Words line{"resource", "reserve", "Bandwidth"};
    line.insert(line.end(), words.begin(), words.end());
    ExpectRun(line, 1, "",
              "tavix-settings: '" + words[0] + "' of Bandwidth does not fit for " + words[2] +
                  "\nhint: 'tavix-settings resource show Bandwidth' tells who has what\n");
  }
}

TEST_F(InspectionCommands, ResourceThatDoesNotExistGetsASuggestion) {
  AddResources();
  ExpectRun({"resource", "show", "bandwith"}, 1, "",
            "tavix-settings: there is no resource 'bandwith'; did you mean 'Bandwidth'?\n");
  ExpectRun({"resource", "reserve", "X", "1", "-c", "Y"}, 1, "", "tavix-settings: there is no resource 'X'\n");
  ExpectRun(
      {"resource", "reserve", "Sessions", "much", "-c", "Y"}, 2, "",
      "tavix-settings: 'much' is no amount: expected a whole number, such as 20, or a share of the total, such as "
      "20%\n");
}

TEST_F(InspectionCommands, LogLevelIsReadAndSetByNameOrNumber) {
  Merge("[Logging/A]\nlog.level=3\n[Logging/Recorder]\nlog.level=6\nlog.syslog=true\n");
  ExpectRun({"log-level"}, 0, "Logging/A         3 error\nLogging/Recorder  6 information\n", "");
  ExpectRun({"log-level", "Logging/A"}, 0, "3 error\n", "");
  ExpectRun({"log-level", "Logging/A", "warning"}, 0, "", "done: Logging/A 4 warning\n");
  EXPECT_EQ(Ask("Logging/A"), "[Logging/A]\nlog.level=4\n");
  ExpectRun({"log-level", "Logging/A", "8"}, 0, "", "done: Logging/A 8 trace\n");
  ExpectRun({"log-level", "Logging/A", "INFO"}, 0, "", "done: Logging/A 6 information\n");
  EXPECT_EQ(Ask("Logging/A"), "[Logging/A]\nlog.level=6\n");
  EXPECT_EQ(json::parse(Run({"log-level", "--json"}).output),
            json::parse(R"({"Logging/A": "6", "Logging/Recorder": "6"})"));
}

TEST_F(InspectionCommands, LogLevelOfAProgramThatTheStoreDoesNotKnowNeedsCreate) {
  Merge("[Logging/Recorder]\nlog.level=6\n");
  ExpectRun(
      {"log-level", "Logging/Recroder", "trace"}, 1, "",
      "tavix-settings: 'Logging/Recroder' is no log group: it has no log.level; did you mean 'Logging/Recorder'?\n"
      "hint: --create sets it for a program that has none yet\n");
  EXPECT_EQ(Ask("Logging/Recroder"), "");
  ExpectRun({"log-level", "Logging/New", "trace", "--create"}, 0, "", "done: Logging/New 8 trace\n");
  EXPECT_EQ(Ask("Logging/New"), "[Logging/New]\nlog.level=8\n");
}

TEST_F(InspectionCommands, LogLevelThatIsNoneIsAUsageError) {
  ExpectRun({"log-level", "Logging/A", "9"}, 2, "",
            "tavix-settings: '9' is no log level\n"
            "hint: error, warning, notice, information, trace, or a number from 0 to 8\n");
  ExpectRun({"log-level", "Network/Eth0"}, 1, "",
            "tavix-settings: 'Network/Eth0' is no log group: it has no log.level\n");
}

}  // namespace tavix::test
