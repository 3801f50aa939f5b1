#include <gtest/gtest.h>

#include "tests/programs/web/Web.h"

namespace tavix::test {

using nlohmann::json;

namespace {

std::string IfMatch(const HttpReply& reply) {
  return "If-Match: " + reply.headers.at("etag") + "\r\n";
}

}  // namespace

TEST(WebWrites, PatchSetsAndTakesAway) {
  Web web;
  const HttpReply reply = web.Ask("PATCH", "/group?name=Network/Eth0", R"({"mtu": 1500, "dhcp": null})");
  ASSERT_EQ(reply.status, 200);
  EXPECT_EQ(Parse(reply)["values"].dump(), R"({"address":"192.168.0.90","mtu":"1500"})");
  EXPECT_EQ(Parse(reply)["version"], web.Get("/group?name=Network/Eth0")["version"]);
}

TEST(WebWrites, TakeNumbersAndTruthValuesAsTheyAreWritten) {
  Web web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1.50, "l": true, "m": 12345678901234567890})");
  EXPECT_EQ(web.Get("/group?name=a")["keys"]["k"]["value"], "1.50");
  EXPECT_EQ(web.Get("/group?name=a")["keys"]["l"]["value"], "true");
  EXPECT_EQ(web.Get("/group?name=a")["keys"]["m"]["value"], "12345678901234567890");
}

TEST(WebWrites, ThatAreVolatileAreNotSaved) {
  Web web;
  ASSERT_EQ(web.Ask("PATCH", "/group?name=a&volatile=1", R"({"k": 1})").status, 200);
  EXPECT_EQ(web.ReadValue("a", "k"), "1");
  EXPECT_EQ(web.Ask("GET", "/export?user=1").body.find("[a]"), std::string::npos);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a&volatile=1", R"({"k": null})").status, 400);
}

TEST(WebWrites, HoldOnlyForTheVersionThatTheyName) {
  Web web;
  const std::string ifMatch = IfMatch(web.Ask("GET", "/group?name=Network/Eth0"));
  ASSERT_EQ(web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false})", ifMatch).status, 200);
  const HttpReply late = web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": "x"})", ifMatch);
  ASSERT_EQ(late.status, 412);
  EXPECT_EQ(Parse(late)["current"]["values"]["dhcp"], "false");
  EXPECT_EQ(web.Ask("PUT", "/group?name=Network/Eth0", R"({})", ifMatch).status, 412);
  EXPECT_EQ(web.Ask("DELETE", "/group?name=Network/Eth0", "", ifMatch).status, 412);
  EXPECT_EQ(web.ReadValue("Network/Eth0", "dhcp"), "false");
}

TEST(WebWrites, ReplaceAndDeleteUnderAConditionAlone) {
  Web web;
  EXPECT_EQ(web.Ask("PUT", "/group?name=a", R"({"k": 1})").status, 428);
  EXPECT_EQ(web.Ask("DELETE", "/group?name=Network/Eth0").status, 428);
  ASSERT_EQ(web.Ask("PUT", "/group?name=a", R"({"k": 1})", "If-None-Match: *\r\n").status, 201);
  EXPECT_EQ(web.Ask("PUT", "/group?name=a", R"({"k": 2})", "If-None-Match: *\r\n").status, 412);
  const HttpReply put = web.Ask("PUT", "/group?name=a", R"({"l": 1})", IfMatch(web.Ask("GET", "/group?name=a")));
  ASSERT_EQ(put.status, 200);
  EXPECT_EQ(Parse(put)["values"].dump(), R"({"l":"1"})");
  EXPECT_EQ(web.Ask("DELETE", "/group?name=a", "", IfMatch(put)).status, 204);
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
}

TEST(WebWrites, ThatTakeAwayFromNothingMakeNothing) {
  Web web;
  for (const char* body : {"{}", R"({"k": null})"})
    EXPECT_EQ(web.Ask("PATCH", "/group?name=a", body).status, 404) << body;
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=Network/Eth0", R"({"nothing": null})").status, 200);
}

