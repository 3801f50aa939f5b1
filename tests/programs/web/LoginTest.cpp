#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/web/access/Logins.h"
#include "programs/web/access/Password.h"
#include "programs/web/access/PrivateFile.h"
#include "programs/web/access/Tokens.h"
#include "tavix/osa/Exception.h"
#include "tests/programs/web/Web.h"
#include "tests/support/CommandProcess.h"

namespace tavix::test {

namespace {

const std::string kReadToken(64, 'a');
const std::string kWriteToken(64, 'b');

// Where secrets lie, beside what the program has of its own.
class Secrets {
 public:
  Secrets() : passwordFile(Write("password", web::HashPassword("open sesame") + "\n")) {}

  std::string Write(const std::string& name, const std::string& text, mode_t mode = 0600) const {
    std::string path = directory.Write(name, text);
    chmod(path.c_str(), mode);
    return path;
  }

  TemporaryDirectory directory;
  const std::string passwordFile;
  const std::string tokenFile =
      Write("tokens", "# who has them\nfleet " + kWriteToken + " write\n\nlogger " + kReadToken + " read\n");
};

using nlohmann::json;

std::string Bearer(const std::string& token) {
  return "Authorization: Bearer " + token + "\r\n";
}

std::string Cookie(const HttpReply& reply) {
  const std::string cookie = reply.headers.at("set-cookie");
  return "Cookie: other=1; " + cookie.substr(0, cookie.find(';')) + "\r\nOrigin: http://localhost\r\n";
}

HttpReply LogIn(const Web& web, const std::string& password) {
  return web.Ask("POST", "/login", "{\"password\": \"" + password + "\"}");
}

bool CanRead(const std::string& path) {
  try {
    web::ReadPrivateFile(path);
    return true;
  } catch (const osa::Exception&) {
    return false;
  }
}

}  // namespace

TEST(WebLogin, LetsInThoseThatKnowThePassword) {
  const Secrets secrets;
  Web web({"--password-file", secrets.passwordFile});
  EXPECT_EQ(web.Ask("GET", "/groups").status, 401);
  EXPECT_EQ(web.Ask("GET", "/changes").status, 401);
  EXPECT_EQ(LogIn(web, "open").status, 401);
  const HttpReply login = LogIn(web, "open sesame");
  ASSERT_EQ(login.status, 204);
  const std::string cookie = login.headers.at("set-cookie");
  EXPECT_NE(cookie.find("; Path=/; HttpOnly; SameSite=Strict"), std::string::npos) << cookie;
  EXPECT_EQ(web.Ask("GET", "/groups", "", Cookie(login)).status, 200);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 1})", Cookie(login)).status, 200);
}

TEST(WebLogin, EndsWithALogout) {
  const Secrets secrets;
  Web web({"--password-file", secrets.passwordFile});
  const HttpReply login = LogIn(web, "open sesame");
  EXPECT_EQ(web.Ask("POST", "/logout", "", Cookie(login)).status, 204);
  EXPECT_EQ(web.Ask("GET", "/groups", "", Cookie(login)).status, 401);
}

TEST(WebLogin, EndsItsStreamsWithIt) {
  const Secrets secrets;
  Web web({"--password-file", secrets.passwordFile});
  const std::string cookie = Cookie(LogIn(web, "open sesame"));
  HttpConnection stream = web.Connect();
  stream.SendRequest("GET", "/api/v1/changes", "", cookie);
  EXPECT_EQ(stream.ReadReply().status, 200);
  EXPECT_EQ(stream.ReadEvent().first, "ready");
  const json begin = Parse(web.Ask("GET", "/changes?wait=0", "", cookie));
  HttpConnection waiting = web.Connect();
  waiting.SendRequest("GET", "/api/v1/changes?wait=60&since=" + begin["next"].get<std::string>(), "", cookie);
  EXPECT_EQ(web.Connect().Ask("GET", "/healthz").status, 200);
  EXPECT_EQ(web.Ask("POST", "/logout", "", cookie).status, 204);
  EXPECT_EQ(stream.ReadToEnd().find("event: "), std::string::npos);  // a comment may come at any time
  EXPECT_EQ(waiting.ReadReply().status, 401);
}

TEST(WebLogin, IsFoundBesideCookiesOfOthers) {
  const Secrets secrets;
  Web web({"--password-file", secrets.passwordFile});
  const std::string cookie = LogIn(web, "open sesame").headers.at("set-cookie");
  const std::string foreign = "Cookie: tavix_settings_login=" + std::string(64, '0') + "; ";
  EXPECT_EQ(web.Ask("GET", "/groups", "", foreign + cookie.substr(0, cookie.find(';')) + "\r\n").status, 200);
  EXPECT_EQ(web.Ask("GET", "/groups", "", foreign + "x=1\r\n").status, 401);
}

