#include <gtest/gtest.h>

#include "tests/programs/web/Web.h"
#include "tests/support/ScriptedServer.h"

namespace tavix::test {

using nlohmann::json;

namespace {

// A daemon that keeps a history, and the program in front of it.
class History {
 public:
  explicit History(const std::vector<std::string>& arguments = {})
      : daemon(directory, {"--user-settings", "user.ini", "--history", "1048576"}),
        process(std::make_unique<WebProcess>(directory, daemon.AwaitAddresses()[0], arguments)) {}

  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {}) const {
    return HttpConnection(process->GetPort()).Ask(method, "/api/v1" + target, body);
  }

  // Puts a = value on trial, and returns the name of the trial.
  std::string Try(int value) const {
    const HttpReply reply =
        Ask("POST", "/apply", R"({"set": {"a": {"k": )" + std::to_string(value) + R"(}}, "confirm": 600})");
    if (reply.status != 200) throw std::runtime_error(reply.body);
    return Parse(reply)["pending"]["name"];
  }

  std::string ReadValue() const { return Parse(Ask("GET", "/group?name=a"))["keys"]["k"]["value"]; }

  TemporaryDirectory directory;
  Daemon daemon;
  std::unique_ptr<WebProcess> process;
};

}  // namespace

TEST(WebHistory, ShowsWhoChangedWhat) {
  const History web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  web.Ask("PATCH", "/group?name=b", R"({"k": 2})");
  web.Ask("PATCH", "/group?name=a", R"({"k": 3})");
  const json all = Parse(web.Ask("GET", "/history"));
  ASSERT_EQ(all["revisions"].size(), 3U);
  EXPECT_EQ(all["revisions"][0]["revision"], 3);
  EXPECT_EQ(all["revisions"][0]["changes"].dump(), R"([{"group":"a","key":"k","new":"3","old":"1"}])");
  EXPECT_EQ(all["revisions"][0]["by"]["connection"], "tcp");
  EXPECT_EQ(all["revisions"][0]["time"].get<std::string>().size(), std::string("2026-11-22T01:44:15.000Z").size());
  EXPECT_EQ(Parse(web.Ask("GET", "/history?pattern=b"))["revisions"][0]["revision"], 2);
  const json page = Parse(web.Ask("GET", "/history?count=1"));
  ASSERT_EQ(page["revisions"].size(), 1U);
  const std::string next = std::to_string(page["next"].get<int>());
  EXPECT_EQ(Parse(web.Ask("GET", "/history?count=1&before=" + next))["revisions"][0]["revision"], 2);
}

TEST(WebHistory, OfOneGroupTakesItsNameAsItIs) {
  const History web;
  for (const char* name : {"a*b", "axb", "%20a", "", "*"})
    ASSERT_EQ(web.Ask("PATCH", std::string("/group?name=") + name, R"({"k": 1})").status, 200) << name;
  const auto revisionsOf = [&](const std::string& query) {
    std::string numbers;
    const json answer = Parse(web.Ask("GET", "/history?" + query));
    for (const json& revision : answer["revisions"])
      numbers += revision["revision"].dump() + ":" + revision["changes"][0]["group"].get<std::string>() + " ";
    return numbers;
  };
  EXPECT_EQ(revisionsOf("pattern=a*b"), "2:axb 1:a*b ");
  EXPECT_EQ(revisionsOf("group=a*b"), "1:a*b ");
  EXPECT_EQ(revisionsOf("group=axb"), "2:axb ");
  EXPECT_EQ(revisionsOf("group=%20a"), "3: a ");
  EXPECT_EQ(revisionsOf("group="), "4: ");
  EXPECT_EQ(revisionsOf("group=*"), "5:* ");
  EXPECT_EQ(web.Ask("GET", "/history?group=a&pattern=a").status, 400);
  EXPECT_EQ(web.Ask("GET", "/history?group=a%0Ab").status, 422);
}

