#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/programs/web/Web.h"
#include "tests/support/RunLength.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

using nlohmann::json;

namespace {

std::string IfMatch(const HttpReply& reply) {
  return "If-Match: " + reply.headers.at("etag") + "\r\n";
}

void Increment(HttpConnection connection, int times) {
  while (times > 0) {
    const HttpReply read = connection.Ask("GET", "/api/v1/group?name=a");
    const int next = std::stoi(Parse(read)["keys"]["count"]["value"].get<std::string>()) + 1;
    const std::string body = R"({"count": )" + std::to_string(next) + "}";
    const int status = connection.Ask("PATCH", "/api/v1/group?name=a", body, IfMatch(read)).status;
    if (status != 200 && status != 412)
      throw std::runtime_error("An increment is answered by " + std::to_string(status));
    if (status == 200) --times;
  }
}

// Sends a request again and again from two clients, each with values of its own. Returns how often it failed.
int CountFailures(const Web& web, const std::string& method, const std::string& target, const std::string& begin,
                  const std::string& end) {
  std::atomic<int> failures{0};
  const auto write = [&](HttpConnection connection, const std::string& value) {
    for (int i = 0; i < 100; ++i) {
      if (connection.Ask(method, "/api/v1" + target, begin + value + end).status != 200) ++failures;
    }
  };
  std::thread other(write, web.Connect(), "1");
  write(web.Connect(), "2");
  other.join();
  return failures;
}

}  // namespace

TEST(WebWriters, LoseNoIncrement) {
  Web web;
  const int times = IsLongRun() ? 5000 : 100;
  web.Ask("PATCH", "/group?name=a", R"({"count": 0})");
  std::thread other(Increment, web.Connect(), times);
  Increment(web.Connect(), times);
  other.join();
  EXPECT_EQ(web.ReadValue("a", "count"), std::to_string(2 * times));
}

// Those that read at the same time are answered together.
TEST(WebWriters, ReadWhatTheyHaveWritten) {
  const Web web;
  std::atomic<int> failures{0};
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 12; ++writer) {
    writers.emplace_back(
        [&, target = "/api/v1/group?name=group" + std::to_string(writer)](HttpConnection connection) {
          for (int i = 0; i < 50; ++i) {
            connection.Ask("PATCH", target, "{\"k\": " + std::to_string(i) + "}");
            const HttpReply read = connection.Ask("GET", target);
            const bool isRight = read.status == 200 && Parse(read)["keys"]["k"]["value"] == std::to_string(i) &&
                                 Parse(read)["origin"] == "user";
            if (!isRight || connection.Ask("GET", target + "x").status != 404) ++failures;
          }
        },
        web.Connect());
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(failures, 0);
}

TEST(WebWriters, AreNotToldOfFailuresThatAreNone) {
  const Web web;
  EXPECT_EQ(CountFailures(web, "PATCH", "/group?name=a&volatile=1", "{\"k\": ", "}"), 0);
  EXPECT_EQ(CountFailures(web, "PATCH", "/group?name=b", "{\"k\": ", "}"), 0);
  EXPECT_EQ(CountFailures(web, "POST", "/apply", "{\"set\": {\"c\": {\"k\": ", "}}}"), 0);
  EXPECT_EQ(CountFailures(web, "POST", "/apply", "{\"volatile\": true, \"set\": {\"d\": {\"k\": ", "}}}"), 0);
  EXPECT_EQ(CountFailures(web, "PATCH", "/log-levels", "{\"Server\": ", "}"), 0);
}

