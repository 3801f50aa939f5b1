// Text that looks like a page to a browser is data in every answer.

#include <gtest/gtest.h>

#include <set>

#include "programs/web/interface/Router.h"
#include "tests/programs/web/Web.h"

namespace tavix::test {

namespace {

constexpr char kScript[] = "<script>hit()</script>";
constexpr char kCutOff[] = "{\"<script>hit()</script>\": 1";
constexpr char kEncoded[] = "%3Cscript%3Ehit()%3C%2Fscript%3E";

// A browser makes a page of none of these.
const std::set<std::string> kPlainTypes = {"application/json", "application/problem+json", "text/event-stream",
                                           "text/plain; charset=utf-8"};

void ExpectData(const HttpReply& reply, const std::string& what) {
  const auto find = [&](const char* name) {
    const auto found = reply.headers.find(name);
    return found == reply.headers.end() ? std::string() : found->second;
  };
  EXPECT_EQ(kPlainTypes.count(find("content-type")), 1U) << what << ": " << find("content-type");
  EXPECT_EQ(find("x-content-type-options"), "nosniff") << what;
  EXPECT_EQ(find("content-security-policy").compare(0, 19, "default-src 'none';"), 0) << what;
  EXPECT_EQ(find("cache-control"), "no-store") << what;
}

// A device whose settings, history and subscriptions are nothing but such texts.
class Scripts {
 public:
  Scripts()
      : daemon(directory, {"--user-settings", "user.ini", "--history", "65536"}),
        process(directory, daemon.AwaitAddresses()[0]),
        _subscriber(daemon.GetPort()) {
    const std::string text(kScript);
    Ask("POST", "/apply",
        R"({"set": {")" + text + R"(": {")" + text + R"(": ")" + text + R"(", "log.level": ")" + text +
            R"("}, "Resources/<script>": {"TotalAvailable": 5}}})");
    _subscriber.Send("subscribe\n" + text + "\n.\n");
    _subscriber.AwaitHandled();
  }

  HttpReply Ask(const std::string& method, const std::string& target, const std::string& body = {}) const {
    return HttpConnection(process.GetPort()).Ask(method, "/api/v1" + target, body);
  }

  TemporaryDirectory directory;
  Daemon daemon;
  WebProcess process;

 private:
  ProtocolClient _subscriber;
};

}  // namespace

TEST(WebScripts, AreDataInEveryAnswer) {
  const Scripts web;
  for (const char* target :
       {"/groups", "/tree", "/group?name=", "/diff", "/export", "/export?format=json", "/search?q=script", "/history",
        "/history?group=", "/pending", "/subscribers", "/resources", "/log-levels"}) {
    const std::string whole = std::string(target) + (std::string(target).back() == '=' ? kEncoded : "");
    const HttpReply reply = web.Ask("GET", whole);
    EXPECT_EQ(reply.status, 200) << whole;
    ExpectData(reply, whole);
    EXPECT_EQ(reply.body.find("<script>") == std::string::npos, whole == "/pending") << whole << reply.body;
  }
}

TEST(WebScripts, AreDataInTheAnswersToAllRequestsThatFail) {
  const Scripts web;
  for (const web::Route& route : web::GetRoutes()) {
    for (const std::string parameter : {"?name=", "?nothing=", "?limit=", "?"}) {
      const std::string target = std::string(route.path) + parameter + kEncoded;
      const bool hasBody = route.method[0] == 'P';
      const HttpReply reply = web.Ask(route.method, target, hasBody ? kCutOff : "");
      if (reply.status >= 300) ExpectData(reply, route.method + target);
    }
  }
  for (const char* target : {"/<script>", "/group/<script>?name=x"}) ExpectData(web.Ask("GET", target), target);
}

TEST(WebScripts, AreDataInStreams) {
  const Scripts web;
  HttpConnection stream(web.process.GetPort());
  stream.SendRequest("GET", "/api/v1/changes");
  ExpectData(stream.ReadReply(), "a stream");
  EXPECT_EQ(stream.ReadEvent().first, "ready");
  web.Ask("PATCH", std::string("/group?name=") + kEncoded, std::string(R"({"k": ")") + kScript + "\\n\\n<b>\"}");
  const std::string event = stream.ReadEvent().second;
  EXPECT_NE(event.find(std::string("\"k\":\"") + kScript + "\\n\\n<b>\""), std::string::npos) << event;
}

}  // namespace tavix::test
