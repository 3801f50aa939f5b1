#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>

#include "tests/programs/web/Web.h"
#include "tests/support/StoppedProcess.h"

namespace tavix::test {

namespace {

// What a connection gets that sends these bytes and no more.
std::string Exchange(const Web& web, const std::string& bytes) {
  HttpConnection connection = web.Connect();
  connection.Send(bytes);
  connection.HalfClose();
  return connection.ReadToEnd();
}

// So often that the answers are more than the kernel takes of them, and the requests more than are read ahead.
constexpr char kGetMuch[] = "GET /api/v1/openapi.json HTTP/1.1\r\nHost: localhost\r\n\r\n";
constexpr int kMuchCount = 500;

std::string Repeat(const std::string& text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

int StatusOf(const std::string& answer) {
  return answer.size() < 12 ? 0 : std::stoi(answer.substr(9, 3));
}

}  // namespace

TEST(WebGuard, AnswersWithoutADaemonWhetherItLives) {
  Web web;
  const HttpReply reply = web.Connect().Ask("GET", "/healthz");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "{\"status\":\"ok\"}\n");
  EXPECT_EQ(web.Connect().Ask("HEAD", "/healthz").status, 200);
  EXPECT_EQ(web.Connect().Ask("GET", "/nothing").status, 404);
}

TEST(WebGuard, SendsWhatKeepsPagesApart) {
  Web web;
  const HttpReply reply = web.Ask("GET", "/groups");
  EXPECT_EQ(reply.headers.at("content-security-policy"),
            "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
            "frame-ancestors 'none'; base-uri 'none'");
  EXPECT_EQ(reply.headers.at("x-content-type-options"), "nosniff");
  EXPECT_EQ(reply.headers.at("referrer-policy"), "no-referrer");
  EXPECT_EQ(reply.headers.at("cache-control"), "no-store");
  EXPECT_EQ(reply.headers.count("access-control-allow-origin"), 0U);
}

TEST(WebGuard, AnswersItsOwnNamesAlone) {
  Web web({"--host", "camera.example"});
  const auto ask = [&](const std::string& host) {
    return web.Ask("GET", "/groups", "", "Host: " + host + "\r\n").status;
  };
  for (const char* host : {"127.0.0.1", "127.0.0.1:7280", "[::1]:80", "localhost", "LocalHost:1", "camera.example"})
    EXPECT_EQ(ask(host), 200) << host;
  for (const char* host : {"evil.example", "127.0.0.1.evil.example", "camera.example.evil", "", "localhost:x", "[x]"})
    EXPECT_EQ(ask(host), 421) << host;
}

TEST(WebGuard, RefusesWritesOfForeignPages) {
  Web web;
  const auto patch = [&](const std::string& headers) {
    return web.Ask("PATCH", "/group?name=a", R"({"k": 1})", headers).status;
  };
  EXPECT_EQ(patch("Origin: http://evil.example\r\n"), 403);
  EXPECT_EQ(patch("Origin: null\r\n"), 403);
  EXPECT_EQ(patch("Origin: https://localhost\r\n"), 403);
  EXPECT_EQ(patch("Cookie: other=1\r\n"), 403);
  EXPECT_EQ(web.Ask("GET", "/group?name=a").status, 404);
  EXPECT_EQ(patch("Origin: http://localhost\r\n"), 200);
  EXPECT_EQ(patch("Origin: http://localhost\r\nCookie: other=1\r\n"), 200);
}

TEST(WebGuard, RefusesReadsOfPagesOfOtherSites) {
  Web web;
  const auto get = [&](const std::string& site) {
    return web.Ask("GET", "/groups", "", "Sec-Fetch-Site: " + site + "\r\n").status;
  };
  EXPECT_EQ(get("cross-site"), 403);
  for (const char* site : {"same-origin", "same-site", "none"}) EXPECT_EQ(get(site), 200) << site;
}

TEST(WebGuard, TakesBodiesOfKnownTypesAlone) {
  Web web;
  const auto patch = [&](const std::string& type) {
    return web.Ask("PATCH", "/group?name=a", R"({"k": 1})", "Content-Type: " + type + "\r\n").status;
  };
  EXPECT_EQ(patch("application/x-www-form-urlencoded"), 415);
  EXPECT_EQ(patch("multipart/form-data; boundary=x"), 415);
  EXPECT_EQ(patch("application/json; charset=utf-8"), 200);
  EXPECT_EQ(patch("text/plain"), 200);
}

TEST(WebGuard, KnowsItsPathsAndTheirMethods) {
  Web web;
  EXPECT_EQ(web.Ask("GET", "/nothing").status, 404);
  const HttpReply reply = web.Ask("POST", "/group?name=a", "{}");
  EXPECT_EQ(reply.status, 405);
  EXPECT_EQ(reply.headers.at("allow"), "GET, HEAD, PATCH, PUT, DELETE");
  EXPECT_EQ(web.Ask("OPTIONS", "/group?name=a").status, 405);
  EXPECT_EQ(web.Ask("GET", "/group?name=%zz").status, 400);
}

TEST(WebGuard, TakesKnownParametersAlone) {
  Web web;
  for (const char* target : {"/groups?patern=a", "/groups?limit=1&limit=2", "/group?name=Server&name=a", "/status?x",
                             "/groups?pattern*=a", "/groups?limit%20after=1"})
    EXPECT_EQ(web.Ask("GET", target).status, 400) << target;
  EXPECT_EQ(web.Ask("GET", "/groups?pattern=a&pattern=b&limit=1").status, 200);
  const std::string backup = "# This backup covers all groups\n# End of backup\n";
  EXPECT_EQ(web.Ask("POST", "/import?mode=replace&dryrun=1", backup, "Content-Type: text/plain\r\n").status, 400);
  EXPECT_EQ(web.Get("/groups")["groups"].size(), 5U);
}

TEST(WebGuard, RefusesWhatTwoProgramsCouldReadInTwoWays) {
  Web web;
  const std::string post = "POST /api/v1/reset HTTP/1.1\r\nContent-Type: application/json\r\n";
  const std::string host = "Host: localhost\r\n";
  const std::string get = "GET /healthz HTTP/1.1\r\n";
  for (const std::string& bytes : std::vector<std::string>{
           get + "\r\n", get + host + host + "\r\n", post + host + "Content-Length: 2\r\nContent-Length: 2\r\n\r\n{}",
           post + host + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n{}",
           post + host + "Transfer-Encoding: gzip\r\n\r\n", post + host + "Transfer-Encoding: gzip, chunked\r\n\r\n",
           post + host + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n",
           post + host + "Content-Length: +2\r\n\r\n{}", post + host + "Content-Length: 2, 2\r\n\r\n{}",
           post + host + "Transfer-Encoding: chunked\r\n\r\n0x2\r\n{}\r\n0\r\n\r\n",
           post + host + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}{}\r\n0\r\n\r\n", get + "Host : localhost\r\n\r\n",
           get + host + " folded: 1\r\n\r\n", "GET /healthz HTTP/1.1\nHost: localhost\n\n",
           get + host + "X: a\x01\r\n\r\n", std::string("GET http://localhost/ HTTP/1.1\r\n") + host + "\r\n",
           std::string("\r\n\r\n\r\n\r\n"), std::string("GET  /healthz HTTP/1.1\r\n") + host + "\r\n"}) {
    const std::string answer = Exchange(web, bytes + get + host + "\r\n");
    EXPECT_EQ(StatusOf(answer), 400) << bytes << answer;
    // Nothing behind it is taken for a request.
    EXPECT_EQ(answer.find("HTTP/1.1", 1), std::string::npos) << bytes << answer;
  }
}