TEST(WebHistory, RefusesWhatNoLineCanAskFor) {
  const History web;
  for (const char* target : {"?count=0", "?count=257", "?before=x", "?before=-1"})
    EXPECT_EQ(web.Ask("GET", std::string("/history") + target).status, 400) << target;
  for (const char* pattern : {"a%0Ab", "+a", "a+", ""})
    EXPECT_EQ(web.Ask("GET", std::string("/history?pattern=") + pattern).status, 422) << pattern;
}

TEST(WebHistory, IsNotImplementedWithoutOne) {
  Web web;
  EXPECT_EQ(web.Ask("GET", "/history").status, 501);
}

TEST(WebTrials, AreConfirmed) {
  const History web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  const std::string name = web.Try(2);
  const json pending = Parse(web.Ask("GET", "/pending"))["pending"];
  ASSERT_EQ(pending.size(), 1U);
  EXPECT_EQ(pending[0]["name"], name);
  EXPECT_EQ(pending[0]["own"], true);
  EXPECT_LE(pending[0]["seconds"], 600);
  EXPECT_EQ(pending[0]["changes"].dump(), R"([{"group":"a","key":"k","new":"2","old":"1"}])");
  const HttpReply confirmed = web.Ask("POST", "/pending/confirm", R"({"name": ")" + name + R"("})");
  EXPECT_EQ(confirmed.status, 200);
  EXPECT_EQ(Parse(confirmed)["state"], "confirmed");
  EXPECT_EQ(Parse(web.Ask("GET", "/pending"))["pending"].size(), 0U);
  EXPECT_EQ(web.Ask("POST", "/pending/confirm", R"({"name": ")" + name + R"("})").status, 409);
  EXPECT_EQ(web.ReadValue(), "2");
}

TEST(WebTrials, AreTakenBack) {
  const History web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  const std::string name = web.Try(2);
  EXPECT_EQ(web.ReadValue(), "2");
  const HttpReply reverted = web.Ask("DELETE", "/pending?name=" + name);
  EXPECT_EQ(reverted.status, 200);
  EXPECT_EQ(Parse(reverted)["state"], "reverted");
  EXPECT_EQ(web.ReadValue(), "1");
}

TEST(WebTrials, AreConfirmedByAProgramThatWasRestarted) {
  History web;
  const std::string name = web.Try(2);
  web.process.reset();
  web.process = std::make_unique<WebProcess>(web.directory, web.daemon.AwaitAddresses()[0]);
  EXPECT_EQ(Parse(web.Ask("GET", "/pending"))["pending"][0]["own"], true);
  EXPECT_EQ(web.Ask("POST", "/pending/confirm", R"({"name": ")" + name + R"("})").status, 200);
}

TEST(WebTrials, OfOthersAreShownAndLeftAlone) {
  const History web;
  CarryOut(web.daemon.GetPort(), "try 600 t-1\nmerge\n[a]\nk=1\n.\n");
  EXPECT_EQ(Parse(web.Ask("GET", "/pending"))["pending"][0]["own"], false);
  EXPECT_EQ(web.Ask("POST", "/pending/confirm", R"({"name": "t-1"})").status, 403);
  EXPECT_EQ(web.Ask("DELETE", "/pending?name=t-1").status, 403);
  EXPECT_EQ(web.Ask("POST", "/pending/confirm", R"({"name": "web-none"})").status, 404);
  EXPECT_EQ(Parse(web.Ask("GET", "/pending"))["pending"].size(), 1U);
}

TEST(WebTrials, AreNotLeftBehindByAChangeThatIsNotMade) {
  const History web;
  EXPECT_EQ(web.Ask("POST", "/apply", R"({"if": {"a": {"k": 1}}, "set": {"a": {"k": 2}}, "confirm": true})").status,
            412);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 3})").status, 200);
  EXPECT_EQ(Parse(web.Ask("GET", "/pending"))["pending"].size(), 0U);
  const HttpReply same = web.Ask("POST", "/apply", R"({"unset": {"none": ["k"]}, "confirm": true})");
  EXPECT_EQ(same.status, 200);
  EXPECT_TRUE(Parse(same)["pending"].is_null()) << same.body;
}

