#include <gtest/gtest.h>

#include "tests/programs/web/Web.h"

namespace tavix::test {

using nlohmann::json;

TEST(WebGroups, AreListedWithTheirOrigins) {
  Web web;
  web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false})");
  const json document = web.Get("/groups?pattern=Network/*&pattern=Secure/*");
  ASSERT_EQ(document["groups"].size(), 3U);
  EXPECT_EQ(document["groups"][0]["name"], "Network/Eth0");
  EXPECT_EQ(document["groups"][0]["origin"], "mixed");
  EXPECT_EQ(document["groups"][1]["origin"], "default");
  EXPECT_EQ(document["groups"][2]["origin"], "restricted");
  EXPECT_TRUE(document["next"].is_null());
}

TEST(WebGroups, AreListedPageByPage) {
  Web web;
  std::string names;
  std::string after;
  for (json page; page.is_null() || !page["next"].is_null();) {
    page = web.Get("/groups?limit=2" + after);
    EXPECT_LE(page["groups"].size(), 2U);
    for (const json& group : page["groups"]) names += group["name"].get<std::string>() + " ";
    if (!page["next"].is_null()) after = "&after=" + page["next"].get<std::string>();
  }
  EXPECT_EQ(names, "Device/Identity Network/Eth0 Network/Wlan0 Secure/Wlan0 Server ");
}

TEST(WebGroups, AreATree) {
  Web web;
  const json top = web.Get("/tree");
  EXPECT_EQ(top["parts"][1].dump(), R"({"count":2,"isGroup":false,"name":"Network/"})");
  const json below = web.Get("/tree?prefix=Network/");
  EXPECT_EQ(below["parts"][0].dump(), R"({"count":1,"isGroup":true,"name":"Network/Eth0"})");
}

TEST(WebGroups, ShowValuesOriginsAndDefaults) {
  Web web;
  web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false})");
  const json group = web.Get("/group?name=Network/Eth0");
  EXPECT_EQ(group["keys"]["dhcp"].dump(), R"({"origin":"user","value":"false"})");
  EXPECT_EQ(group["keys"]["address"].dump(), R"({"default":"192.168.0.90","origin":"default","value":"192.168.0.90"})");
}

TEST(WebGroups, AreNotSentAgainToThoseThatHaveThem) {
  Web web;
  HttpConnection connection = web.Connect();
  const HttpReply first = connection.Ask("GET", "/api/v1/group?name=Network/Eth0");
  const std::string known = "If-None-Match: " + first.headers.at("etag") + "\r\n";
  EXPECT_EQ(connection.Ask("GET", "/api/v1/group?name=Network/Eth0", "", known).status, 304);
  const std::string weak = "If-None-Match: \"x\", W/" + first.headers.at("etag") + "\r\n";
  EXPECT_EQ(connection.Ask("GET", "/api/v1/group?name=Network/Eth0", "", weak).status, 304);
  web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false})");
  const HttpReply changed = connection.Ask("GET", "/api/v1/group?name=Network/Eth0", "", known);
  EXPECT_EQ(changed.status, 200);
  EXPECT_NE(changed.headers.at("etag"), first.headers.at("etag"));
}

TEST(WebGroups, ThatAreMissingAreNotFound) {
  Web web;
  const HttpReply reply = web.Ask("GET", "/group?name=Nothing");
  EXPECT_EQ(reply.status, 404);
  EXPECT_EQ(reply.headers.at("content-type"), "application/problem+json");
  EXPECT_EQ(Parse(reply)["group"], "Nothing");
  EXPECT_EQ(web.Ask("GET", "/group?name=*").status, 404);
  EXPECT_EQ(web.Ask("GET", "/group").status, 400);
}

TEST(WebGroups, ThatAreRestrictedAreMasked) {
  Web web;
  EXPECT_TRUE(web.Get("/group?name=Secure/Wlan0")["keys"]["passphrase"]["value"].is_null());
  EXPECT_EQ(web.Ask("GET", "/search?q=example").body.find("example\""), std::string::npos);
  EXPECT_EQ(web.Ask("GET", "/export?pattern=*").body.find("example"), std::string::npos);
  Web open({"--show-restricted"});
  EXPECT_EQ(open.ReadValue("Secure/Wlan0", "passphrase"), "example");
  // The version of a masked group helps nobody to guess its values.
  EXPECT_NE(open.Get("/group?name=Secure/Wlan0")["version"], web.Get("/group?name=Secure/Wlan0")["version"]);
}

TEST(WebGroups, CarryBytesOfAllKindsThereAndBack) {
  Web web;
  const std::string body = R"({"base64:AP8=": {"base64": "AP8K"}, "base64:YmFzZTY0Og==": "a\nb"})";
  // The name "\xFF\0/..", once by its bytes and once as JSON spells it.
  ASSERT_EQ(web.Ask("PATCH", "/group?name=%FF%00/..", body).status, 200);
  const json group = web.Get("/group?name=base64:/wAvLi4=");
  EXPECT_EQ(group["name"], "base64:/wAvLi4=");
  EXPECT_EQ(group["keys"]["base64:AP8="]["value"].dump(), R"({"base64":"AP8K"})");
  EXPECT_EQ(group["keys"]["base64:YmFzZTY0Og=="]["value"], "a\nb");
  ASSERT_EQ(web.Ask("PATCH", "/group?name=", R"({"": ""})").status, 200);
  EXPECT_EQ(web.Get("/group?name=")["keys"][""]["value"], "");
}

TEST(WebGroups, ThatNoLineCanNameAreRefused) {
  Web web;
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a%0Ab", R"({"k": 1})").status, 422);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=.", R"({"k": 1})").status, 422);
  EXPECT_EQ(web.Ask("GET", "/groups?pattern=a%0Ab").status, 422);
}

TEST(WebGroups, AreFoundByWhatTheyHold) {
  Web web;
  const json found = web.Get("/search?q=eth0");
  EXPECT_EQ(found["hits"].size(), 0U);
  const json hits = web.Get("/search?q=eth0&ignoreCase=1")["hits"];
  ASSERT_EQ(hits.size(), 1U);
  EXPECT_EQ(hits[0].dump(), R"({"group":"Network/Eth0","in":"groups"})");
  const json values = web.Get("/search?q=Camera&in=values")["hits"];
  ASSERT_EQ(values.size(), 1U);
  EXPECT_EQ(values[0]["key"], "name");
}

TEST(WebGroups, AreFoundInPartsOfFiveHundred) {
  std::string defaults = "[Many]\n";
  for (int i = 1000; i < 2200; ++i) defaults += "k" + std::to_string(i) + "=x\n";
  Web web({}, defaults);
  size_t count = 0;
  std::string next;
  for (json page; page.is_null() || !page["next"].is_null();) {
    page = web.Get("/search?q=k1&in=keys" + next);
    count += page["hits"].size();
    if (!page["next"].is_null())
      next = "&after=" + page["next"]["after"].get<std::string>() +
             "&afterKey=" + page["next"]["afterKey"].get<std::string>();
  }
  EXPECT_EQ(count, 1000U);
}

}  // namespace tavix::test