TEST(WebGuard, AsksForALength) {
  Web web;
  EXPECT_EQ(StatusOf(Exchange(web, "POST /api/v1/reset HTTP/1.1\r\nHost: localhost\r\n\r\n")), 411);
  EXPECT_EQ(StatusOf(Exchange(web, "GET /healthz HTTP/2.0\r\nHost: localhost\r\n\r\n")), 505);
}

TEST(WebGuard, BoundsHeadersAndBodies) {
  Web web({"--max-body", "2000"});
  const std::string host = "Host: localhost\r\n";
  EXPECT_EQ(StatusOf(Exchange(web, "GET /healthz HTTP/1.1\r\n" + host + "X: " + std::string(17000, 'x') + "\r\n\r\n")),
            431);
  const std::string post = "POST /api/v1/reset HTTP/1.1\r\nContent-Type: application/json\r\n" + host;
  EXPECT_EQ(StatusOf(Exchange(web, post + "Content-Length: 1073741824\r\n\r\n")), 413);
  EXPECT_EQ(StatusOf(Exchange(web, post + "Content-Length: 99999999999999999999999\r\n\r\n")), 413);
  const std::string chunk = "3E8\r\n" + std::string(1000, ' ') + "\r\n";
  EXPECT_EQ(StatusOf(Exchange(web, post + "Transfer-Encoding: chunked\r\n\r\n" + chunk + chunk + chunk)), 413);
}