TEST(WebWrites, ThatDoNotShowAreNoSuccess) {
  const Web web({}, kDefaults, "[Network/Eth0]\naddress=10.0.0.1\n");
  const std::string body = R"({"address": "10.0.0.2"})";
  const HttpReply patch = web.Ask("PATCH", "/group?name=Network/Eth0", body);
  EXPECT_EQ(patch.status, 409) << patch.body;
  EXPECT_EQ(Parse(patch)["current"]["values"]["address"], "10.0.0.1");
  EXPECT_EQ(web.Ask("DELETE", "/group?name=Network/Eth0", "", "If-Match: *\r\n").status, 409);
  for (const char* condition : {"", R"("if": {"Network/Eth0": {"address": "10.0.0.1"}}, )"}) {
    const HttpReply apply =
        web.Ask("POST", "/apply", std::string("{") + condition + R"("set": {"Network/Eth0": )" + body + "}}");
    EXPECT_EQ(apply.status, 409) << apply.body;
    EXPECT_EQ(Parse(apply)["key"], "address");
  }
  EXPECT_EQ(web.ReadValue("Network/Eth0", "address"), "10.0.0.1");
}

TEST(WebWrites, LeaveAGroupWithoutKeys) {
  Web web;
  ASSERT_EQ(web.Ask("PUT", "/group?name=Network/Wlan0", "{}", "If-Match: *\r\n").status, 200);
  EXPECT_EQ(web.Get("/group?name=Network/Wlan0")["keys"].dump(), "{}");
}

TEST(WebWrites, OfRestrictedGroupsAreRefused) {
  Web web;
  for (const char* method : {"PATCH", "PUT", "DELETE"})
    EXPECT_EQ(web.Ask(method, "/group?name=Secure/Wlan0", "{}", "If-Match: *\r\n").status, 403) << method;
  EXPECT_EQ(web.Ask("POST", "/apply", R"({"set": {"a": {"k": 1}, "Secure/Wlan0": {"k": 1}}})").status, 403);
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
}

TEST(WebWrites, RefuseBodiesThatAreNone) {
  Web web;
  for (const char* body :
       {"", "[]", "{", R"({"k": 1, "k": 2})", R"({"k": {}})", R"({"k": [1]})", R"({"k": {"base64": "!"}})"})
    EXPECT_EQ(web.Ask("PATCH", "/group?name=a", body).status, 400) << body;
  const HttpReply reply = web.Ask("PATCH", "/group?name=a", "{\n\"k\": 1,\n\"k\": 2}");
  EXPECT_EQ(Parse(reply)["line"], 3);
}

TEST(WebWrites, ApplyChangesManyGroupsAtOnceOrNone) {
  Web web;
  const HttpReply failed =
      web.Ask("POST", "/apply", R"({"if": {"Network/Eth0": {"dhcp": false}}, "set": {"a": {"k": 1}}})");
  ASSERT_EQ(failed.status, 412);
  EXPECT_EQ(Parse(failed)["current"][0]["values"]["dhcp"], "true");
  EXPECT_EQ(web.Ask("POST", "/apply", R"({"absent": {"Network/Eth0": ["dhcp"]}, "set": {"a": {"k": 1}}})").status, 412);
  const HttpReply done = web.Ask("POST", "/apply",
                                 R"({"if": {"Network/Eth0": {"dhcp": true}}, "absent": {"a": []},
                                     "set": {"a": {"k": 1}, "b": {"k": 2}}})");
  ASSERT_EQ(done.status, 200);
  EXPECT_EQ(Parse(done)["groups"][1]["values"].dump(), R"({"k":"2"})");
  EXPECT_EQ(web.ReadValue("a", "k"), "1");
}