TEST(WebLogin, IsRefusedBehindFiveFailures) {
  const Secrets secrets;
  Web web({"--password-file", secrets.passwordFile});
  for (int i = 0; i < 5; ++i) EXPECT_EQ(LogIn(web, "wrong").status, 401);
  const HttpReply refused = LogIn(web, "open sesame");
  EXPECT_EQ(refused.status, 429);
  const int wait = std::stoi(refused.headers.at("retry-after"));
  EXPECT_GT(wait, 0);
  EXPECT_LE(wait, 60);
  // The password is not even read.
  HttpConnection connection = web.Connect();
  connection.Send(
      "POST /api/v1/login HTTP/1.1\r\nHost: localhost\r\nContent-Type: text/plain\r\nContent-Length: 9\r\n\r\n");
  EXPECT_EQ(connection.ReadReply().status, 429);
}

TEST(WebLogin, TakesSmallBodiesAlone) {
  const Secrets secrets;
  Web web({"--password-file", secrets.passwordFile});
  EXPECT_EQ(web.Ask("POST", "/login", std::string(4096, '[')).status, 400);
  EXPECT_EQ(web.Ask("POST", "/login", std::string(4097, '[')).status, 413);
  EXPECT_EQ(web.Ask("POST", "/logout", std::string(4097, '[')).status, 413);
}

TEST(WebLogin, TakesTokensForWhatTheyAllow) {
  const Secrets secrets;
  Web web({"--token-file", secrets.tokenFile});
  EXPECT_EQ(web.Ask("GET", "/groups").status, 401);
  EXPECT_EQ(web.Ask("GET", "/groups", "", Bearer(kReadToken)).status, 200);
  EXPECT_EQ(web.Ask("GET", "/groups", "", "Authorization: bearer " + kReadToken + "\r\n").status, 200);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 1})", Bearer(kReadToken)).status, 403);
  EXPECT_EQ(web.Ask("PATCH", "/group?name=a", R"({"k": 1})", Bearer(kWriteToken)).status, 200);
  const HttpReply unknown = web.Ask("GET", "/groups", "", Bearer(std::string(64, 'c')));
  EXPECT_EQ(unknown.status, 401);
  EXPECT_EQ(unknown.headers.at("www-authenticate"), "Bearer");
  EXPECT_EQ(web.Ask("POST", "/login", R"({"password": "x"})").status, 404);
}

TEST(WebLogin, CountsForwardedHeadersOfATrustedProxyAlone) {
  const Secrets secrets;
  const std::string forwarded = "X-Forwarded-Proto: https\r\nX-Forwarded-Host: evil.example\r\n";
  Web plain({"--password-file", secrets.passwordFile});
  const HttpReply ignored = plain.Ask("POST", "/login", R"({"password": "open sesame"})", forwarded);
  ASSERT_EQ(ignored.status, 204) << ignored.body;
  EXPECT_EQ(ignored.headers.at("set-cookie").find("Secure"), std::string::npos);
  Web behind({"--password-file", secrets.passwordFile, "--trusted-proxy", "127.0.0.1"});
  EXPECT_EQ(behind.Ask("POST", "/login", R"({"password": "open sesame"})", forwarded).status, 421);
  const HttpReply secure = behind.Ask("POST", "/login", R"({"password": "open sesame"})",
                                      "X-Forwarded-Proto: http\r\nX-Forwarded-Proto: HTTPS\r\n");
  ASSERT_EQ(secure.status, 204) << secure.body;
  EXPECT_NE(secure.headers.at("set-cookie").find("; Secure"), std::string::npos);
  // Failures are counted for the client, not for the proxy.
  for (int i = 0; i < 5; ++i)
    behind.Ask("POST", "/login", R"({"password": "x"})", "X-Forwarded-For: 10.0.0.9, 10.0.0.1\r\n");
  EXPECT_EQ(behind.Ask("POST", "/login", R"({"password": "x"})", "X-Forwarded-For: 10.0.0.1\r\n").status, 429);
  EXPECT_EQ(behind.Ask("POST", "/login", R"({"password": "x"})", "X-Forwarded-For: 10.0.0.2\r\n").status, 401);
  // What the proxy adds behind the client's own line counts.
  const std::string lines = "X-Forwarded-For: 10.0.0.99\r\nX-Forwarded-For: 10.0.0.1\r\n";
  EXPECT_EQ(behind.Ask("POST", "/login", R"({"password": "x"})", lines).status, 429);
}

