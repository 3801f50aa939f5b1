#include <nlohmann/json.hpp>

#include "tests/programs/cli/process/CommandTest.h"

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

TEST_F(InspectionCommands, StatusTellsAddressLatencyAndSizes) {
  Merge("[Own]\nx=1\n");
  for (const char* command : {"status", "ping"}) {
    const Outcome outcome = Run({command});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.output, testing::MatchesRegex("server         " + _address +
                                                      "\nlatency        [0-9]+\\.[0-9][0-9][0-9] ms\ngroups         5\n"
                                                      "  restricted   1\n  user         1\nsettings       7\n"
                                                      "size           [0-9]+ bytes\nversion        [0-9.]+\n"));
  }
  const json status = json::parse(Run({"status", "--json"}).output);
  EXPECT_EQ(status["server"], _address);
  EXPECT_EQ(status["reachable"], true);
  EXPECT_EQ(status["groups"], 5);
  EXPECT_EQ(status["restricted_groups"], 1);
  EXPECT_EQ(status["user_groups"], 1);
  EXPECT_EQ(status["settings"], 7);
  EXPECT_EQ(status["bytes"], (Ask("*")).size());
  EXPECT_GT(status["latency_ms"], 0);
  EXPECT_TRUE(status["version"].is_string());
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