TEST(WebTrials, TakeSecondsAlone) {
  const History web;
  for (const char* confirm : {"9", "601", "90.5", "\"90\"", "null", "{}", "-90"})
    EXPECT_EQ(web.Ask("POST", "/apply", std::string(R"({"set": {"a": {"k": 1}}, "confirm": )") + confirm + "}").status,
              400)
        << confirm;
  EXPECT_EQ(web.Ask("POST", "/apply", R"({"set": {"a": {"k": 1}}, "volatile": true, "confirm": 90})").status, 400);
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
  const HttpReply none = web.Ask("POST", "/apply", R"({"set": {"a": {"k": 1}}, "confirm": false})");
  EXPECT_FALSE(Parse(none).contains("pending"));
}

TEST(WebTrials, OfOneGroupTakeAwayAndBringBack) {
  const History web;
  ASSERT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 1, "l": 2})").status, 200);
  const HttpReply patch = web.Ask("PATCH", "/group?name=a&confirm=600", R"({"k": null, "m": 3})");
  ASSERT_EQ(patch.status, 200) << patch.body;
  EXPECT_EQ(Parse(patch)["values"].dump(), R"({"l":"2","m":"3"})");
  const std::string name = Parse(patch)["pending"]["name"];
  EXPECT_EQ(web.Ask("DELETE", "/pending?name=" + name).status, 200);
  const json keys = Parse(web.Ask("GET", "/group?name=a"))["keys"];
  EXPECT_EQ(keys["k"]["value"], "1");
  EXPECT_EQ(keys["l"]["value"], "2");
  EXPECT_FALSE(keys.contains("m"));
}

TEST(WebTrials, OfTheLastKeyOfAGroupBringItBack) {
  const History web;
  ASSERT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 1})").status, 200);
  const HttpReply patch = web.Ask("PATCH", "/group?name=a&confirm=600", R"({"k": null})");
  EXPECT_EQ(Parse(web.Ask("GET", "/group?name=a"))["keys"].dump(), "{}");
  EXPECT_EQ(web.Ask("DELETE", "/pending?name=" + Parse(patch)["pending"]["name"].get<std::string>()).status, 200);
  EXPECT_EQ(web.ReadValue(), "1");
}

TEST(WebTrials, OfOneGroupTakeSecondsAndNothingElse) {
  const History web;
  for (const char* confirm : {"9", "601", "true", "", "x"})
    EXPECT_EQ(web.Ask("PATCH", std::string("/group?name=a&confirm=") + confirm, R"({"k": 1})").status, 400) << confirm;
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a&confirm=90&volatile=1", R"({"k": 1})").status, 400);
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
  ASSERT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 1})").status, 200);
  const HttpReply same = web.Ask("PATCH", "/group?name=a&confirm=90", R"({"k": 1})");
  EXPECT_TRUE(Parse(same)["pending"].is_null()) << same.body;
}

TEST(WebTrials, AreNotImplementedWithoutThem) {
  const TemporaryDirectory directory;
  const Daemon daemon(directory);
  const WebProcess process(directory, daemon.AwaitAddresses()[0]);
  HttpConnection connection(process.GetPort());
  EXPECT_EQ(connection.Ask("GET", "/api/v1/pending").status, 501);
  EXPECT_EQ(connection.Ask("POST", "/api/v1/apply", R"({"set": {"a": {"k": 1}}, "confirm": 90})").status, 501);
  EXPECT_EQ(connection.Ask("PATCH", "/api/v1/group?name=a&confirm=90", R"({"k": 1})").status, 501);
  EXPECT_EQ(connection.Ask("GET", "/api/v1/group?name=a").status, 404);
}

}  // namespace tavix::test