TEST(WebLogin, LetsUsersOfAUnixSocketIn) {
  Web web;
  const std::string path = web.directory.Path("web.sock");
  const std::string own = std::to_string(getuid());
  {
    WebProcess allowed(web.directory, web.daemon.AwaitAddresses()[0], {"--listen", "unix:" + path, "--allow-uid", own});
    HttpConnection connection(allowed.AwaitAddresses()[0]);
    EXPECT_EQ(connection.Ask("GET", "/api/v1/groups").status, 200);
  }
  EXPECT_FALSE(web.directory.Has("web.sock"));
  WebProcess foreign(web.directory, web.daemon.AwaitAddresses()[0],
                     {"--listen", "unix:" + path, "--allow-uid", "4711"});
  HttpConnection connection(foreign.AwaitAddresses()[0]);
  EXPECT_EQ(connection.Ask("GET", "/api/v1/groups").status, 403);
}

TEST(WebLogin, CountsForwardedHeadersOfAUnixSocketThatIsTrusted) {
  const Secrets secrets;
  Web web;
  const std::string forwarded = "X-Forwarded-Proto: https\r\nX-Forwarded-For: 10.0.0.1\r\n";
  const std::string body = R"({"password": "open sesame"})";
  const std::vector<std::string> words = {"--listen", "unix:" + web.directory.Path("web.sock"), "--password-file",
                                          secrets.passwordFile};
  {
    WebProcess plain(web.directory, web.daemon.AwaitAddresses()[0], words);
    const HttpReply reply = HttpConnection(plain.AwaitAddresses()[0]).Ask("POST", "/api/v1/login", body, forwarded);
    EXPECT_EQ(reply.headers.at("set-cookie").find("Secure"), std::string::npos);
  }
  std::vector<std::string> trusting = words;
  trusting.insert(trusting.end(), {"--trusted-proxy", "unix"});
  WebProcess behind(web.directory, web.daemon.AwaitAddresses()[0], trusting);
  const HttpReply reply = HttpConnection(behind.AwaitAddresses()[0]).Ask("POST", "/api/v1/login", body, forwarded);
  EXPECT_NE(reply.headers.at("set-cookie").find("; Secure"), std::string::npos);
}

TEST(WebLogin, RefusesToOpenDoors) {
  const Secrets secrets;
  const std::string open = secrets.Write("open", web::HashPassword("x"), 0644);
  const std::string noHash = secrets.Write("plain", "x\n");
  const std::string noTokens = secrets.Write("none", "fleet 1234 write\n");
  const std::vector<std::vector<std::string>> wrong = {
      {"--listen", "0.0.0.0:0"},
      {"--listen", "0.0.0.0:0", "--allow-remote"},
      {"--listen", "0.0.0.0:0", "--password-file", secrets.passwordFile},
      {"--listen", "127.0.0.1:0", "--server", "unix:/nowhere"},
      {"--listen", "127.0.0.1:0", "--password-file", open},
      {"--listen", "127.0.0.1:0", "--password-file", noHash},
      {"--listen", "127.0.0.1:0", "--password-file", "/nowhere"},
      {"--listen", "127.0.0.1:0", "--token-file", noTokens}};
  for (std::vector<std::string> words : wrong) {
    words.insert(words.begin(), TAVIX_WEB_PROGRAM);
    const Outcome outcome = RunToEnd(secrets.directory.GetPath(), words);
    EXPECT_EQ(outcome.status, 78) << outcome.errors;
    EXPECT_NE(outcome.errors, "");
  }
}

TEST(WebLogin, MakesThePasswordsText) {
  const Secrets secrets;
  const Outcome outcome =
      RunToEnd(secrets.directory.GetPath(), {TAVIX_WEB_PROGRAM, "--hash-password"}, "open sesame\n");
  ASSERT_EQ(outcome.status, 0);
  const std::string hash = outcome.output.substr(0, outcome.output.find('\n'));
  EXPECT_TRUE(web::IsPasswordHash(hash));
  EXPECT_TRUE(web::MatchesPassword(hash, "open sesame"));
  EXPECT_FALSE(web::MatchesPassword(hash, "open sesame "));
}

TEST(WebLogin, RefusesWrongOptions) {
  const TemporaryDirectory directory;
  for (const char* option :
       {"--nothing", "--max-body=x", "--host=", "--trusted-proxy=camera", "--base-path=x", "--allow-uid=65534", "word"})
    EXPECT_EQ(RunToEnd(directory.GetPath(), {TAVIX_WEB_PROGRAM, option}).status, 64) << option;
}

