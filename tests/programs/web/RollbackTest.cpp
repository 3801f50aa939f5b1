#include <gtest/gtest.h>

#include "tests/programs/web/Web.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

using nlohmann::json;

namespace {

// A daemon that keeps a history, and the program in front of it.
class Keeping {
 public:
  Keeping()
      : daemon(directory, {"--user-settings", "user.ini", "--history", "1048576", "--checkpoints", "2"}),
        process(directory, daemon.AwaitAddresses()[0]) {}

  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {}) const {
    return HttpConnection(process.GetPort()).Ask(method, "/api/v1" + target, body);
  }

  TemporaryDirectory directory;
  Daemon daemon;
  WebProcess process;
};

// A daemon whose answers a test decides, and the program in front of it.
class Scripted {
 public:
  Scripted() : process(directory, "127.0.0.1:" + std::to_string(server.GetPort())) {}

  // One POST, for which the daemon gets questions up to "request", which it answers so.
  HttpReply Post(const std::string& body, const std::string& request, const std::string& answer) {
    HttpConnection connection(process.GetPort());
    connection.SendRequest("POST", "/api/v1/rollback", body);
    ServerEnd daemon = server.Accept();
    EXPECT_EQ(daemon.ReadThrough(), "info features\nget delimited\n.\n");
    daemon.Send(std::string(kFeatures) + "data\n.\n");
    EXPECT_EQ(daemon.ReadThrough("info features"), request + "info features\n");
    daemon.Send(answer + kFeatures);
    return connection.ReadReply();
  }

 private:
  static constexpr char kFeatures[] = "Features\n--------\nhistory 96 118\nrollback\ntrial\n\n";

  TemporaryDirectory directory;
  ScriptedServer server;
  WebProcess process;
};

}  // namespace

TEST(WebRollback, ShowsWhatItWouldChange) {
  Scripted web;
  const HttpReply reply = web.Post(R"({"to": "@good", "dryRun": true})", "test-rollback @good\n",
                                   "data\n[0000000119]\nis [A]b=1\nwas [A]b=2\n.\n");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(Parse(reply),
            json::parse(R"({"dryRun": true, "changes": [{"group": "A", "key": "b", "old": "2", "new": "1"}]})"));
}

