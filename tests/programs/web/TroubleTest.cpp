#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>

#include <csignal>
#include <limits>
#include <map>
#include <vector>

#include "tests/programs/web/Web.h"
#include "tests/support/ElapsedTime.h"
#include "tests/support/RunLength.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/StoppedProcess.h"

namespace tavix::test {

namespace {

void AwaitReadable(const std::vector<HttpConnection>& connections, int count) {
  std::vector<pollfd> watched;
  for (const HttpConnection& connection : connections) watched.push_back({connection.GetDescriptor(), POLLIN, 0});
  while (poll(watched.data(), watched.size(), -1) < count) {
  }
}

}  // namespace

TEST(WebTrouble, WithoutADaemonIsUnavailable) {
  const TemporaryDirectory directory;
  const ScriptedServer closed(ListeningSocket::kNotListening);
  const WebProcess process(directory, "127.0.0.1:" + std::to_string(closed.GetPort()));
  HttpConnection connection(process.GetPort());
  const HttpReply reply = connection.Ask("GET", "/api/v1/groups");
  EXPECT_EQ(reply.status, 503);
  EXPECT_EQ(reply.headers.at("retry-after"), "1");
  EXPECT_EQ(connection.Ask("GET", "/healthz").status, 200);
  const HttpReply write = connection.Ask("PATCH", "/api/v1/group?name=a", R"({"k": 1})");
  EXPECT_EQ(Parse(write)["outcome"], "nothing written");
}

TEST(WebTrouble, BehindAWriteLeavesItsOutcomeOpen) {
  const TemporaryDirectory directory;
  const ScriptedServer server;
  const WebProcess process(directory, "127.0.0.1:" + std::to_string(server.GetPort()));
  HttpConnection connection(process.GetPort());
  connection.SendRequest("PATCH", "/api/v1/group?name=a&volatile=1", R"({"k": 1})");
  ServerEnd daemon = server.Accept();
  EXPECT_NE(daemon.ReadThrough().find("[a]\nk=1\n"), std::string::npos);
  daemon.Close();
  const HttpReply reply = connection.ReadReply();
  EXPECT_EQ(reply.status, 502);
  EXPECT_EQ(Parse(reply)["outcome"], "unknown");
  EXPECT_FALSE(server.HasWaitingConnection());  // nothing is sent twice
}

TEST(WebTrouble, BehindAReadIsABadGateway) {
  const TemporaryDirectory directory;
  const ScriptedServer server;
  const WebProcess process(directory, "127.0.0.1:" + std::to_string(server.GetPort()));
  HttpConnection connection(process.GetPort());
  connection.SendRequest("GET", "/api/v1/group?name=a");
  ServerEnd daemon = server.Accept();
  EXPECT_EQ(daemon.ReadThrough(), "get delimited\na\n.\n");
  daemon.Close();
  const HttpReply reply = connection.ReadReply();
  EXPECT_EQ(reply.status, 502);
  EXPECT_FALSE(Parse(reply).contains("outcome"));
}

TEST(WebTrouble, OfADaemonThatIsRestartedHarmsNoRequestBehindIt) {
  const TemporaryDirectory directory;
  // The end of a TCP connection may arrive behind the next request.
  const std::string address = "unix:" + directory.Path("s.sock");
  auto daemon = std::make_unique<Daemon>(directory, std::vector<std::string>{"--listen", address});
  daemon->AwaitAddresses(2);
  const std::string token(64, 'a');
  const std::string tokens = directory.Write("tokens", "fleet " + token + " read\n");
  chmod(tokens.c_str(), 0600);
  const WebProcess process(directory, address, {"--token-file", tokens});
  HttpConnection connection(process.GetPort());
  const auto ask = [&] {
    return connection.Ask("GET", "/api/v1/groups", "", "Authorization: Bearer " + token + "\r\n").status;
  };
  for (int i = 0; i < 4; ++i) EXPECT_EQ(ask(), 200);
  daemon.reset();
  const DaemonProcess next(ServerProgram(), directory.GetPath(), {"--listen", address});
  next.AwaitAddresses();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(ask(), 200);
}

TEST(WebTrouble, OfAStoppedDaemonDelaysNobodyElse) {
  Web web({"--timeout", "1"});
  StopProcess(web.daemon.GetId());
  HttpConnection waiting = web.Connect();
  waiting.SendRequest("PATCH", "/api/v1/group?name=a", R"({"k": 1})");
  EXPECT_EQ(web.Connect().Ask("GET", "/healthz").status, 200);
  EXPECT_EQ(web.Connect().Ask("GET", "/").status, 200);
  EXPECT_EQ(web.Ask("GET", "/openapi.json").status, 200);
  HttpConnection stream = web.Connect();
  stream.SendRequest("GET", "/api/v1/changes");
  EXPECT_EQ(stream.ReadReply().status, 200);
  const HttpReply reply = waiting.ReadReply();
  EXPECT_EQ(reply.status, 504);
  EXPECT_EQ(Parse(reply)["outcome"], "nothing written");
  web.daemon.Signal(SIGCONT);
}

TEST(WebTrouble, OfAStoppedDaemonDelaysNobodyForLong) {
  Web web;
  const auto limit = IsLongRun() ? 100 : std::numeric_limits<long>::max();  // milliseconds
  StopProcess(web.daemon.GetId());
  std::vector<HttpConnection> waiting;
  for (int i = 0; i < 60; ++i) {
    waiting.push_back(web.Connect());
    waiting.back().SendRequest("GET", "/api/v1/subscribers");
  }
  for (int i = 0; i < (IsLongRun() ? 1000 : 10); ++i) {
    for (const char* target : {"/healthz", "/", "/app.js"}) {
      const ElapsedTime time([&] { EXPECT_EQ(web.Connect().Ask("GET", target).status, 200); });
      EXPECT_LE(time.undisturbed, limit) << target;
    }
    const ElapsedTime time([&] {
      HttpConnection stream = web.Connect();
      stream.SendRequest("GET", "/api/v1/changes");
      EXPECT_EQ(stream.ReadReply().status, 200);
    });
    EXPECT_LE(time.undisturbed, limit);
  }
  web.daemon.Signal(SIGCONT);
  for (HttpConnection& connection : waiting) EXPECT_EQ(connection.ReadReply().status, 200);
}

TEST(WebTrouble, LetsSixtyFourRequestsWait) {
  Web web;
  StopProcess(web.daemon.GetId());
  std::vector<HttpConnection> connections;
  for (int i = 0; i < 70; ++i) {
    connections.push_back(web.Connect());
    connections.back().SendRequest("GET", "/api/v1/subscribers");
  }
  AwaitReadable(connections, 4);
  web.daemon.Signal(SIGCONT);
  std::map<int, int> statuses;
  for (HttpConnection& connection : connections) ++statuses[connection.ReadReply().status];
  EXPECT_EQ(statuses[200] + statuses[503], 70);
  EXPECT_GE(statuses[200], 64);
  EXPECT_GE(statuses[503], 4);
}

TEST(WebTrouble, EndsWithItsClients) {
  Web web;
  StopProcess(web.daemon.GetId());
  for (int i = 0; i < 30; ++i) web.Connect().SendRequest("GET", "/api/v1/subscribers");
  web.daemon.Signal(SIGCONT);
  EXPECT_EQ(web.Get("/subscribers").size(), 0U);
}

TEST(WebTrouble, OfAnOldDaemonIsNotImplemented) {
  const TemporaryDirectory directory;
  const ScriptedServer server;
  const WebProcess process(directory, "127.0.0.1:" + std::to_string(server.GetPort()));
  HttpConnection connection(process.GetPort());
  connection.SendRequest("POST", "/api/v1/apply", R"({"set": {"a": {"k": 1}}})");
  ServerEnd daemon = server.Accept();
  EXPECT_EQ(daemon.ReadThrough(), "info features\nget delimited\n.\n");
  daemon.Send("data\n.\n");
  EXPECT_EQ(connection.ReadReply().status, 501);
}

}  // namespace tavix::test
