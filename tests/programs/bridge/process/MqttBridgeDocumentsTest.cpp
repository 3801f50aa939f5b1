#ifdef TAVIX_HAS_MQTT

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "tests/programs/bridge/process/MirroredDaemon.h"

// Documents of all kinds, and brokers that lose or bring back what they keep.
namespace tavix::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

// What a broker keeps lies in a file.
class KeptByABroker : public testing::Test, protected MirroredDaemon {
 protected:
  KeptByABroker() : MirroredDaemon(std::string(kOpenBroker) + "persistence true\npersistence_location ./\n") {}

  std::string GetFile() const { return directory.Path("mosquitto.db"); }

  void BackUp() const {
    std::filesystem::remove(GetFile());
    kill(broker.GetId(), SIGUSR1);
    bridge.AwaitStatus([this](const json&) { return std::filesystem::exists(GetFile()); });
    std::filesystem::copy_file(GetFile(), directory.Path("backup"));
  }

  void RestartFromBackup() {
    broker.Kill();
    std::filesystem::copy_file(directory.Path("backup"), GetFile(), std::filesystem::copy_options::overwrite_existing);
    broker.Restart();
    LinkCentre();
  }
};

}  // namespace

TEST_F(MqttBridge, AppliesTwoThousandDocuments) {
  const int count = 2'000;
  for (int i = 0; i < count; ++i) Want(1, {{"Net/" + std::to_string(i), {{"k", "1"}}}}, "a", "d" + std::to_string(i));
  for (int i = 0; i < count; ++i) AwaitMessage("result/d" + std::to_string(i), "state", "applied");
  EXPECT_EQ(daemon.Read("Net/*").GetGroups().size(), static_cast<size_t>(count));
  bridge.AwaitInSync();
}

TEST_F(MqttBridge, RefusesWhatItCanNotTakeAndGoesOn) {
  const std::pair<std::string, std::string> cases[] = {
      {"text", "the document is not JSON"},
      {R"({"format":1,"epoch":"a","version":1,"groups":{"Net/A":{"k":5}}})", "[Net/A]k: expected a string, null or"},
      {std::string(1024 * 1024 + 1, ' '), "the document has 1048577 bytes; the limit is 1048576"},
      {R"({"format":1,"epoch":"a","version":1,"groups":{"NetSecure":{"k":"1"}}})", "NetSecure"}};
  int number = 0;
  for (const auto& [bytes, reason] : cases) {
    const std::string name = "bad" + std::to_string(++number);
    centre->Put("fleet/cam/desired/" + name, bytes);
    EXPECT_THAT(AwaitMessage("result/" + name, "state", "refused").dump(), HasSubstr(reason));
  }
  centre->Put("fleet/cam/desired/a%00b", "x");
  EXPECT_THAT(AwaitMessage("result/a%00b", "state", "refused").dump(), HasSubstr("the name holds a NUL"));
  Want(1, {{"Net/A", {{"k", "1"}}}});
  daemon.Await("Net/A", "k", "1");
  AwaitMessage("result/doc", "state", "applied");
}

TEST_F(MqttBridge, IgnoresAnOldVersionAndTakesAnotherEpoch) {
  Want(2, {{"Net/A", {{"k", "2"}}}});
  daemon.Await("Net/A", "k", "2");
  Want(1, {{"Net/A", {{"k", "old"}}}});
  Want(1, {{"Net/B", {{"k", "1"}}}}, "a", "later");
  daemon.Await("Net/B", "k", "1");
  EXPECT_EQ(daemon.Get("Net/A", "k"), "2");
  Want(1, {{"Net/A", {{"k", "new"}}}}, "b");
  daemon.Await("Net/A", "k", "new");
}

TEST_F(MqttBridge, SendsOneMessageForAChangeAndNoneForAnEqualValue) {
  daemon.Set("[State/A]\nk=1\n");
  AwaitMessage("reported/State/A", "version", 1);
  daemon.Set("[State/A]\nk=1\n");
  daemon.Set("[State/B]\nk=1\n");
  AwaitMessage("reported/State/B", "version", 1);
  daemon.Set("[State/A]\nk=2\n");
  const json message = AwaitMessage("reported/State/A", "values", {{"k", "2"}});
  EXPECT_EQ(message["version"], 2);
}

TEST_F(MqttBridge, SendsEverythingAgainToABrokerThatLostIt) {
  daemon.Set("[State/A]\nk=1\n");
  Want(1, {{"Net/A", {{"k", "1"}}}});
  AwaitMessage("result/doc", "state", "applied");
  AwaitMessage("reported/State/A", "version", 1);
  bridge.AwaitInSync();
  broker.Restart();
  LinkCentre();
  EXPECT_EQ(AwaitMessage("reported/State/A", "version", 1)["values"], (json{{"k", "1"}}));
  AwaitMessage("result/doc", "state", "applied");
  EXPECT_EQ(daemon.Get("Net/A", "k"), "1");
}

TEST_F(KeptByABroker, IsPutRightBehindABackup) {
  daemon.Set("[State/A]\nk=1\n[State/Gone]\nk=1\n");
  Want(1, {{"Net/A", {{"k", "1"}}}});
  AwaitMessage("reported/State/A", "version", 1);
  AwaitMessage("result/doc", "version", 1);
  bridge.AwaitInSync();
  BackUp();
  daemon.Set("[State/A]\nk=2\n[State/New]\nk=1\n");
  daemon.Remove("State/Gone");
  Want(2, {{"Net/A", {{"k", "2"}}}});
  AwaitMessage("result/doc", "version", 2);
  bridge.AwaitInSync();

  RestartFromBackup();
  AwaitMessage("reported/State/A", "values", {{"k", "2"}});
  AwaitMessage("reported/State/New", "values", {{"k", "1"}});
  AwaitMessage("reported/State/Gone", "gone", true);
  AwaitMessage("result/doc", "version", 2);
  EXPECT_EQ(daemon.Get("Net/A", "k"), "2");
}

}  // namespace tavix::test

#endif