TEST(WebWrites, ApplyShowsDefaultsAgain) {
  Web web;
  web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false})");
  ASSERT_EQ(web.Ask("POST", "/apply", R"({"unset": {"Network/Eth0": ["dhcp"]}})").status, 200);
  EXPECT_EQ(web.ReadValue("Network/Eth0", "dhcp"), "true");
}

TEST(WebWrites, ApplyChangesNothingOnTrial) {
  Web web;
  const HttpReply reply = web.Ask("POST", "/apply", R"({"dryRun": true, "set": {"Network/Eth0": {"dhcp": 0}}})");
  ASSERT_EQ(reply.status, 200);
  EXPECT_EQ(Parse(reply)["changes"][0].dump(), R"({"group":"Network/Eth0","key":"dhcp","new":"0","old":"true"})");
  EXPECT_EQ(web.ReadValue("Network/Eth0", "dhcp"), "true");
}

TEST(WebWrites, ApplyRefusesWhatItDoesNotKnow) {
  Web web;
  for (const char* body : {R"({"sett": {}})", R"({"set": []})", R"({"set": {"a": 1}})", R"({"unset": {"a": {}}})",
                           R"({"set": {"a": {"k": null}}})", R"({"volatile": 1})"})
    EXPECT_EQ(web.Ask("POST", "/apply", body).status, 400) << body;
}

TEST(WebWrites, ResetOfADoubtfulTrialChangesNothing) {
  Web web;
  web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false})");
  for (const char* flag : {"1", "\"yes\"", "\"TRUE\"", "\"true\"", "null", "[]"})
    EXPECT_EQ(web.Ask("POST", "/reset", std::string(R"({"groups": ["*"], "dryRun": )") + flag + "}").status, 400)
        << flag;
  EXPECT_EQ(web.ReadValue("Network/Eth0", "dhcp"), "false");
}

TEST(WebWrites, CompareNoValuesThatAreMasked) {
  for (const char* condition : {R"("if": {"Secure/Wlan0": {"passphrase": "example"}})", R"("if": {"Secure/Wlan0": {}})",
                                R"("absent": {"Secure/Wlan0": ["passphrase"]})"}) {
    const Web web;
    for (const char* dryRun : {"true", "false"})
      EXPECT_EQ(web.Ask("POST", "/apply", "{" + std::string(condition) + R"(, "dryRun": )" + dryRun + "}").status, 403)
          << condition;
    const Web open({"--show-restricted"});
    EXPECT_NE(open.Ask("POST", "/apply", "{" + std::string(condition) + "}").status, 403) << condition;
  }
}

TEST(WebWrites, ApplySetsAKeyThatIsCalledBase64) {
  Web web;
  ASSERT_EQ(web.Ask("POST", "/apply", R"({"set": {"a": {"base64": "QQ=="}, "b": {"k": {"base64": "QQ=="}}}})").status,
            200);
  EXPECT_EQ(web.ReadValue("a", "base64"), "QQ==");
  EXPECT_EQ(web.ReadValue("b", "k"), "A");
}

TEST(WebWrites, ResetBringsDefaultsBack) {
  Web web;
  web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false, "mtu": 1500})");
  EXPECT_EQ(web.Get("/diff")["changes"].size(), 2U);
  const HttpReply preview = web.Ask("POST", "/reset", R"({"groups": ["Network/*"], "dryRun": true})");
  EXPECT_EQ(Parse(preview)["groups"].dump(), R"(["Network/Eth0"])");
  const HttpReply reply = web.Ask("POST", "/reset", R"({"groups": ["Network/*"]})");
  ASSERT_EQ(reply.status, 200);
  EXPECT_EQ(Parse(reply)["changes"].size(), 2U);
  EXPECT_EQ(web.ReadValue("Network/Eth0", "dhcp"), "true");
  EXPECT_EQ(web.Get("/diff")["changes"].size(), 0U);
}

}  // namespace tavix::test