TEST(WebWriters, WhoTakeKeysAwayKeepThoseThatOthersAdd) {
  const Web web;
  const int times = IsLongRun() ? 3000 : 100;
  std::atomic<bool> ends{false};
  std::thread adding([&] {
    ProtocolClient client(web.daemon.GetPort());
    for (int i = 0; i < times; ++i) {
      client.Send("merge\n[a]\nadded" + std::to_string(i) + "=1\n.\n");
      client.AwaitHandled();
    }
    ends = true;
  });
  HttpConnection connection = web.Connect();
  while (!ends) {
    EXPECT_EQ(connection.Ask("PATCH", "/api/v1/group?name=a", R"({"k": 1})").status, 200);
    const int status = connection.Ask("PATCH", "/api/v1/group?name=a", R"({"k": null})").status;
    EXPECT_TRUE(status == 200 || status == 409) << status;  // the others may always be faster
  }
  adding.join();
  const json keys = web.Get("/group?name=a")["keys"];
  for (int i = 0; i < times; ++i) EXPECT_TRUE(keys.contains("added" + std::to_string(i))) << i;
}

TEST(WebWriters, WhoTakeAwayMoreThanTheyReadPutItBack) {
  const TemporaryDirectory directory;
  const ScriptedServer server;
  const WebProcess process(directory, "127.0.0.1:" + std::to_string(server.GetPort()));
  HttpConnection connection(process.GetPort());
  connection.SendRequest("DELETE", "/api/v1/group?name=a", "", "If-Match: *\r\n");
  ServerEnd daemon = server.Accept();
  daemon.ReadThrough();
  daemon.Send("data\n[a]\nk=1\n.\n");
  daemon.ReadThrough();
  daemon.Send("Features\n--------\namend\ntrial\n\ndata\n.\n");
  const std::string change = daemon.ReadThrough("[a]");
  EXPECT_EQ(change.substr(0, 7), "try 10 ");
  const std::string name = change.substr(7, change.find('\n') - 7);
  for (int part = 0; part < 5; ++part) daemon.ReadThrough();  // the five parts of "amend"
  daemon.Send("result\nok\n");
  EXPECT_EQ(daemon.ReadThrough("info features"), "trial " + name + "\ninfo features\n");
  daemon.Send("data\n[" + name + "]\nstate=pending\nseconds=9\nwas [a]added=1\nwas [a]k=1\n.\nFeatures\n--------\n\n");
  EXPECT_EQ(daemon.ReadThrough("info features"), "revert " + name + "\ninfo features\n");
  daemon.Close();
  EXPECT_EQ(connection.ReadReply().status, 502);
}

TEST(WebWriters, WhoComeTooLateAreShownWhatIsThere) {
  const Web web;
  const std::string late = IfMatch(web.Ask("GET", "/group?name=Network/Eth0"));
  CarryOut(web.daemon.GetPort(), "merge\n[Network/Eth0]\nadded=1\n.\n");
  EXPECT_EQ(web.ReadValue("Network/Eth0", "added"), "1");
  for (const char* method : {"PATCH", "PUT", "DELETE"}) {
    const HttpReply reply = web.Ask(method, "/group?name=Network/Eth0", R"({"dhcp": 0})", late);
    EXPECT_EQ(reply.status, 412) << method;
    EXPECT_EQ(Parse(reply)["current"]["values"]["added"], "1") << method;
  }
}

TEST(WebWriters, OfVolatileValuesHearWhatTheDaemonRefuses) {
  const TemporaryDirectory directory;
  const Daemon daemon(directory, {"--max-store", "65536"});
  const WebProcess process(directory, daemon.AwaitAddresses()[0]);
  const std::string body = R"({"k": ")" + std::string(100'000, 'x') + "\"}";
  const HttpReply reply = HttpConnection(process.GetPort()).Ask("PATCH", "/api/v1/group?name=a&volatile=1", body);
  EXPECT_EQ(reply.status, 409) << reply.body;
  EXPECT_NE(reply.body.find("full store"), std::string::npos) << reply.body;
}

TEST(WebWriters, OfVolatileValuesAreStrongerThanRestrictedFiles) {
  const Web web({}, kDefaults, "[Network/Eth0]\naddress=10.0.0.1\n");
  EXPECT_EQ(web.Ask("PATCH", "/group?name=Network/Eth0&volatile=1", R"({"address": "10.0.0.2"})").status, 200);
  EXPECT_EQ(web.ReadValue("Network/Eth0", "address"), "10.0.0.2");
}

}  // namespace tavix::test