TEST(WebRollback, BringsSettingsBack) {
  const std::string answer = "data\n[0000000119]\nby=unix 0 0 900\nis [A]b=1\nwas [A]c=2\n.\n";
  for (const char* to : {"116", "\"116\""}) {
    Scripted web;
    const HttpReply reply =
        web.Post(std::string(R"({"pattern": "Network/*", "to": )") + to + "}", "rollback 116 Network/*\n", answer);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(Parse(reply)["revision"], 119);
    EXPECT_EQ(Parse(reply)["changes"].size(), 2U);
  }
}

TEST(WebRollback, WithoutADifferenceHasNoRevision) {
  Scripted web;
  const HttpReply reply = web.Post(R"({"to": 118, "pattern": "*"})", "rollback 118\n", "data\n.\n");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "{\"changes\":[],\"revision\":null}\n");
}

TEST(WebRollback, ToWhatIsNotKeptFindsNothing) {
  for (const char* reason : {"revision 3 is not kept\\x3a the oldest is 96", "no checkpoint is named 'x'",
                             "revision 3 is not there\\x3a the last is 2"}) {
    Scripted web;
    const HttpReply reply = web.Post(R"({"to": 3})", "rollback 3\n", "refused\n" + std::string(reason) + "\n");
    EXPECT_EQ(reply.status, 404) << reason;
    EXPECT_EQ(Parse(reply)["outcome"], "nothing written");
  }
}

TEST(WebRollback, ThatTheDaemonRefusesIsNotDone) {
  Scripted web;
  const HttpReply reply = web.Post(R"({"to": 3})", "rollback 3\n", "refused\nout of memory\n");
  EXPECT_EQ(reply.status, 409);
  EXPECT_EQ(Parse(reply)["detail"], "out of memory");
}

TEST(WebRollback, GoesBackToRevisionsAndCheckpoints) {
  const Keeping web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  web.Ask("POST", "/checkpoints", R"({"name": "good"})");
  for (const char* to : {"1", "\"@good\""}) {
    web.Ask("PATCH", "/group?name=a", R"({"k": 2})");
    const std::string begin = std::string(R"({"to": )") + to;
    const json shown = Parse(web.Ask("POST", "/rollback", begin + R"(, "dryRun": true})"));
    EXPECT_EQ(shown["changes"].dump(), R"([{"group":"a","key":"k","new":"1","old":"2"}])") << shown;
    EXPECT_EQ(Parse(web.Ask("GET", "/group?name=a"))["keys"]["k"]["value"], "2");
    const json done = Parse(web.Ask("POST", "/rollback", begin + "}"));
    EXPECT_EQ(done["changes"], shown["changes"]) << done;
    EXPECT_TRUE(done["revision"].is_number()) << done;
    EXPECT_EQ(Parse(web.Ask("GET", "/group?name=a"))["keys"]["k"]["value"], "1");
  }
  EXPECT_EQ(web.Ask("POST", "/rollback", R"({"to": 99})").status, 404);
  EXPECT_EQ(web.Ask("POST", "/rollback", R"({"to": "@none"})").status, 404);
}

TEST(WebRollback, OfOneGroupTakesAStarOfItsNameAsItIs) {
  const Keeping web;
  for (const char* value : {"1", "2"}) web.Ask("PATCH", "/group?name=a*b", std::string(R"({"k": )") + value + "}");
  const json alone = Parse(web.Ask("POST", "/rollback", R"({"to": 1, "group": "a*b"})"));
  EXPECT_EQ(alone["changes"].dump(), R"([{"group":"a*b","key":"k","new":"1","old":"2"}])") << alone;
  EXPECT_EQ(Parse(web.Ask("GET", "/pending"))["pending"].size(), 0U);
  web.Ask("PATCH", "/group?name=axb", R"({"k": 1})");
  for (const char* dryRun : {"true", "false"}) {
    const HttpReply reply =
        web.Ask("POST", "/rollback", std::string(R"({"to": 0, "group": "a*b", "dryRun": )") + dryRun + "}");
    EXPECT_EQ(reply.status, 409) << reply.body;
    EXPECT_EQ(Parse(reply)["group"], "axb");
  }
  EXPECT_EQ(Parse(web.Ask("GET", "/groups?pattern=a*"))["groups"].size(), 2U);
  EXPECT_EQ(web.Ask("POST", "/rollback", R"({"to": 0, "group": "axb"})").status, 200);
  EXPECT_EQ(Parse(web.Ask("GET", "/groups?pattern=a*"))["groups"].size(), 1U);
}

// Somebody else changes another group between the two.
TEST(WebRollback, OfOneGroupPutsBackWhatItTookBesides) {
  const TemporaryDirectory directory;
  const ScriptedServer server;
  const WebProcess process(directory, "127.0.0.1:" + std::to_string(server.GetPort()));
  HttpConnection connection(process.GetPort());
  connection.SendRequest("POST", "/api/v1/rollback", R"({"to": 1, "group": "a*b"})");
  ServerEnd daemon = server.Accept();
  const std::string features = "Features\n--------\nrollback\ntrial\n\n";
  const std::string own = "data\n[0000000009]\nis [a*b]k=1\nwas [a*b]k=2\n";
  daemon.ReadThrough();
  daemon.Send(features + "data\n.\n");
  EXPECT_EQ(daemon.ReadThrough("info features"), "test-rollback 1 a*b\ninfo features\n");
  daemon.Send(own + ".\n" + features);
  const std::string rollback = daemon.ReadThrough("info features");
  EXPECT_EQ(rollback.substr(0, 7), "try 10 ");
  const std::string name = rollback.substr(7, rollback.find('\n') - 7);
  EXPECT_EQ(rollback.substr(8 + name.size()), "rollback 1 a*b\ninfo features\n");
  daemon.Send(own + "is [axb]k=1\n.\n" + features);
  EXPECT_EQ(daemon.ReadThrough("info features"), "revert " + name + "\ninfo features\n");
  daemon.Send("data\n.\n" + features);
  const HttpReply reply = connection.ReadReply();
  EXPECT_EQ(reply.status, 409);
  EXPECT_EQ(Parse(reply)["group"], "axb");
}

TEST(WebRollback, GoesForwardAgainUnlessItIsConfirmed) {
  const Keeping web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  web.Ask("PATCH", "/group?name=a", R"({"k": 2})");
  const json done = Parse(web.Ask("POST", "/rollback", R"({"to": 1, "confirm": 600})"));
  ASSERT_TRUE(done["pending"].is_object()) << done;
  EXPECT_EQ(web.Ask("DELETE", "/pending?name=" + done["pending"]["name"].get<std::string>()).status, 200);
  EXPECT_EQ(Parse(web.Ask("GET", "/group?name=a"))["keys"]["k"]["value"], "2");
}

TEST(WebRollback, RefusesWhatNoLineCanAskFor) {
  const Keeping web;
  for (const char* body : {"{}", R"({"to": true})", R"({"to": null})", R"({"to": 1, "pattern": 1})",
                           R"({"to": 1, "group": null})", R"({"to": 1, "group": "a", "pattern": "a"})",
                           R"({"to": 1, "dryRun": 1})", R"({"to": 1, "confirm": 5})", R"({"to": 1, "more": 1})"})
    EXPECT_EQ(web.Ask("POST", "/rollback", body).status, 400) << body;
  for (const char* body : {R"({"to": "@"})", R"({"to": "@.."})", R"({"to": "x"})", R"({"to": -1})", R"({"to": 1.5})",
                           R"({"to": 1, "pattern": "a\nb"})", R"({"to": 1, "pattern": " a"})"})
    EXPECT_EQ(web.Ask("POST", "/rollback", body).status, 422) << body;
  EXPECT_EQ(web.Ask("POST", "/rollback", R"({"to": 1, "pattern": "Secure/A"})").status, 403);
  EXPECT_EQ(web.Ask("POST", "/rollback", R"({"to": 1, "group": "Secure/A"})").status, 403);
}

TEST(WebRollback, IsNotImplementedWithoutAHistory) {
  Web web;
  for (const char* flag : {"true", "false"})
    EXPECT_EQ(web.Ask("POST", "/rollback", R"({"to": 1, "dryRun": )" + std::string(flag) + "}").status, 501);
  EXPECT_EQ(web.Ask("GET", "/checkpoints").status, 501);
  EXPECT_EQ(web.Ask("POST", "/checkpoints", R"({"name": "a"})").status, 501);
  EXPECT_EQ(web.Ask("DELETE", "/checkpoints?name=a").status, 501);
}

TEST(WebCheckpoints, AreMadeListedAndForgotten) {
  const Keeping web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  const HttpReply made = web.Ask("POST", "/checkpoints", R"({"name": "good"})");
  ASSERT_EQ(made.status, 200) << made.body;
  EXPECT_EQ(Parse(made)["revision"], 1);
  EXPECT_GT(Parse(made)["bytes"], 0);
  EXPECT_EQ(Parse(made)["time"].get<std::string>().size(), std::string("2026-11-22T01:44:15.000Z").size());
  EXPECT_EQ(Parse(web.Ask("GET", "/checkpoints"))["checkpoints"], json::array({Parse(made)}));
  EXPECT_EQ(web.Ask("DELETE", "/checkpoints?name=good").status, 204);
  EXPECT_EQ(Parse(web.Ask("GET", "/checkpoints"))["checkpoints"].size(), 0U);
}

TEST(WebCheckpoints, ThatAreNotThereAreNotForgotten) {
  const Keeping web;
  EXPECT_EQ(web.Ask("DELETE", "/checkpoints?name=none").status, 404);
  EXPECT_EQ(web.Ask("DELETE", "/checkpoints").status, 400);
}

TEST(WebCheckpoints, AreNoMoreThanTheDaemonKeeps) {
  const Keeping web;
  for (const char* body : {R"({"name": "a"})", R"({"name": "b"})", R"({"name": "a"})"})
    EXPECT_EQ(web.Ask("POST", "/checkpoints", body).status, 200) << body;
  EXPECT_EQ(web.Ask("POST", "/checkpoints", R"({"name": "c"})").status, 409);
}

TEST(WebCheckpoints, HavePlainNames) {
  const Keeping web;
  for (const char* body : {"{}", R"({"name": 1})", R"({"name": "a", "more": 1})"})
    EXPECT_EQ(web.Ask("POST", "/checkpoints", body).status, 400) << body;
  for (const char* body : {R"({"name": ""})", R"({"name": ".."})", R"({"name": "a/b"})", R"({"name": "a\nb"})"})
    EXPECT_EQ(web.Ask("POST", "/checkpoints", body).status, 422) << body;
  EXPECT_EQ(web.Ask("DELETE", "/checkpoints?name=a%2Fb").status, 422);
}

}  // namespace tavix::test