TEST(WebGuard, ReadsBodiesInChunks) {
  Web web;
  HttpConnection connection = web.Connect();
  connection.Send(
      "PATCH /api/v1/group?name=a HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
      "Transfer-Encoding: Chunked\r\n\r\n4;x=y\r\n{\"k\"\r\n5\r\n: 12}\r\n0\r\nTrailer: x\r\n\r\n");
  EXPECT_EQ(connection.ReadReply().status, 200);
  EXPECT_EQ(web.ReadValue("a", "k"), "12");
  EXPECT_EQ(connection.Ask("GET", "/healthz").status, 200);
}

TEST(WebGuard, AnswersRequestsThatComeAtOnceInTheirOrder) {
  Web web;
  HttpConnection connection = web.Connect();
  for (const char* target : {"/api/v1/group?name=Network/Eth0", "/healthz", "/api/v1/group?name=nothing"})
    connection.SendRequest("GET", target);
  EXPECT_EQ(connection.ReadReply().status, 200);
  EXPECT_EQ(connection.ReadReply().body, "{\"status\":\"ok\"}\n");
  EXPECT_EQ(connection.ReadReply().status, 404);
}

TEST(WebGuard, ContinuesForThoseThatWait) {
  Web web;
  HttpConnection connection = web.Connect();
  connection.Send(
      "PATCH /api/v1/group?name=a HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
      "Content-Length: 8\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(connection.ReadUntil("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  connection.Send("{\"k\": 1}");
  EXPECT_EQ(connection.ReadReply().status, 200);
}

TEST(WebGuard, RefusesByTheHeadAlone) {
  const TemporaryDirectory directory;
  const std::string tokens = directory.Write("tokens", "fleet " + std::string(64, 'a') + " write\n");
  chmod(tokens.c_str(), 0600);
  Web web({"--token-file", tokens});
  const std::string json = "Content-Type: application/json\r\n";
  const std::string host = "Host: localhost\r\n";
  const std::string post = "POST /api/v1/reset HTTP/1.1\r\n";
  for (const auto& [head, status] : std::vector<std::pair<std::string, int>>{
           {post + "Host: evil.example\r\n" + json, 421},
           {"POST /api/v1/nothing HTTP/1.1\r\n" + host + json, 404},
           {"POST /api/v1/group HTTP/1.1\r\n" + host + json, 405},
           {"POST /healthz HTTP/1.1\r\n" + host + json, 405},
           {post + host + json + "Origin: http://evil.example\r\n", 403},
           {post + host + "Content-Type: image/png\r\n", 415},
           {post + host + json, 401},
           {post + host + json + "Authorization: Bearer x\r\nExpect: 100-continue\r\n", 401},
           {"POST /api/v1/login HTTP/1.1\r\n" + host + json, 404}}) {
    HttpConnection connection = web.Connect();
    connection.Send(head + "Content-Length: 1000000\r\n\r\n");
    const HttpReply reply = connection.ReadReply();
    EXPECT_EQ(reply.status, status) << head;
    EXPECT_EQ(reply.headers.at("connection"), "close") << head;
  }
}

TEST(WebGuard, BoundsTheBodiesOfAllTogether) {
  Web web;
  std::vector<HttpConnection> connections;
  const std::string body = R"({"groups": ["a"]})";
  const std::string head =
      "POST /api/v1/reset HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
      "Content-Length: 1048576\r\nExpect: 100-continue\r\n\r\n";
  for (int i = 0; i < 8; ++i) {
    connections.push_back(web.Connect());
    connections.back().Send(head);
    EXPECT_EQ(connections.back().ReadUntil("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
  }
  HttpConnection ninth = web.Connect();
  ninth.Send(head);
  const HttpReply refused = ninth.ReadReply();
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.headers.at("retry-after"), "1");
  // An answer gives the memory of its request back.
  connections[0].Send(body + std::string(1048576 - body.size(), ' '));
  EXPECT_EQ(connections[0].ReadReply().status, 200);
  EXPECT_EQ(web.Ask("POST", "/reset", body).status, 200);
}

TEST(WebGuard, EndsBehindARequestThatAsksForIt) {
  Web web;
  const std::string get = "GET /healthz HTTP/1.1\r\nHost: localhost\r\n";
  for (const std::string& bytes :
       {get + "Connection: x, CLOSE\r\n\r\n",
        std::string("GET /healthz HTTP/1.0\r\nHost: localhost\r\nConnection: keep-alive\r\n\r\n")}) {
    HttpConnection connection = web.Connect();
    connection.Send(bytes);
    EXPECT_EQ(StatusOf(connection.ReadToEnd()), 200) << bytes;
  }
}

TEST(WebGuard, EndsConnectionsBeyondTheLimit) {
  Web web;
  std::vector<HttpConnection> connections;
  for (int i = 0; i < 128; ++i) {
    connections.push_back(web.Connect());
    connections.back().Ask("GET", "/healthz");
  }
  HttpConnection tooMany = web.Connect();
  EXPECT_EQ(tooMany.ReadToEnd(), "");
  connections.clear();
  // The program sees their ends in its own time.
  int status = 0;
  while (status != 200) {
    HttpConnection next = web.Connect();
    next.TrySend("GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    status = StatusOf(next.ReadToEnd());
  }
}

TEST(WebGuard, SleepsWhileRequestsWaitForAnAnswer) {
  Web web;
  StopProcess(web.daemon.GetId());
  HttpConnection connection = web.Connect();
  const std::string get = "GET /api/v1/subscribers HTTP/1.1\r\nHost: localhost\r\n\r\n";
  constexpr int kCount = 400;
  connection.Send(Repeat(get, kCount));
  EXPECT_EQ(web.Connect().Ask("GET", "/healthz").status, 200);  // the others' bytes were there before
  web.process.AwaitIdle();
  web.daemon.Signal(SIGCONT);
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(connection.ReadReply().status, 200) << i;
}

TEST(WebGuard, SleepsWhileAnswersAreNotTaken) {
  Web web;
  HttpConnection connection = web.Connect();
  connection.Send(Repeat(kGetMuch, kMuchCount));
  web.process.AwaitIdle();
  for (int i = 0; i < kMuchCount; ++i) ASSERT_EQ(connection.ReadReply().status, 200) << i;
}

TEST(WebGuard, AnswersAllThatCameBeforeTheClientEndedItsSide) {
  Web web;
  HttpConnection connection = web.Connect();
  connection.Send(Repeat(kGetMuch, kMuchCount) + "GET / HTTP/1.1\r\nHo");
  connection.HalfClose();
  web.process.AwaitIdle();
  for (int i = 0; i < kMuchCount; ++i) ASSERT_EQ(connection.ReadReply().status, 200) << i;
  EXPECT_EQ(connection.ReadToEnd(), "");
}

TEST(WebGuard, ServesBelowAPath) {
  Web web({"--base-path", "/settings/"});
  EXPECT_EQ(web.Connect().Ask("GET", "/settings/api/v1/groups").status, 200);
  EXPECT_EQ(web.Connect().Ask("GET", "/settings/healthz").status, 200);
  EXPECT_EQ(web.Connect().Ask("GET", "/api/v1/groups").status, 404);
  EXPECT_EQ(web.Connect().Ask("GET", "/settingsapi/v1/groups").status, 404);
}

TEST(WebGuard, RefusesEveryWriteIfOnlyForReading) {
  Web web({"--read-only"});
  EXPECT_EQ(web.Get("/status")["read_only"], true);
  EXPECT_EQ(Web().Get("/status")["read_only"], false);
  EXPECT_EQ(web.Ask("GET", "/groups").status, 200);
  for (const char* target : {"/reset", "/apply", "/import"}) EXPECT_EQ(web.Ask("POST", target, "{}").status, 403);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 1})").status, 403);
}

}  // namespace tavix::test
