#include <gtest/gtest.h>

#include "tests/programs/web/Web.h"

namespace tavix::test {

using nlohmann::json;

TEST(WebBackup, IsWhatTheCommandExports) {
  Web web;
  const HttpReply ini = web.Ask("GET", "/export?pattern=Network/*");
  EXPECT_EQ(ini.body,
            "# This backup covers: Network/*\n[Network/Eth0]\naddress=192.168.0.90\ndhcp=true\n[Network/Wlan0]\n"
            "enabled=false\n# End of backup\n");
  EXPECT_EQ(ini.headers.at("content-type"), "text/plain; charset=utf-8");
  const json document = web.Get("/export?format=json&pattern=Network/Wlan0");
  EXPECT_EQ(document.dump(), R"({"Network/Wlan0":{"enabled":"false"}})");
}

TEST(WebBackup, IsBroughtBack) {
  Web web;
  const std::string backup = web.Ask("GET", "/export").body;
  web.Ask("PATCH", "/group?name=Network/Eth0", R"({"dhcp": false})");
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  const HttpReply preview = web.Ask("POST", "/import?mode=replace&dryRun=1", backup, "Content-Type: text/plain\r\n");
  ASSERT_EQ(preview.status, 200) << preview.body;
  EXPECT_EQ(Parse(preview)["gone"]["deleted"].dump(), R"(["a"])");
  EXPECT_EQ(web.ReadValue("a", "k"), "1");
  const HttpReply merged = web.Ask("POST", "/import", backup, "Content-Type: text/plain\r\n");
  EXPECT_EQ(Parse(merged)["differences"], 1);
  EXPECT_EQ(web.ReadValue("Network/Eth0", "dhcp"), "true");
  EXPECT_EQ(web.ReadValue("a", "k"), "1");
  ASSERT_EQ(web.Ask("POST", "/import?mode=replace", backup, "Content-Type: text/plain\r\n").status, 200);
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
}

TEST(WebBackup, OfTheUserLayerIsBroughtBack) {
  Web web;
  web.Ask("PATCH", "/group?name=a", R"({"k": 1})");
  const std::string backup = web.Ask("GET", "/export?user=1").body;
  web.Ask("PATCH", "/group?name=b", R"({"k": 1})");
  const HttpReply reply = web.Ask("POST", "/import?mode=replace-user", backup, "Content-Type: text/plain\r\n");
  ASSERT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(web.Ask("GET", "/group?name=b").status, 404);
  EXPECT_EQ(web.ReadValue("a", "k"), "1");
}

TEST(WebBackup, ThatIsWrongIsRefusedWithTheLine) {
  Web web;
  const auto import = [&](const std::string& parameters, const std::string& body) {
    return web.Ask("POST", "/import" + parameters, body, "Content-Type: text/plain\r\n");
  };
  const HttpReply ini = import("", "[a]\nk=1\nnonsense\n");
  EXPECT_EQ(ini.status, 422);
  EXPECT_EQ(Parse(ini)["line"], 3);
  const HttpReply document = import("", "{\n\"a\": 1}");
  EXPECT_EQ(document.status, 422);
  EXPECT_EQ(Parse(document)["line"], 2);
  EXPECT_EQ(import("?mode=replace", "# This backup covers all groups\n[a]\nk=1\n").status, 422);
  EXPECT_EQ(import("?mode=replace", "{\"a\": {}}").status, 422);
  EXPECT_EQ(import("?mode=other", "").status, 400);
  EXPECT_EQ(import("", "[Secure/Wlan0]\npassphrase=mine\n").status, 403);
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
}

TEST(WebBackup, ComparesNoValuesThatAreMasked) {
  Web web;
  for (const char* passphrase : {"example", "guess"}) {
    const std::string body = std::string("[Secure/Wlan0]\npassphrase=") + passphrase + "\n";
    for (const char* parameters : {"", "?dryRun=1"})
      EXPECT_EQ(web.Ask("POST", std::string("/import") + parameters, body, "Content-Type: text/plain\r\n").status, 403);
  }
}

TEST(WebReports, ShowNoValuesThatAreMasked) {
  const std::string restricted = "[Secure/Log]\nlog.level=3\n[Resources/Secure]\nTotalAvailable=7\n";
  const Web web({}, kDefaults, restricted);
  EXPECT_EQ(web.Get("/log-levels").dump(), R"({"Secure/Log":null,"Server":"5"})");
  EXPECT_EQ(web.Get("/resources").dump(), "[]");
  const Web open({"--show-restricted"}, kDefaults, restricted);
  EXPECT_EQ(open.Get("/log-levels")["Secure/Log"], "3");
  EXPECT_EQ(open.Get("/resources").size(), 1U);
}

TEST(WebReports, SayWhatTheCommandSays) {
  Web web;
  const json status = web.Get("/status");
  EXPECT_EQ(status["reachable"], true);
  EXPECT_EQ(status["groups"], 5);
  EXPECT_EQ(status["features"][0], "amend");
  ProtocolClient subscriber(web.daemon.GetPort());
  subscriber.Send("subscribe\nNetwork/*\n.\n");
  subscriber.AwaitHandled();
  EXPECT_EQ(web.Get("/subscribers").dump(), R"(["Network/*"])");
  EXPECT_EQ(web.Get("/resources").dump(), "[]");
}

TEST(WebReports, ShowAndSetLogLevels) {
  Web web;
  EXPECT_EQ(web.Get("/log-levels").dump(), R"({"Server":"5"})");
  const HttpReply reply = web.Ask("PATCH", "/log-levels", R"({"Server": "trace"})");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(Parse(reply).dump(), R"({"Server":"8"})");
  EXPECT_EQ(web.Ask("PATCH", "/log-levels", R"({"Server": "loud"})").status, 400);
  EXPECT_EQ(web.Ask("PATCH", "/log-levels", R"({"Nothing": 3})").status, 404);
  EXPECT_EQ(web.ReadValue("Server", "log.level"), "8");
}

}  // namespace tavix::test