TEST(Logins, EndBehindAnIdleTimeAndInAnyCase) {
  web::Logins logins;
  const auto begin = web::Logins::Clock::now();
  const std::string cookie = logins.Begin(begin);
  EXPECT_EQ(cookie.size(), 64U);
  auto now = begin;
  for (; now < begin + std::chrono::hours(12); now += std::chrono::minutes(29)) EXPECT_TRUE(logins.Use(cookie, now));
  EXPECT_FALSE(logins.Use(cookie, begin + std::chrono::hours(12) + std::chrono::seconds(1)));
  const std::string idle = logins.Begin(begin);
  EXPECT_FALSE(logins.Use(idle, begin + std::chrono::minutes(31)));
  EXPECT_FALSE(logins.Use("", begin));
}

TEST(Logins, ForgetFailuresBehindAMinute) {
  web::Logins logins;
  const auto begin = web::Logins::Clock::now();
  for (int i = 0; i < 5; ++i) logins.BeginAttempt("a", begin);
  EXPECT_EQ(logins.FindWait("a", begin + std::chrono::seconds(59)).count(), 1);
  EXPECT_EQ(logins.FindWait("b", begin).count(), 0);
  EXPECT_EQ(logins.FindWait("a", begin + std::chrono::seconds(60)).count(), 0);
}

TEST(Logins, CountFailuresOfANetworkTogether) {
  web::Logins logins;
  const auto now = web::Logins::Clock::now();
  for (int i = 0; i < 5; ++i) logins.BeginAttempt("2001:db8::" + std::to_string(i), now);
  EXPECT_EQ(logins.FindWait("2001:db8::ffff:1", now).count(), 60);
  EXPECT_EQ(logins.FindWait("2001:db8:0:1::1", now).count(), 0);
}

TEST(Logins, OfManyAddressesShutNobodyOutWhoGotInBefore) {
  web::Logins logins;
  const auto now = web::Logins::Clock::now();
  logins.BeginAttempt("good", now);
  logins.Succeed("good", now);
  for (size_t i = 0; i < web::Logins::kMaxAllFailures; ++i) {
    EXPECT_EQ(logins.FindWait(std::to_string(i), now).count(), 0) << i;
    logins.BeginAttempt(std::to_string(i), now);
  }
  EXPECT_EQ(logins.FindWait("new", now).count(), 60);
  EXPECT_EQ(logins.FindWait("good", now).count(), 0);
  EXPECT_EQ(logins.FindWait("new", now + std::chrono::seconds(60)).count(), 0);
}

TEST(Logins, AreNotUsedByAStreamThatAsksForThem) {
  web::Logins logins;
  const auto begin = web::Logins::Clock::now();
  const std::string cookie = logins.Begin(begin);
  EXPECT_TRUE(logins.IsValid(cookie, begin + std::chrono::minutes(30)));
  EXPECT_FALSE(logins.IsValid(cookie, begin + std::chrono::minutes(31)));
  EXPECT_FALSE(logins.Use(cookie, begin + std::chrono::minutes(31)));
}

TEST(PrivateFile, IsReadByItsOwnerAlone) {
  const Secrets secrets;
  EXPECT_EQ(web::ReadPrivateFile(secrets.Write("own", "x")), "x");
  for (const mode_t mode : {0640, 0620, 0610, 0604, 0440})
    EXPECT_THROW(web::ReadPrivateFile(secrets.Write("shared", "x", mode)), osa::Exception) << mode;
  const std::string foreign = secrets.Write("foreign", "x");
  const bool isRoot = chown(foreign.c_str(), 4711, 4711) == 0;
  EXPECT_TRUE(!isRoot || !CanRead(foreign));
}

TEST(PrivateFile, OfTheServiceManagerMayShowRightsOfItsGroup) {
  const Secrets secrets;
  const std::string credential = secrets.Write("credential", "x", 0440);
  const std::string open = secrets.Write("open", "x", 0444);
  const std::string nested = secrets.directory.Path("a");
  mkdir(nested.c_str(), 0700);
  const std::string below = secrets.Write("a/b", "x", 0440);
  setenv("CREDENTIALS_DIRECTORY", secrets.directory.GetPath().c_str(), 1);
  EXPECT_EQ(web::ReadPrivateFile(credential), "x");
  EXPECT_THROW(web::ReadPrivateFile(open), osa::Exception);
  EXPECT_THROW(web::ReadPrivateFile(below), osa::Exception);
  setenv("CREDENTIALS_DIRECTORY", nested.c_str(), 1);
  EXPECT_THROW(web::ReadPrivateFile(credential), osa::Exception);
  unsetenv("CREDENTIALS_DIRECTORY");
}

}  // namespace tavix::test
